#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d {

bool known_value(const Cell& tmp) {
  if (tmp.on_boundary == 0) return false;
  for (const int direction : detail::straight_directions) {
    const Boundary* side = detail::link(tmp, direction).boundary();
    if (side != nullptr && side->bc_type == bc_type_dir) return true;
  }
  return false;
}

}  // namespace velmar_2d
