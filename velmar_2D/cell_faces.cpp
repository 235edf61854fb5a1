// Faces of the control cell of a node.
#include "velmar_2D/cell_geometry.hpp"

#include <cmath>

namespace velmar_2d {

namespace {

using namespace detail;

/// Faces of a cell of known shape: every half is as long as half the distance to the neighbour.
///
///          | 2  |          A domain side is bounded where the nearer of the two links on its
///       ---c----.---- e    hand meets it: half way to the node along the side, or where the
///          |  \ |          bisector of the diagonal link reaches it, as far away as the
///          |   se          diagonal link is wide.
void faces_of_known_shape(const Surroundings& s, CellFaces& faces) {
  const MissingHalves missing = missing_halves(s);
  for (int d = 0; d < nb_directions; ++d) {
    if (!s.has_cell(d)) continue;
    const auto i = static_cast<std::size_t>(d);
    const int halves =
        (byte_at(missing.clockwise, d) == 0) + (byte_at(missing.anticlockwise, d) == 0);
    const double half_distance = 0.5 * faces.distance[i];
    faces.length[i] = halves * half_distance;
  }
  for (const int d : straight_directions) {
    if (byte_at(s.sides, d) == 0) continue;
    double length = 0.0;
    for (const int hand : {1, -1}) {
      const int along = d + 2 * hand, diagonal = d + 3 * hand;
      const bool cut_by_diagonal = byte_at(s.levels, diagonal) > byte_at(s.levels, along);
      if (cut_by_diagonal) {
        length += spacing(s.spacing_level(diagonal) + 1);
      } else if (s.has_cell(along)) {
        length += 0.5 * spacing(s.spacing_level(along));
      }
    }
    faces.side[static_cast<std::size_t>(d / 2)] = length;
  }
}

void faces_of_polygon(const Cell& c, CellFaces& faces) {
  const Polygon polygon = polygon_of(c);
  for (std::size_t i = 0; i < polygon.n; ++i) {
    const Polygon::Corner &a = polygon.corners[i], &b = polygon.after(i);
    const double length = std::hypot(b.x - a.x, b.y - a.y);
    if (a.edge < nb_directions) {
      faces.length[static_cast<std::size_t>(a.edge)] = length;
    } else {
      faces.side[static_cast<std::size_t>(a.edge / 2 - 4)] = length;
    }
  }
}

}  // namespace

void cell_faces(const Cell* c, CellFaces& faces) {
  faces = {};
  const Surroundings s = surroundings_of(*c);
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* neighbour = link(*c, d).cell();
    if (neighbour == nullptr) continue;
    const auto i = static_cast<std::size_t>(d);
    faces.neighbour[i] = link(*c, d).cell();
    faces.distance[i] = byte_at(s.levels, d) != off_lattice
                            ? spacing(s.spacing_level(d))
                            : std::hypot(neighbour->x - c->x, neighbour->y - c->y);
  }
  if (fitting_shape(s) != nullptr) {
    faces_of_known_shape(s, faces);
  } else {
    faces_of_polygon(*c, faces);
  }
}

}  // namespace velmar_2d
