// Adding the centre of a square: linked to the four corners through its diagonal links.
//
//     nw ------- ne          Where the neighbouring square already has its centre X,
//      | \     / |           the side between them is cut: here the link between
//      |    N    |           nw and ne, once X is linked to both.
//      | /     \ |
//     sw ------- se
#include "velmar_2D/internal.hpp"

namespace velmar_2d {

namespace {

using namespace detail;

/// Links a new centre and one corner of its square, by the quadrant in which the corner lies.
void link_corner(Cell& centre, Cell& corner) {
  const bool west_of = corner.x <= centre.x, south_of = corner.y <= centre.y;
  const int direction =
      west_of ? (south_of ? south_west : north_west) : (south_of ? south_east : north_east);
  link_parent(centre, direction, corner);
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

}  // namespace

void insert_node_odd_level(const Vertex& v) {
  const detail::MeshChange change("insert_node_odd_level");
  check_vertex("insert_node_odd_level", v, 4);
  const double first_value = n_cell_data > 0 && !data_interpolation ? initial_data(v) : 0.0;
  Cell& c = *new_cell_at(v);
  c.area = dist_0 * dist_0 / power_of_2(v.level);
  c.signature = {85, 85};
  c.signature_set = true;

  const std::array<Cell*, 4> corners = {v.p1, v.p2, v.p3, v.p4};
  for (Cell* corner : corners) link_corner(c, *corner);
  check_surroundings(c, diagonal_directions);
  for (const int side : straight_directions) prune_across(c, side);
  for (const int side : straight_directions) prune_along_boundary(c, side);
  check_surroundings(c, diagonal_directions);
  for (Cell* corner : corners) announce_to(corner, c);

  if (n_cell_data <= 0) return;
  if (data_interpolation) {
    interp_4pts(v.p1, v.p2, v.p3, v.p4, &c);
  } else {
    c.data[0] = first_value;
  }
  compute_data_at_node(&c);
}

}  // namespace velmar_2d
