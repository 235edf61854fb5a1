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

/// The straight direction in which a parent lies from the new node.
int direction_to(const Cell& parent, const Vertex& v, double eps) {
  if (std::abs(parent.x - v.x) >= eps) return parent.x <= v.x ? west : east;
  return parent.y <= v.y ? south : north;
}

/// What the new node's straight links will lead to, by direction / 2.
struct StraightLinks {
  std::array<NeighbourLink, 4> links;
  std::int32_t on_boundary = 0;
};

/// The parents; on a side of the domain, the links that no parent took lead to the side's record.
StraightLinks straight_links(const Vertex& v) {
  const double eps = dist_0 / std::exp2(v.level / 2.0) * same_column;
  StraightLinks result;
  for (Cell* parent : {v.p1, v.p2, v.p3, v.p4}) {
    if (parent == nullptr) continue;
    result.links[static_cast<std::size_t>(direction_to(*parent, v, eps) / 2)] = parent;
  }
  if (v.p4 != nullptr) return result;
  for (const int side : straight_directions) {
    NeighbourLink& to_side = result.links[static_cast<std::size_t>(side / 2)];
    if (!to_side.empty()) continue;
    to_side = side_link(side, v.x, v.y);
    ++result.on_boundary;
  }
  return result;
}

void make_links(Cell& c, const StraightLinks& straight) {
  for (const int direction : straight_directions) {
    link(c, direction) = straight.links[static_cast<std::size_t>(direction / 2)];
    Cell* parent = link(c, direction).cell();
    if (parent != nullptr) link(*parent, opposite(direction)) = &c;
  }
  c.on_boundary = straight.on_boundary;
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
  const detail::MeshChange change("insert_node_even_level");
  check_vertex("insert_node_even_level", v, 3);
  const StraightLinks straight = straight_links(v);
  const double first_value = n_cell_data > 0 && !data_interpolation ? initial_data(v) : 0.0;

  Cell& c = *new_cell_at(v);
  make_links(c, straight);
  set_shape(c);
  for (const int direction : straight_directions) prune_quadrant(c, direction);
  for (Cell* parent : {v.p1, v.p2, v.p3, v.p4}) {
    if (parent != nullptr) announce_to(parent, c);
  }

  if (n_cell_data <= 0) return;
  if (!data_interpolation) {
    c.data[0] = first_value;
  } else if (v.p4 != nullptr) {
    interp_4pts(v.p1, v.p2, v.p3, v.p4, &c);
  } else {
    interp_3pts(v.p1, v.p2, v.p3, &c);
  }
  compute_data_at_node(&c);
}

}  // namespace velmar_2d
