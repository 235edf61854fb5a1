// The subdivision limit: raising it makes room, lowering it removes every node above.
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

bool has_link_to_cell(const Cell& c, const std::array<int, 4>& directions) {
  return std::any_of(directions.begin(), directions.end(),
                     [&](int direction) { return link(c, direction).cell() != nullptr; });
}

void remove_by_links(State& state, Cell*& c) {
  if (!has_link_to_cell(*c, diagonal_directions)) {
    remove_node_even_level(state, c);
  } else if (!has_link_to_cell(*c, straight_directions)) {
    remove_node_odd_level(state, c);
  }
}

/// Walks the stretches above the limit downwards, each from its last node to its first.
void remove_above(State& state, std::int32_t limit, void (*remove)(State&, Cell*&)) {
  for (std::int32_t l = highest_stretch(state); l > std::max(limit, -1); --l) {
    Cell* c = state.level_end[static_cast<std::size_t>(l)].next;
    while (c != nullptr) {
      state.progress.step();
      Cell* candidate = c;
      c = c->prev;
      remove(state, candidate);
    }
  }
}

bool nodes_above(const State& state, std::int32_t limit) {
  for (std::int32_t l = std::max(limit, -1) + 1; l <= highest_stretch(state); ++l) {
    if (state.level_beg[static_cast<std::size_t>(l)].next != nullptr) return true;
  }
  return false;
}

/// New nodes of ours get interpolated data, whatever the last update did: the procedure that it was
/// given may be gone.
class InterpolateMeanwhile {
 public:
  explicit InterpolateMeanwhile(State& state)
      : state_(state), before_(std::exchange(state.data_interpolation, true)) {}
  InterpolateMeanwhile(const InterpolateMeanwhile&) = delete;
  InterpolateMeanwhile& operator=(const InterpolateMeanwhile&) = delete;
  ~InterpolateMeanwhile() { state_.data_interpolation = before_; }

 private:
  State& state_;
  bool before_;
};

/// Fills the holes among the nodes above the limit.
///
/// A node that was removed from among finer ones left its neighbours with straight and diagonal
/// links, and those decline to be removed. Once each stretch is completed with the nodes that
/// refinement would put there, every node is again linked in one way only.
void fill_holes_above(State& state, std::int32_t limit) {
  const InterpolateMeanwhile interpolate(state);
  const Domain& domain = state.domain;
  std::array<Vertex, 4> proposals;
  std::int32_t n = 0;
  for (std::int32_t l = limit + 1; l <= highest_stretch(state); ++l) {
    for (Cell* c = state.level_beg[static_cast<std::size_t>(l)].next; c != nullptr; c = c->next) {
      state.progress.step();
      build_vertex(state, *c, proposals, n);
      for (std::int32_t i = 0; i < n; ++i) {
        const Vertex& v = proposals[static_cast<std::size_t>(i)];
        if (v.level > state.level_max) continue;
        if (true_ipos(domain, v.x - domain.frame.x_min, v.y - domain.frame.y_min, state.level_max) >
            l)
          continue;
        insert_by_level(state, v);
      }
    }
  }
}

void lower_limit(State& state, std::int32_t subdiv_max) {
  require_mesh(state, "set_subdiv_max");
  if (subdiv_max < 0) {  // leaves no place for any node
    release_all_nodes(state);
    state.level_max = subdiv_max;
    state.level_range[0] = -1;
    return;
  }
  const RemapAtEnd remap_at_end(state);
  const JoinAtEnd join_at_end(state);
  const GatherLinkSources gather_link_sources(state);
  split_sublists(state);
  state.progress.begin("coarsening", state.nb_nodes);
  remove_above(state, subdiv_max, remove_by_level);
  // One round has always been enough; the bound only keeps a mesh with broken links from
  // holding us for ever.
  constexpr int most_rounds = 16;
  for (int round = 0; nodes_above(state, subdiv_max); ++round) {
    if (round == most_rounds) {
      fatal(state.handlers,
            "(Velmar_2D:) set_subdiv_max: ERROR\n"
            "             some nodes above the new limit cannot be removed\n"
            "             (the links between the nodes are broken)");
    }
    fill_holes_above(state, subdiv_max);
    remove_above(state, subdiv_max, remove_by_links);
  }
  state.level_max = subdiv_max;
}

}  // namespace

void remove_by_level(State& state, Cell*& c) {
  if (c->level % 2 != 1) {
    remove_node_even_level(state, c);
  } else {
    remove_node_odd_level(state, c);
  }
}

void set_subdiv_max(State& state, std::int32_t subdiv_max) {
  if (subdiv_max == state.level_max) return;
  if (subdiv_max < state.level_max) {
    lower_limit(state, subdiv_max);
    return;
  }
  // Without a mesh there is no domain, and init_mesh() checks the limit that it is given.
  check_subdiv_max(state, "set_subdiv_max", subdiv_max,
                   state.level_beg.empty() ? deepest_level : state.domain.deepest_level);
  // Nor are there arrays, and init_mesh() makes them.
  if (subdiv_max >= 0 && !state.level_beg.empty() &&
      static_cast<std::size_t>(subdiv_max) >= state.level_beg.size()) {
    make_level_arrays(state, subdiv_max);
  }
  state.level_max = subdiv_max;
}

}  // namespace velmar_2d::detail
