#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

double quick_cell_area(const Signature& signature) {
  const KnownShape* shape = known_shape(signature);
  return shape != nullptr ? shape->area : -1.0;
}

}  // namespace velmar_2d::detail
