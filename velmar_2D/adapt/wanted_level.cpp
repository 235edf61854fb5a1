// The two decisions of an update: is a node too coarse for the wanted spacing, is it too fine?
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// The level that gives a spacing of dist_0 / ratio.
double level_of(double ratio) { return 2.0 * log2(ratio); }

}  // namespace

bool is_too_coarse(double ratio, std::int32_t level) { return level_of(ratio) > level; }

bool is_too_fine(double ratio, std::int32_t level) {
  return level > coarsening_margin + level_of(ratio);
}

}  // namespace velmar_2d::detail
