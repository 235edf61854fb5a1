// Files of a mesh that is kept in parts. Never installed: velmar_2d::mpi_io is made of it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d::io {

/// The part of a mesh that one of several processes owns.
struct VtuPart {
  std::function<bool(const Cell& node)> owns;
  std::function<std::int64_t(const Cell& node)> number;  ///< in the whole: what the file calls id
  // Of nodes of others, whose surroundings may be known in part only, as their owners have them.
  std::function<std::int32_t(const Cell& node)> level_there;
  std::function<double(const Cell& node)> area_there;
};

/// Area of the control cell, as files have it, without touching what the node has cached.
VELMAR_2D_IO_API double area_of(const Mesh& mesh, const Cell& node);

/// Writes what a process owns of a mesh: the control cells of its nodes, or the triangles whose
/// lowest corner it owns, the westernmost of the lowest. Nodes of others at their corners are
/// points that the array vtkGhostType marks as double.
///
/// @return nothing on success; otherwise one line: the path and the reason
[[nodiscard]] VELMAR_2D_IO_API std::string write_vtu_part(const Mesh& mesh, const std::string& path,
                                                          const VtuPart& part,
                                                          const VtuOptions& options);

/// Writes the .pvtu file that joins the files of all parts, which it names as they are given here.
/// `mesh` is any of the parts.
///
/// @return nothing on success; otherwise one line: the path and the reason
[[nodiscard]] VELMAR_2D_IO_API std::string write_pvtu_file(const Mesh& mesh,
                                                           const std::string& path,
                                                           const std::vector<std::string>& files,
                                                           const VtuOptions& options);

}  // namespace velmar_2d::io
