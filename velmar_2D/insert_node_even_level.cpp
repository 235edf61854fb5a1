// Adding the midpoint of an edge: linked to its parents through its straight links.
//
//        n                     On a side of the domain one parent is missing, and
//      / | \                   the link in its direction designates the side's record.
//     w--N--e                  Diagonal links between the parents are cut where the
//      \ | /                   new node and its counterpart beyond take their place.
//        s
#include <cmath>

#include "velmar_2D/internal.hpp"

namespace velmar_2d {

namespace {

using namespace detail;

/// Parents whose x differs by less than this fraction of the level's spacing lie above or below.
constexpr double same_column = 1e-6;

void link_parent(Cell& c, Cell& parent, double eps) {
  const bool beside = std::abs(parent.x - c.x) >= eps;
  const int direction =
      beside ? (parent.x <= c.x ? west : east) : (parent.y <= c.y ? south : north);
  link(c, direction) = &parent;
  link(parent, opposite(direction)) = &c;
}

/// Completes a node on a side: the straight links that no parent took lead to the side's record.
void link_boundary(Cell& c) {
  for (const int side : straight_directions) {
    if (!link(c, side).empty()) continue;
    link(c, side) = side_link(side, c.x, c.y);
    ++c.on_boundary;
  }
  c.reserve = c.on_boundary == 1 ? 2 : c.on_boundary == 2 ? 1 : 4;
}

void set_shape(Cell& c) {
  const double square = dist_0 * dist_0 / power_of_2(c.level);
  if (c.on_boundary == 0) {
    c.area = square;
    c.signature = {170, 170};
    c.signature_set = true;
    return;
  }
  c.area = 0.5 * square;
  for (const int side : straight_directions) {
    if (link(c, side).boundary() == nullptr) continue;
    c.signature = side_signatures[static_cast<std::size_t>(side / 2)];
    c.signature_set = true;
    return;
  }
}

/// The quadrant clockwise from the straight direction d, between the parents at d and d + 2.
void prune_quadrant(Cell& c, int d) {
  if (link(c, d).boundary() != nullptr) {
    link_level(c, d + 2) = 1;
    link_level(c, d - 2) = 1;
  }
  prune_link(link(c, d).cell(), d + 2, d + 5, d + 3);
  prune_link(link(c, d + 2).cell(), d, d + 5, d + 7);
}

}  // namespace

void insert_node_even_level(const Vertex& v) {
  check_vertex("insert_node_even_level", v, 3);
  Cell& c = *new_cell_at(v);
  enter_stretch(c);

  const double eps = dist_0 / std::exp2(v.level / 2.0) * same_column;
  const std::array<Cell*, 4> parents = {v.p1, v.p2, v.p3, v.p4};
  const std::size_t nb_parents = v.p4 != nullptr ? 4 : 3;
  for (std::size_t i = 0; i < nb_parents; ++i) link_parent(c, *parents[i], eps);
  if (v.p4 == nullptr) link_boundary(c);
  set_shape(c);
  for (const int direction : straight_directions) prune_quadrant(c, direction);
  for (std::size_t i = 0; i < nb_parents; ++i) announce_to(parents[i], c);

  if (n_cell_data <= 0) return;
  if (!data_interpolation) {
    c.data[0] = initial_data(c);
  } else if (v.p4 != nullptr) {
    interp_4pts(v.p1, v.p2, v.p3, v.p4, &c);
  } else {
    interp_3pts(v.p1, v.p2, v.p3, &c);
  }
  compute_data_at_node(&c);
}

}  // namespace velmar_2d
