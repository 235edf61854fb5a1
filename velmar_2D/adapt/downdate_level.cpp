// How a node's level falls as finer neighbours are removed: the inverse of update_level().
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

void downdate_level(Cell* c, std::int32_t orig_level) {
  // `reserve` at which the level falls, by on_boundary and parity of the level
  constexpr std::int32_t inside = 5;
  constexpr std::array<std::int32_t, 2> on_side = {3, 4}, at_corner = {2, 3};

  c->signature_set = false;
  if (orig_level - c->level == 1) {
    const std::size_t parity = c->level % 2 == 0 ? 0 : 1;
    const std::int32_t threshold = c->on_boundary == 1   ? on_side[parity]
                                   : c->on_boundary == 2 ? at_corner[parity]
                                                         : inside;
    if (++c->reserve != threshold) return;
  } else if (orig_level != c->level) {
    return;
  }
  c->reserve = 1;
  --c->level;
}

}  // namespace velmar_2d::detail
