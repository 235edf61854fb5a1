// Cutting the node list at the seams between stretches, and joining it again.
#include "velmar_2D/internal.hpp"

namespace velmar_2d {

void split_sublists() {
  const detail::MeshChange change("split_sublists");
  detail::require_mesh("split_sublists");
  for (std::int32_t l = 0; l <= level_max; ++l) {
    const auto stretch = static_cast<std::size_t>(l);
    if (level_beg[stretch].next == nullptr) continue;
    level_beg[stretch].next->prev = nullptr;
    level_end[stretch].next->next = nullptr;
  }
  mesh_beg = nullptr;
  mesh_end = nullptr;
}

void join_sublists() {
  const detail::MeshChange change("join_sublists");
  detail::require_mesh("join_sublists");
  level_range[0] = -1;
  Cell* last = nullptr;
  for (std::int32_t l = 0; l <= level_max; ++l) {
    const auto stretch = static_cast<std::size_t>(l);
    Cell* first = level_beg[stretch].next;
    if (first == nullptr) continue;
    if (level_range[0] < 0) level_range[0] = l;
    level_range[1] = l;
    if (last != nullptr) {
      last->next = first;
      first->prev = last;
    } else {
      mesh_beg = first;
    }
    last = level_end[stretch].next;
  }
  mesh_end = last;
}

}  // namespace velmar_2d
