// The subdivision limit: raising it makes room, lowering it removes every node above.
#include "velmar_2D/insertion.hpp"

namespace velmar_2d {

namespace {

using namespace detail;

bool has_link_to_cell(const Cell& c, const std::array<int, 4>& directions) {
  return std::any_of(directions.begin(), directions.end(),
                     [&](int direction) { return link(c, direction).cell() != nullptr; });
}

void remove_by_level(Cell*& c) {
  if (c->level % 2 != 1) {
    remove_node_even_level(c);
  } else {
    remove_node_odd_level(c);
  }
}

void remove_by_links(Cell*& c) {
  if (!has_link_to_cell(*c, diagonal_directions)) {
    remove_node_even_level(c);
  } else if (!has_link_to_cell(*c, straight_directions)) {
    remove_node_odd_level(c);
  }
}

/// Walks the stretches above the limit downwards, each from its last node to its first.
void remove_above(std::int32_t limit, void (*remove)(Cell*&)) {
  for (std::int32_t l = level_max; l > std::max(limit, -1); --l) {
    Cell* c = level_end[static_cast<std::size_t>(l)].next;
    while (c != nullptr) {
      Cell* candidate = c;
      c = c->prev;
      remove(candidate);
    }
  }
}

bool nodes_above(std::int32_t limit) {
  for (std::int32_t l = std::max(limit, -1) + 1; l <= level_max; ++l) {
    if (level_beg[static_cast<std::size_t>(l)].next != nullptr) return true;
  }
  return false;
}

/// Fills the holes among the nodes above the limit.
///
/// A node that was removed from among finer ones left its neighbours with straight and diagonal
/// links, and those decline to be removed. Once each stretch is completed with the nodes that
/// refinement would put there, every node is again linked in one way only.
void fill_holes_above(std::int32_t limit) {
  std::array<Vertex, 4> proposals;
  std::int32_t n = 0;
  for (std::int32_t l = limit + 1; l <= level_max; ++l) {
    for (Cell* c = level_beg[static_cast<std::size_t>(l)].next; c != nullptr; c = c->next) {
      build_vertex(c, proposals, n);
      for (std::int32_t i = 0; i < n; ++i) {
        const Vertex& v = proposals[static_cast<std::size_t>(i)];
        if (v.level > level_max || true_ipos(v.x - x_min, v.y - y_min) > l) continue;
        insert_by_level(v);
      }
    }
  }
}

/// A limit below 0 leaves no place for any node: what the removals declined is released as it is.
void release_remaining_nodes() {
  for (std::size_t stretch = 0; stretch < level_beg.size(); ++stretch) {
    Cell* c = level_beg[stretch].next;
    while (c != nullptr) {
      Cell* released = c;
      c = c->next;
      release_cell(released);
    }
    level_beg[stretch].next = level_end[stretch].next = nullptr;
  }
}

void lower_limit(std::int32_t subdiv_max) {
  require_mesh("set_subdiv_max");
  const JoinAtEnd join_at_end;
  split_sublists();
  remove_above(subdiv_max, remove_by_level);
  if (subdiv_max < 0) {
    release_remaining_nodes();
    level_max = subdiv_max;
    level_range[0] = -1;
    return;
  }
  // One round has always been enough; the bound only keeps a mesh with broken links from
  // holding us for ever.
  constexpr int most_rounds = 16;
  for (int round = 0; nodes_above(subdiv_max); ++round) {
    if (round == most_rounds) {
      fatal(
          "(Velmar_2D:) set_subdiv_max: ERROR\n"
          "             some nodes above the new limit cannot be removed\n"
          "             (the links between the nodes are broken)");
    }
    fill_holes_above(subdiv_max);
    remove_above(subdiv_max, remove_by_links);
  }
  level_max = subdiv_max;
}

}  // namespace

void set_subdiv_max(std::int32_t subdiv_max) {
  const detail::MeshChange change("set_subdiv_max");
  if (subdiv_max == level_max) return;
  if (subdiv_max < level_max) {
    lower_limit(subdiv_max);
    return;
  }
  check_subdiv_max("set_subdiv_max", subdiv_max);
  if (subdiv_max >= 0 && static_cast<std::size_t>(subdiv_max) >= level_beg.size()) {
    make_level_arrays(subdiv_max);
  }
  level_max = subdiv_max;
}

std::int32_t get_subdiv_max() { return level_max; }

}  // namespace velmar_2d
