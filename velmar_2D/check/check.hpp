// Checking a whole mesh. Never installed.
#pragma once

#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

/// As check_mesh(), but exhausted memory leaves it as std::bad_alloc.
void find_broken_rules(const State& state, std::vector<Finding>& findings);
std::size_t check_mesh(const State& state, std::vector<Finding>& findings);

/// The scope of an exported procedure that changes the mesh, which is in use meanwhile. In a build
/// with VELMAR_2D_VALIDATE the mesh is checked at its end, and the process ended with the first
/// finding; unless an exception leaves it, or the mesh was broken before. Single steps take the
/// caller's word for what they insert and remove, and are held to the rules of list and links only.
class MeshChange {
 public:
#if defined(VELMAR_2D_VALIDATE)
  MeshChange(State& state, std::string_view operation, bool needs_arrays = true);
  ~MeshChange() noexcept(false);
  MeshChange(const MeshChange&) = delete;
  MeshChange& operator=(const MeshChange&) = delete;

 private:
  InUse in_use_;
  const State& state_;
  std::string_view operation_;
  int exceptions_before_;
  bool was_whole_ = false;
#else
  MeshChange(State& state, std::string_view operation, bool needs_arrays = true)
      : in_use_(state, operation, needs_arrays) {}

 private:
  InUse in_use_;
#endif
};

}  // namespace velmar_2d::detail
