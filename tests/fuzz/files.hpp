// Bytes as what the program is given: a file of each kind that it reads, or an expression.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace velmar_2d::tests {

/// The readers, by the folder of their corpus.
inline constexpr std::array<std::string_view, 4> readers = {"geojson", "text", "png", "expression"};

/// Gives the bytes to a reader and holds what it makes of them against what is expected of it.
/// Returns what was broken, empty if nothing was.
std::string run_reader(std::string_view reader, std::span<const std::uint8_t> bytes);

}  // namespace velmar_2d::tests
