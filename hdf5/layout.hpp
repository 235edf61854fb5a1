// How a file is laid out, and how its faults are told.
//
//     /            attributes: format, format_version, velmar_2d_version
//     /NAME        a mesh, see mesh_group.hpp
//     /NAME        a series: attribute series, and a group for each step, a mesh each, with the
//                  attributes step and time
#pragma once

#include <new>
#include <string>
#include <string_view>

#include "hdf5/objects.hpp"

namespace velmar_2d::hdf5 {

inline constexpr const char *format_attribute = "format_version", *series_attribute = "series";
inline constexpr std::int32_t format_version = 1;

/// Throws Error where the file is none of ours, or of a version to come.
void check_format(hid_t file);
Object make_series(hid_t file, const std::string& name);
/// Sorted names are in the order of the steps.
std::string name_of_step(std::int64_t step);

/// Does some work; its Errors get the operation and the path in front.
template <typename Work>
auto telling(std::string_view operation, const std::string& path, const Work& work) {
  const std::string head =
      "(velmar_2D/" + std::string(operation) + ":) ERROR: " + path + (path.empty() ? "" : ": ");
  try {
    return work();
  } catch (const Error& error) {
    throw Error(head + error.what());
  } catch (const std::bad_alloc&) {
    throw Error(head + "there is not enough memory");
  }
}

}  // namespace velmar_2d::hdf5
