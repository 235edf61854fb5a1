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

/// The sides of the domain that a node with three parents lies on: links to their records, by
/// direction / 2, and their number.
struct Sides {
  std::array<NeighbourLink, 4> links;
  std::int32_t number = 0;
};

/// Sides are the straight directions in which no parent lies. Asks the caller for the records.
Sides sides_at(const Vertex& v, double eps) {
  Sides sides;
  std::array<bool, 4> taken{};
  for (const Cell* parent : {v.p1, v.p2, v.p3}) {
    taken[static_cast<std::size_t>(direction_to(*parent, v, eps) / 2)] = true;
  }
  for (const int side : straight_directions) {
    const auto i = static_cast<std::size_t>(side / 2);
    if (taken[i]) continue;
    sides.links[i] = side_link(side, v.x, v.y);
    ++sides.number;
  }
  return sides;
}

void link_sides(Cell& c, const Sides& sides) {
  for (const int side : straight_directions) {
    const NeighbourLink to_side = sides.links[static_cast<std::size_t>(side / 2)];
    if (!to_side.empty()) link(c, side) = to_side;
  }
  c.on_boundary = sides.number;
  c.reserve = sides.number == 1 ? 2 : sides.number == 2 ? 1 : 4;
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
  const double eps = dist_0 / std::exp2(v.level / 2.0) * same_column;
  const Sides sides = v.p4 == nullptr ? sides_at(v, eps) : Sides{};
  const double first_value = n_cell_data > 0 && !data_interpolation ? initial_data(v) : 0.0;

  Cell& c = *new_cell_at(v);
  for (Cell* parent : {v.p1, v.p2, v.p3, v.p4}) {
    if (parent != nullptr) link_parent(c, direction_to(*parent, v, eps), *parent);
  }
  if (v.p4 == nullptr) link_sides(c, sides);
  set_shape(c);
  check_surroundings(c, straight_directions);
  for (const int direction : straight_directions) prune_quadrant(c, direction);
  check_surroundings(c, straight_directions);
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
