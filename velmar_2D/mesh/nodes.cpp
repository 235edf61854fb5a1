// The one place that creates nodes and the one that releases them.
#include <cstdlib>
#include <limits>
#include <new>

#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

Cell* new_cell(State& state, std::int32_t stretch) {
  if (state.nb_nodes == std::numeric_limits<std::int32_t>::max()) {
    fatal(state.handlers,
          "(velmar_2D:) ERROR: the mesh has as many nodes as can be counted\n"
          "        (2147483647)");
  }
  void* slot = state.memory.take(stretch);
  if (slot == nullptr) allocation_failed(state, sizeof(Cell));
  auto* c = new (slot) Cell;
  if (state.n_cell_data > 0) {
    try {
      c->data.resize(static_cast<std::size_t>(state.n_cell_data));
    } catch (const std::bad_alloc&) {
      c->~Cell();
      state.memory.give_back(c);
      allocation_failed(state, static_cast<std::size_t>(state.n_cell_data) * sizeof(double));
    }
  }
  c->id = state.next_id++;
  ++state.nb_nodes;
  ++state.mesh_revision;
  return c;
}

namespace {

/// Some systems put small pieces that are given back aside, and clear them all away when a large
/// one is asked for: a tenth of a second and more for millions. So one is, now and then.
void clear_pieces_away(const State& state) {
  constexpr std::uint64_t between = std::uint64_t{1} << 16, large = 1 << 14;
  if (state.n_cell_data < 2 || state.mesh_revision % between != 0) return;
  void* volatile piece = std::malloc(large);
  std::free(piece);
}

}  // namespace

void release_cell(State& state, Cell*& c) {
  if (c == nullptr) release_of_missing(state.handlers, "c");
  c->~Cell();
  state.memory.give_back(c);
  c = nullptr;
  --state.nb_nodes;
  ++state.mesh_revision;
  clear_pieces_away(state);
}

std::int32_t release_all_nodes(State& state) {
  if (state.lists_are_split()) join_sublists(state);
  std::int32_t nb_released = 0;
  while (state.mesh_beg != nullptr) {
    Cell* c = state.mesh_beg;
    state.mesh_beg = c->next;
    release_cell(state, c);
    ++nb_released;
  }
  state.mesh_end = nullptr;
  state.nb_nodes = 0;  // of a list that a caller has broken not all are found
  for (std::vector<Handle>* ends : {&state.level_beg, &state.level_end}) {
    std::fill(ends->begin(), ends->end(), Handle{});
  }
  state.memory.release_all();
  state.history.forget();
  state.stretch_nodes.forget();
  state.fit_operators.forget();
  state.space_order.forget();
  state.grid_nodes.forget();
  state.links_may_be_one_way = false;
  return nb_released;
}

}  // namespace velmar_2d::detail
