// What the files of the parts for solvers share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "velmar_2D/velmar_2D_numerics.hpp"

namespace velmar_2d::numerics::detail {

/// Another number at each call.
std::uint64_t next_version();

/// Throws an Error that names what has another size than it should.
void require_size(std::string_view what, std::size_t given, std::size_t needed);

constexpr std::size_t index(std::int32_t i) { return static_cast<std::size_t>(i); }

}  // namespace velmar_2d::numerics::detail
