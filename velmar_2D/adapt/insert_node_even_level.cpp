// Adding the midpoint of an edge: linked to its parents through its straight links.
//
//        n                     On a side of the domain one parent is missing, and
//      / | \                   the link in its direction designates the side's record.
//     w--N--e                  Diagonal links between the parents are cut where the
//      \ | /                   new node and its counterpart beyond take their place.
//        s
#include <cmath>

#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// The straight direction in which a parent lies from the new node.
int direction_to_parent(const Domain& domain, const Cell& parent, const Vertex& v) {
  const double eps = domain.dist_0 / std::exp2(v.level / 2.0) * same_column;
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
Sides sides_at(const State& state, const Site& site) {
  Sides sides;
  std::array<bool, 4> taken{};
  for (std::size_t i = 0; i < 3; ++i) {
    taken[static_cast<std::size_t>(site.directions[i] / 2)] = true;
  }
  for (const int side : straight_directions) {
    const auto i = static_cast<std::size_t>(side / 2);
    if (taken[i]) continue;
    sides.links[i] = side_link(state, side, site.x, site.y);
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

void set_shape(const State& state, Cell& c) {
  const double square = state.domain.dist_0 * state.domain.dist_0 / power_of_2(state, c.level);
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

/// `foreign` is a vertex of the caller's, whose parents may be anywhere.
Cell& insert_midpoint_at(State& state, const Site& site, bool foreign) {
  prefetch_surroundings(site);
  const std::size_t nb_parents = site.parents[3] == nullptr ? 3 : 4;
  const Sides sides = nb_parents == 3 ? sides_at(state, site) : Sides{};
  const double first_value = initial_data(state, site);
  const ParentCells before = parent_cells(state, site);

  Cell& c = new_cell_at(state, site);
  for (std::size_t i = 0; i < nb_parents; ++i) {
    link_parent(state, c, site.directions[i], *site.parents[i]);
  }
  if (nb_parents == 3) link_sides(c, sides);
  set_shape(state, c);
  if (foreign) check_surroundings(state, c, straight_directions);
  for (const int direction : straight_directions) prune_quadrant(c, direction);
  if (foreign) check_surroundings(state, c, straight_directions);
  for (std::size_t i = 0; i < nb_parents; ++i) announce_to(site.parents[i], c);
  set_data(state, site, c, first_value, before);
  return c;
}

}  // namespace

void insert_midpoint(State& state, const Site& site) { insert_midpoint_at(state, site, false); }

Cell& insert_node_even_level(State& state, const Vertex& v) {
  return insert_midpoint_at(
      state, site_of(state, "insert_node_even_level", v, 3, direction_to_parent), true);
}

}  // namespace velmar_2d::detail
