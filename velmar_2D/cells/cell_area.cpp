// Area of the control cell of a node.
#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

double cell_area(const State& state, Cell& c) {
  double area = load_shared(c.area);
  if (is_known_area(area)) return area;
  if (const KnownShape* shape = classify(state, c)) {
    area = area_of(state.domain, *shape, c.level);
  } else {
    area = area_of(polygon_of(state.domain, c));
  }
  store_shared(c.area, area);
  return area;
}

}  // namespace velmar_2d::detail
