// The position index of a new node from those of the nodes around it, instead of from its position.
//
// Those of a figure with sides of length dist_0 / 2^k, or half a diagonal of it, are
//
//      2k ---- lower            2k-1
//       |        |             /    \            .
//       |        |         lower    lower
//       |        |             \    /
//     2k-1 ---- 2k              2k-1
//
// in one of the turns. Others occur where a node was removed from among finer ones.
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// Highest position index that true_ipos() tells without an expansion, see there.
constexpr std::int32_t highest_exact_ipos = 28;

}  // namespace

std::int32_t ClosedFigure::ipos() const {
  std::int32_t side_1 = corners[0]->ipos, side_2 = corners[1]->ipos;
  std::int32_t opposite_1 = corners[2]->ipos, opposite_2 = corners[3]->ipos;
  if (std::max(side_1, opposite_1) < std::max(side_2, opposite_2)) {
    std::swap(side_1, side_2);
    std::swap(opposite_1, opposite_2);
  }
  const std::int32_t higher = side_1;
  if (higher != opposite_1 || higher > highest_exact_ipos) return -1;
  const auto [lowest, lower] = std::minmax(side_2, opposite_2);
  const bool in_square =
      higher % 2 == 0 && (higher == 0 || (lower == higher - 1 && lowest < lower));
  const bool in_diamond = higher % 2 == 1 && lower < higher;
  return (offset == 1 ? in_square : in_diamond) ? higher + 1 : -1;
}

std::int32_t HalfDiamond::ipos() const {
  const std::int32_t highest = apex.ipos;
  return highest % 2 == 1 && highest <= highest_exact_ipos && a.ipos < highest && b.ipos < highest
             ? highest + 1
             : -1;
}

}  // namespace velmar_2d::detail
