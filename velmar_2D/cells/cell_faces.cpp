// Faces of the control cell of a node.
#include <cmath>

#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

void scale_known_shape(const Domain& domain, const KnownShape& shape, std::int32_t level,
                       CellFaces& faces) {
  const std::array<double, 2> units = length_units(domain, level);
  for (std::size_t d = 0; d < nb_directions; ++d) {
    faces.distance[d] = shape.distance[d] * units[d % 2];
    faces.length[d] = shape.length[d] * units[d % 2];
  }
  for (std::size_t side = 0; side < 4; ++side) faces.side[side] = shape.side[side] * units[0];
}

namespace {

void measure_polygon(const Domain& domain, const Cell& c, CellFaces& faces) {
  faces.length = faces.distance = {};
  faces.side = {};
  for (std::size_t d = 0; d < nb_directions; ++d) {
    const Cell* there = faces.neighbour[d];
    if (there != nullptr) faces.distance[d] = std::hypot(there->x - c.x, there->y - c.y);
  }
  const Polygon polygon = polygon_of(domain, c);
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

void cell_faces(const State& state, const Cell& c, CellFaces& faces) {
  for (int d = 0; d < nb_directions; ++d) {
    faces.neighbour[static_cast<std::size_t>(d)] = link(c, d).cell();
  }
  if (const KnownShape* shape = look_at(state.domain, c).shape) {
    scale_known_shape(state.domain, *shape, c.level, faces);
  } else {
    measure_polygon(state.domain, c, faces);
  }
}

}  // namespace velmar_2d::detail
