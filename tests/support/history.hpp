// Generated histories of a mesh: everything in them follows from a seed.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace velmar_2d::tests {

enum class Steps {
  adapt,          ///< updates, limit raised and lowered in between
  adapt_hostile,  ///< the same, with size functions that return what they should not
  single_nodes,   ///< the same, and single nodes inserted and removed between updates
};

struct HistoryPlan {
  std::uint64_t seed = 0;
  Steps steps = Steps::adapt;
  bool far_from_origin = false;  ///< x = 1e3 .. 1e6, spacing 0.1; otherwise a power of 2 near 0
  int nb_steps = 8;
  bool by_data = false;  ///< the wanted spacing depends on data and derivatives too
  bool batched = false;  ///< the wanted spacings are asked for in batches
};

/// Makes the mesh of a plan and runs its steps. `after_step` is called after each, the making
/// included, with its description. The mesh is left to the caller.
void run_history(const HistoryPlan& plan,
                 const std::function<void(const std::string& step)>& after_step);

}  // namespace velmar_2d::tests
