// Generated histories: whatever is done to a mesh, it stays whole.
#include "scenarios/scenarios.hpp"
#include "support/history.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

#include <limits>

namespace velmar_2d::tests {
namespace {

struct Batch {
  const char* name;
  std::uint64_t first_seed;
  int nb_histories;
  Steps steps;
  bool far_from_origin;
};

class Histories : public MeshTest, public testing::WithParamInterface<Batch> {};

size_function even_spacing(double spacing) {
  return scenarios::jumping_spacing(std::numeric_limits<double>::infinity(), spacing, spacing);
}

int most_above_limit() {
  int above = 0;
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next)
    above += c->level > level_max || c->ipos > level_max;
  return above;
}

TEST_P(Histories, KeepTheMeshWholeAndLeadBackToTheFirstGrid) {
  const Batch& batch = GetParam();
  for (int i = 0; i < batch.nb_histories; ++i) {
    const HistoryPlan plan{batch.first_seed + static_cast<std::uint64_t>(i), batch.steps,
                           batch.far_from_origin};
    SCOPED_TRACE("seed " + std::to_string(plan.seed));
    std::vector<std::string> first_grid;
    std::string story;
    run_history(plan, [&](const std::string& step) {
      story += "\n  " + step + ": " + std::to_string(nb_nodes) + " nodes";
      if (HasFatalFailure()) return;
      if (first_grid.empty()) first_grid = describe_mesh();
      ASSERT_TRUE(mesh_is_whole()) << story;
      ASSERT_EQ(most_above_limit(), 0) << story;
    });
    if (HasFatalFailure()) return;
    update_mesh_no_init(even_spacing(1e6 * dist_0));
    ASSERT_TRUE(mesh_is_whole()) << story;
    ASSERT_EQ(describe_mesh(), first_grid) << story;
    delete_mesh();
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, Histories,
    testing::Values(Batch{"near", 1000, 100, Steps::adapt, false},
                    Batch{"far", 2000, 100, Steps::adapt, true},
                    Batch{"hostile", 3000, 100, Steps::adapt_hostile, false},
                    Batch{"single", 4000, 100, Steps::single_nodes, false}),
    [](const auto& batch) { return std::string(batch.param.name); });

}  // namespace
}  // namespace velmar_2d::tests
