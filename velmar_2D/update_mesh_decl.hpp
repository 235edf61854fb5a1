// What the two entry points of an adaptation share.
#pragma once

#include "velmar_2D/internal.hpp"

namespace velmar_2d::detail {

/// A node is removed only where the wanted level lies further than this below its own. Refinement
/// has no such margin; the gap between the two keeps nodes from coming and going.
inline constexpr double coarsening_margin = 1.05;

/// The level that gives the wanted spacing at a node. A real number, compared and never rounded.
double required_level(const Cell& c, const size_function& size_fun);

/// Derivatives at every node of the joined list.
void compute_data_at_all_nodes();

/// One refinement pass upwards and one coarsening pass downwards, on the split list.
void update_mesh_body(const size_function& size_fun);

/// Ends the process unless there is a mesh and a size function.
void check_update(const size_function& size_fun);

}  // namespace velmar_2d::detail
