// Removing the midpoint of an edge: the inverse of insert_node_even_level().
//
//          n                      n
//          |                    /   \                                      .
//     w -- c -- e     ->      w       e
//          |                    \   /
//          s                      s
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// Level of the diagonal link that a neighbour gains: `beside` is its straight direction on the
/// far side of that link.
void set_diagonal_level(Cell& neighbour, int diagonal, int beside) {
  const bool completes = link(neighbour, diagonal).empty() && !link(neighbour, beside).empty();
  link_level(neighbour, diagonal) = completes ? 1 : 2;
}

}  // namespace

void remove_node_even_level(State& state, Cell*& c) {
  if (c == nullptr) release_of_missing(state.handlers, "c");
  for (const int direction : diagonal_directions) {
    if (!link(*c, direction).empty()) return;
  }
  const Legacy legacy(state, *c, north);

  for (const int d : straight_directions) {
    Cell* neighbour = link(*c, d).cell();
    if (neighbour == nullptr) continue;
    set_diagonal_level(*neighbour, d + 5, d + 6);
    set_diagonal_level(*neighbour, d + 3, d + 2);
  }
  for (const int d : straight_directions) {
    Cell* neighbour = link(*c, d).cell();
    if (neighbour == nullptr) continue;
    for (const int turn : {2, -2}) {
      // Sides are not handed on: a diagonal link never designates a Boundary.
      if (link(*c, d + turn).cell() != nullptr) {
        relink(state, *neighbour, turn > 0 ? d + 3 : d + 5, link(*c, d + turn));
      }
    }
    link(*neighbour, opposite(d)) = nullptr;
    downdate_level(neighbour, c->level);
    neighbour->area = -1.0;
  }
  legacy.distribute(state);
  drop_cell(state, c);
}

}  // namespace velmar_2d::detail
