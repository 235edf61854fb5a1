// Cutting the node list at the seams between stretches, and joining it again.
#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

namespace {

std::size_t nb_stretches(const State& state) {
  return std::min(state.level_beg.size(), state.level_end.size());
}

}  // namespace

void split_sublists(State& state) {
  require_mesh(state, "split_sublists");
  for (std::size_t stretch = 0; stretch < nb_stretches(state); ++stretch) {
    if (state.level_beg[stretch].next == nullptr) continue;
    state.level_beg[stretch].next->prev = nullptr;
    state.level_end[stretch].next->next = nullptr;
  }
  state.mesh_beg = nullptr;
  state.mesh_end = nullptr;
}

void join_sublists(State& state) {
  require_mesh(state, "join_sublists");
  state.level_range[0] = -1;
  Cell* last = nullptr;
  for (std::size_t stretch = 0; stretch < nb_stretches(state); ++stretch) {
    const auto l = static_cast<std::int32_t>(stretch);
    Cell* first = state.level_beg[stretch].next;
    if (first == nullptr) continue;
    if (state.level_range[0] < 0) state.level_range[0] = l;
    state.level_range[1] = l;
    if (last != nullptr) {
      last->next = first;
      first->prev = last;
    } else {
      state.mesh_beg = first;
    }
    last = state.level_end[stretch].next;
  }
  state.mesh_end = last;
}

}  // namespace velmar_2d::detail
