// Adding the centre of a square: linked to the four corners through its diagonal links.
//
//     nw ------- ne          Where the neighbouring square already has its centre X,
//      | \     / |           the side between them is cut: here the link between
//      |    N    |           nw and ne, once X is linked to both.
//      | /     \ |
//     sw ------- se
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// The quadrant in which a corner lies.
int direction_to_corner(const Domain& /*domain*/, const Cell& corner, const Vertex& v) {
  const bool west_of = corner.x <= v.x, south_of = corner.y <= v.y;
  return west_of ? (south_of ? south_west : north_west) : (south_of ? south_east : north_east);
}

/// The two corners of the square's side in direction `side`, seen from the new centre.
void prune_across(Cell& centre, int side) {
  prune_link(link(centre, side - 1).cell(), side + 1, opposite(side), side + 2);
  prune_link(link(centre, side + 1).cell(), side - 1, opposite(side), side - 2);
}

/// Two corners on a side of the domain need no link along it: the centre comes between them.
void prune_along_boundary(Cell& centre, int side) {
  for (const int turn : {-1, 1}) {
    Cell* corner = link(centre, side + turn).cell();
    if (corner != nullptr && link(*corner, side).boundary() != nullptr) {
      link(*corner, side - 2 * turn) = nullptr;
    }
  }
}

/// `foreign` is a vertex of the caller's, whose parents may be anywhere.
Cell& insert_centre_at(State& state, const Site& site, bool foreign) {
  prefetch_surroundings(site);
  const double first_value = initial_data(state, site);
  const ParentCells before = parent_cells(state, site);
  Cell& c = new_cell_at(state, site);
  c.area = state.domain.dist_0 * state.domain.dist_0 / power_of_2(state, site.level);
  c.signature = {85, 85};
  c.signature_set = true;

  for (std::size_t i = 0; i < 4; ++i) {
    link_parent(state, c, site.directions[i], *site.parents[i]);
  }
  if (foreign) check_surroundings(state, c, diagonal_directions);
  for (const int side : straight_directions) prune_across(c, side);
  for (const int side : straight_directions) prune_along_boundary(c, side);
  if (foreign) check_surroundings(state, c, diagonal_directions);
  for (Cell* corner : site.parents) announce_to(corner, c);
  set_data(state, site, c, first_value, before);
  return c;
}

}  // namespace

void insert_centre(State& state, const Site& site) { insert_centre_at(state, site, false); }

Cell& insert_node_odd_level(State& state, const Vertex& v) {
  return insert_centre_at(state, site_of(state, "insert_node_odd_level", v, 4, direction_to_corner),
                          true);
}

}  // namespace velmar_2d::detail
