// The node list by stretches: entering and leaving it in both of its states.
//
//   joined:  mesh_beg -> [stretch 0] <-> [stretch 1] <-> ... <-> mesh_end
//   split:   [stretch 0]   [stretch 1]   ...             mesh_beg and mesh_end are none
//
// Seams exist only in the joined state. A node is first or last of its stretch exactly where
// level_beg or level_end says so; its own prev and next cannot tell.
#include <limits>
#include <new>
#include <string>

#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

namespace {

/// Joins two nodes of the list, either of which may be none (the list's own ends).
void join(State& state, Cell* before, Cell* after) {
  (before != nullptr ? before->next : state.mesh_beg) = after;
  (after != nullptr ? after->prev : state.mesh_end) = before;
}

/// As join(), inside one stretch of a list that may be split.
void join_within(Cell* before, Cell* after) {
  if (before != nullptr) before->next = after;
  if (after != nullptr) after->prev = before;
}

/// Last node before an empty stretch, and first node after it.
std::pair<Cell*, Cell*> surroundings(const State& state, std::size_t stretch) {
  for (std::size_t below = stretch; below-- > 0;) {
    if (Cell* before = state.level_end[below].next; before != nullptr)
      return {before, before->next};
  }
  return {nullptr, state.mesh_beg};
}

}  // namespace

void enter_stretch(State& state, Cell& c) {
  const auto stretch = static_cast<std::size_t>(c.ipos);
  Cell* head = state.level_beg[stretch].next;
  if (!state.lists_are_split()) {
    const auto [before, after] =
        head != nullptr ? std::pair{head->prev, head} : surroundings(state, stretch);
    join(state, before, &c);
    join(state, &c, after);
  } else {
    join_within(&c, head);
  }
  state.level_beg[stretch].next = &c;
  if (head == nullptr) state.level_end[stretch].next = &c;
  if (c.ipos == 0) state.grid_nodes.forget();
  if (state.stretch_nodes.is_open()) state.stretch_nodes.enter(c);
}

void leave_stretch(State& state, Cell& c) {
  // Without a node of level 0 its neighbours' links grow: distances tell nothing any more.
  if (c.ipos == 0) {
    state.domain.longest_link = std::numeric_limits<double>::infinity();
    state.domain.lattice_is_whole = false;
    state.grid_nodes.forget();
  }
  const auto stretch = static_cast<std::size_t>(c.ipos);
  Cell*& first = state.level_beg[stretch].next;
  Cell*& last = state.level_end[stretch].next;
  const bool is_first = first == &c, is_last = last == &c;
  if (is_first) first = is_last ? nullptr : c.next;
  if (is_last) last = is_first ? nullptr : c.prev;
  if (state.lists_are_split()) {
    join_within(c.prev, c.next);
  } else {
    join(state, c.prev, c.next);
  }
}

void make_level_arrays(State& state, std::int32_t subdiv_max) {
  const auto size = static_cast<std::size_t>(subdiv_max) + 1;
  try {
    state.level_beg.reserve(size);
    state.level_end.reserve(size);
    state.level_beg.resize(size);
    state.level_end.resize(size);
  } catch (const std::bad_alloc&) {
    allocation_failed(state, size * sizeof(Handle));
  }
}

void check_subdiv_max(const State& state, std::string_view operation, std::int32_t subdiv_max,
                      std::int32_t deepest) {
  if (subdiv_max <= deepest) return;
  fatal(state.handlers, "(velmar_2D/" + std::string(operation) + ":) ERROR: arg 'subdiv_max' > " +
                            std::to_string(deepest) +
                            " !\n"
                            "        (nodes above level " +
                            std::to_string(deepest) + " cannot be told apart" +
                            (deepest < deepest_level ? " in this domain.)" : ".)"));
}

}  // namespace velmar_2d::detail
