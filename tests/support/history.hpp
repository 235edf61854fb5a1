// Generated histories of a mesh: everything in them follows from a seed.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "scenarios/scenarios.hpp"
#include "support/driven_mesh.hpp"

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
  Face face = Face::free_procedures;
  int depth = 0;  ///< above 0: the limit, down to which points are refined
};

/// One history, step by step, so that several can take turns.
class History {
 public:
  explicit History(const HistoryPlan& plan) : plan_(plan), random_{plan.seed}, driven_(plan.face) {}

  bool is_over() const { return next_step_ > plan_.nb_steps; }
  /// Makes the mesh, the first time, or takes the next step with it. Returns its description.
  std::string step();
  Mesh& mesh() { return driven_.mesh(); }
  /// Gives the mesh back; the default mesh is left to the caller otherwise.
  void end() { driven_.end(); }

 private:
  std::string make_mesh();
  size_function draw_size(std::string& name);
  size_function draw_point();
  std::string adapt();
  std::string change_limit();
  Cell& draw_node();
  std::string single_nodes();

  HistoryPlan plan_;
  scenarios::Random random_;
  DrivenMesh driven_;
  int next_step_ = 0;
};

/// Runs a history of the default mesh. `after_step` is called after each step, the making included,
/// with its description. The mesh is left to the caller.
void run_history(const HistoryPlan& plan,
                 const std::function<void(const std::string& step)>& after_step);

}  // namespace velmar_2d::tests
