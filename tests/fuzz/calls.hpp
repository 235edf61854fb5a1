// Bytes as a sequence of calls of the library: any order, any argument, wrong ones too.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace velmar_2d::tests {

/// Carries the calls out, from a library without a mesh to one without a mesh, with the library's
/// own checker and the independent one after each. Fatal errors and some callbacks throw.
/// Returns what was broken first, empty if nothing was.
std::string run_calls(std::span<const std::uint8_t> bytes);

}  // namespace velmar_2d::tests
