// A checksum of the whole file behind its end, where HDF5 does not look. HDF5 guards its own
// structures, but does not come away clean from damaged ones, and so a file that has changed is
// better not shown to it. A file that another program has added to has no trailer any more, and a
// series never has one: to read a step, the others need not be read.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string>

namespace velmar_2d::hdf5 {

inline constexpr std::size_t bytes_of_trailer = 24;

std::array<std::byte, bytes_of_trailer> trailer_of(std::span<const std::byte> file);

/// Both throw Error where there is a trailer, and the file is not the one that it was made for.
void check_trailer(const std::string& path);
/// @return the file without its trailer
std::span<const std::byte> check_trailer(std::span<const std::byte> file);

}  // namespace velmar_2d::hdf5
