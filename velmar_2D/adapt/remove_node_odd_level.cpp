// Removing the centre of a square: the inverse of insert_node_odd_level().
//
//     nw       ne              nw ----- ne
//        \   /                  |        |
//          c          ->        |        |
//        /   \                  |        |
//     sw       se              sw ----- se
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// Link level of a corner along one side of the square. The link runs in the direction `along`, the
/// square beyond the side lies at `beyond`, and the domain may end at `domain_side`.
void set_side_level(Cell& corner, int along, int beyond, int domain_side) {
  const bool no_link = link(corner, along).empty(), open = link(corner, beyond).empty();
  const bool at_domain_side = link(corner, domain_side).boundary() != nullptr;
  link_level(corner, along) = no_link && (!open || at_domain_side) ? 1 : 2;
}

}  // namespace

void remove_node_odd_level(State& state, Cell*& c) {
  if (c == nullptr) release_of_missing(state.handlers, "c");
  if (c->on_boundary > 0) return;
  for (const int direction : straight_directions) {
    if (!link(*c, direction).empty()) return;
  }
  const Legacy legacy(state, *c, north_east);

  for (const int d : diagonal_directions) {
    Cell* corner = link(*c, d).cell();
    if (corner == nullptr) continue;
    set_side_level(*corner, d + 5, d + 6, d - 1);
    set_side_level(*corner, d + 3, d + 2, d + 1);
  }
  for (const int d : diagonal_directions) {
    Cell* corner = link(*c, d).cell();
    if (corner == nullptr) continue;
    relink(state, *corner, d + 5, link(*c, d - 2));
    relink(state, *corner, d + 3, link(*c, d + 2));
    link(*corner, opposite(d)) = nullptr;
    downdate_level(corner, c->level);
    corner->area = -1.0;
  }
  legacy.distribute(state);
  drop_cell(state, c);
}

}  // namespace velmar_2d::detail
