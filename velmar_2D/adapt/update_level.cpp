// How a node's level rises as finer neighbours are linked to it.
//
// `reserve` counts the neighbours exactly one level finer that the node still awaits. With the last
// of them the level rises by one, and `reserve` is loaded with the number that the next rise needs.
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// The number of finer neighbours that the next rise needs; 0 where the surroundings give none.
std::int32_t reserve_for_next_rise(const Cell* c, const Cell* orig) {
  const bool even = c->level % 2 == 0;
  switch (c->on_boundary) {
    case 1: {
      if (even && have_sharp_corner_near_boundary(c)) return 1;
      const std::int32_t ns = count_nb_sides(c);
      if (even) return ns == 3 ? 2 : ns == 4 ? 1 : 0;
      return ns == 2 ? 3 : ns == 3 ? 2 : 0;
    }
    case 2: return even ? 1 : 2;
    default:
      switch (count_nb_sides(c)) {
        case 4: return 4;
        case 5: return side_on_opposite(c, orig) ? 3 : 2;
        case 6: return 2;
        default: return 0;
      }
  }
}

}  // namespace

void update_level(Cell* c, const Cell* orig) {
  c->signature_set = false;
  if (orig->level - c->level != 1) return;
  if (--c->reserve != 0) return;
  ++c->level;
  c->reserve = reserve_for_next_rise(c, orig);
}

std::int32_t count_nb_sides(const Cell* c) {
  std::int32_t count = 0;
  for (int d = 0; d < nb_directions; ++d) count += link(*c, d).cell() != nullptr ? 1 : 0;
  return count;
}

bool side_on_opposite(const Cell* c, const Cell* orig) {
  for (int d = 0; d < nb_directions; ++d) {
    if (link(*c, d).cell() == orig && link(*c, opposite(d)).cell() != nullptr) return true;
  }
  return false;
}

//   side above, gap to the east:   ===c===      the neighbour along the side is missing
//                                     .\        while the diagonal one away from the side is there
//                                     . o
bool have_sharp_corner_near_boundary(const Cell* c) {
  for (const int side : straight_directions) {
    if (link(*c, side).boundary() == nullptr) continue;
    if (link(*c, side + 2).empty() && !link(*c, side + 3).empty()) return true;
    if (link(*c, side - 2).empty() && !link(*c, side - 3).empty()) return true;
  }
  return false;
}

}  // namespace velmar_2d::detail
