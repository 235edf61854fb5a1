// What the two entry points of an adaptation share.
#pragma once

#include "velmar_2D/internal.hpp"

namespace velmar_2d::detail {

/// One refinement pass upwards and one coarsening pass downwards, on the split list.
void update_mesh_body(const size_function& size_fun);
void update_mesh_body(const batch_size_function& size_fun);

/// Ends the process unless there is a mesh and a size function.
void check_update(bool has_size_fun);

}  // namespace velmar_2d::detail
