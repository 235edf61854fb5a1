// Area of the control cell of a node.
#include "velmar_2D/cell_geometry.hpp"

namespace velmar_2d {

double cell_area(Cell* c) {
  if (c->area >= 0.0) return c->area;
  if (detail::classify(*c) != nullptr) {
    c->area = detail::quick_cell_area(c->signature) * dist_0 * dist_0 *
              detail::exact_power_of_2(-c->level);
  } else {
    c->area = detail::area_of(detail::polygon_of(*c));
  }
  return c->area;
}

}  // namespace velmar_2d
