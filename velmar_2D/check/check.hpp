// Checking a whole mesh. Never installed.
#pragma once

#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

/// As check_mesh(), but exhausted memory leaves it as std::bad_alloc.
void find_broken_rules(const State& state, std::vector<Finding>& findings);
std::size_t check_mesh(const State& state, std::vector<Finding>& findings);

/// The scope of an exported procedure that changes the mesh. In a build with VELMAR_2D_VALIDATE the
/// mesh is checked at its end, and the process ended with the first finding; unless an exception
/// leaves it, or the mesh was broken before. Single steps take the caller's word for what they
/// insert and remove, and are held to the rules of list and links only. In other builds it is
/// nothing.
class MeshChange {
 public:
#if defined(VELMAR_2D_VALIDATE)
  MeshChange(const State& state, std::string_view operation);
  ~MeshChange() noexcept(false);
  MeshChange(const MeshChange&) = delete;
  MeshChange& operator=(const MeshChange&) = delete;

 private:
  const State& state_;
  std::string_view operation_;
  int exceptions_before_;
  bool was_whole_ = false;
#else
  MeshChange(const State& /*state*/, std::string_view /*operation*/) {}
#endif
};

}  // namespace velmar_2d::detail
