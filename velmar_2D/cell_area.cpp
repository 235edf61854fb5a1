// Area of the control cell of a node.
#include "velmar_2D/cell_geometry.hpp"

namespace velmar_2d {

double cell_area(Cell* c) {
  if (c->area >= 0.0) return c->area;
  if (const detail::KnownShape* shape = detail::classify(*c)) {
    // Not `level`: a removal from among finer nodes may leave it out of step with the links.
    const int spacing_level = detail::spacing_level_of_link(*c, shape->farthest);
    c->area = detail::quick_cell_area(c->signature) * detail::spacing_squared(spacing_level);
  } else {
    c->area = detail::area_of(detail::polygon_of(*c));
  }
  return c->area;
}

}  // namespace velmar_2d
