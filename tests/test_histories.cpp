// Generated histories: whatever is done to a mesh, it stays whole and finds back to its first grid.
#include <bit>
#include <limits>

#include "scenarios/scenarios.hpp"
#include "support/history.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

enum class Ending {
  coarse_update,  ///< one update with a spacing far above dist_0
  limit_0,        ///< the limit lowered to 0: it also takes nodes that decline in an update
};

struct Batch {
  const char* name;
  std::uint64_t first_seed;
  Steps steps;
  bool far_from_origin;
  Ending ending;
  int depth = 0;  ///< above 0: the limit, for histories with points that are refined down to it
};

void PrintTo(const Batch& batch, std::ostream* out) { *out << batch.name; }

std::uint64_t nb_histories(const Batch& batch) { return batch.depth > 0 ? 8 : 100; }

class Histories : public MeshTest, public testing::WithParamInterface<Batch> {};

/// Kept by join_sublists() only: single steps on the joined list leave it behind.
bool level_range_is_right(Steps steps) {
  return steps == Steps::single_nodes ||
         (level_range[0] == mesh_beg->ipos && level_range[1] == mesh_end->ipos);
}

TEST_P(Histories, KeepTheMeshWholeAndLeadBackToTheFirstGrid) {
  const Batch& batch = GetParam();
  for (std::uint64_t seed = batch.first_seed; seed < batch.first_seed + nb_histories(batch);
       ++seed) {
    std::vector<std::string> first_grid;
    std::string story = "seed " + std::to_string(seed);
    bool whole = true;
    HistoryPlan plan{seed, batch.steps, batch.far_from_origin};
    plan.depth = batch.depth;
    run_history(plan, [&](const std::string& step) {
      if (!whole) return;
      story += "\n  " + step + ": " + std::to_string(nb_nodes) + " nodes";
      if (first_grid.empty()) first_grid = describe_mesh();
      const testing::AssertionResult result = mesh_is_whole();
      EXPECT_TRUE(result) << story;
      EXPECT_TRUE(level_range_is_right(batch.steps)) << story;
      whole = result;
    });
    ASSERT_TRUE(whole);
    if (batch.ending == Ending::coarse_update) {
      update_mesh_no_init(scenarios::even_spacing(1e6 * dist_0));
    } else {
      set_subdiv_max(0);
    }
    ASSERT_TRUE(mesh_is_whole()) << story;
    ASSERT_EQ(describe_mesh(), first_grid) << story;
    delete_mesh();
  }
}

double first_value(const Cell& c) { return c.data.empty() ? 0.0 : c.data[0]; }

/// Everything that a history leaves behind, to the last bit, after each of its steps.
std::vector<std::string> records_of(const HistoryPlan& plan) {
  std::vector<std::string> records;
  next_id = 1;
  update_statistics = {};
  data_interpolation = true;
  run_history(plan, [&](const std::string& step) {
    records.push_back(step);
    for (const std::int64_t count : {update_statistics.visited, update_statistics.inserted,
                                     update_statistics.removed, update_statistics.refused}) {
      records.push_back(std::to_string(count));
    }
    for (const std::string& node : describe_mesh()) records.push_back(node);
    for (const Cell* c = mesh_beg; c != nullptr; c = c->next) {
      for (const double value : {c->x, c->y, first_value(*c), c->grad_data, c->grad2_data}) {
        records.push_back(std::to_string(std::bit_cast<std::uint64_t>(value)));
      }
    }
  });
  delete_mesh();
  return records;
}

TEST_P(Histories, AreTheSameWhenSpacingsAreAskedForInBatches) {
  const Batch& batch = GetParam();
  for (std::uint64_t seed = batch.first_seed; seed < batch.first_seed + nb_histories(batch) / 4;
       ++seed) {
    HistoryPlan plan{seed, batch.steps, batch.far_from_origin};
    plan.by_data = true;
    plan.depth = batch.depth;
    const std::vector<std::string> one_by_one = records_of(plan);
    plan.batched = true;
    ASSERT_TRUE(records_of(plan) == one_by_one) << "seed " << seed;
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, Histories,
    testing::Values(Batch{"near_the_origin", 1000, Steps::adapt, false, Ending::coarse_update},
                    Batch{"far_from_the_origin", 2000, Steps::adapt, true, Ending::coarse_update},
                    Batch{"hostile", 3400, Steps::adapt_hostile, false, Ending::limit_0},
                    Batch{"single_nodes", 4000, Steps::single_nodes, false, Ending::coarse_update},
                    Batch{"far_single_nodes", 5000, Steps::single_nodes, true, Ending::limit_0},
                    Batch{"level_30", 6000, Steps::single_nodes, false, Ending::limit_0, 30},
                    Batch{"level_40", 6100, Steps::adapt, false, Ending::coarse_update, 40},
                    Batch{"level_50", 6200, Steps::single_nodes, false, Ending::limit_0, 50},
                    Batch{"far_level_30", 6300, Steps::adapt, true, Ending::coarse_update, 30},
                    Batch{"far_level_40", 6400, Steps::single_nodes, true, Ending::limit_0, 40},
                    Batch{"far_level_50", 6500, Steps::adapt, true, Ending::coarse_update, 50}),
    [](const auto& batch) { return std::string(batch.param.name); });

}  // namespace
}  // namespace velmar_2d::tests
