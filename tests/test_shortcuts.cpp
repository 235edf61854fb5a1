// Shortcuts against the rules that they stand for, on generated meshes.
#include <cmath>
#include <limits>

#include "support/history.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::tests {
namespace {

using detail::State;
using detail::Walk;

class Shortcuts : public MeshTest {
 protected:
  /// Calls `use` with the mesh after every step of histories of many kinds.
  template <typename Use>
  static void on_generated_meshes(std::uint64_t nb_histories, const Use& use) {
    for (std::uint64_t seed = 0; seed < nb_histories && !HasFatalFailure(); ++seed) {
      const Steps steps = seed % 3 == 0 ? Steps::adapt : Steps::single_nodes;
      run_history({seed, steps, seed % 8 == 7}, [&](const std::string& step) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", " + step);
        if (!HasFatalFailure()) use(detail::default_state());
      });
      delete_mesh();
    }
  }
};

// Around every ratio at which a decision changes, one representable number after the other: there
// the rounding of the logarithm decides, and the shortcut has to leave it to the rule.
TEST_F(Shortcuts, ThresholdsDecideAsTheLogarithm) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  const auto compare = [](double ratio, std::int32_t level) {
    ASSERT_EQ(detail::is_too_coarse_by_threshold(ratio, level), detail::is_too_coarse(ratio, level))
        << ratio << ", level " << level;
    ASSERT_EQ(detail::is_too_fine_by_threshold(ratio, level), detail::is_too_fine(ratio, level))
        << ratio << ", level " << level;
  };
  int nb_changes = 0;
  for (std::int32_t level = -1; level < 70; ++level) {
    for (const double margin : {0.0, detail::coarsening_margin}) {
      const double threshold = std::exp2((level - margin) / 2.0);
      constexpr int ulps = 200;
      double ratio = threshold;
      for (int i = 0; i < ulps; ++i) ratio = std::nextafter(ratio, 0.0);
      bool before = margin > 0.0;
      for (int i = -ulps; i <= ulps; ++i, ratio = std::nextafter(ratio, infinity)) {
        compare(ratio, level);
        const bool decision =
            margin > 0.0 ? detail::is_too_fine(ratio, level) : detail::is_too_coarse(ratio, level);
        nb_changes += decision != before ? 1 : 0;
        before = decision;
      }
      for (const double apart : {1e-10, 1e-9, 2e-9, 1e-3, 0.7}) {
        compare(threshold * (1.0 + apart), level);
        compare(threshold * (1.0 - apart), level);
      }
    }
    for (const double odd : {0.0, -0.0, -1.0, infinity, -infinity, infinity - infinity, 5e-324}) {
      compare(odd, level);
    }
  }
  EXPECT_GE(nb_changes, 2 * 71) << "each threshold lies among the numbers tried";
}

TEST_F(Shortcuts, SpecialProbeFindsWhatRefinementWouldInsert) {
  int nb_possible = 0, nb_asked = 0;
  on_generated_meshes(60, [&](const State& state) {
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
      std::array<detail::Site, 4> sites;
      std::int32_t n = 0;
      detail::find_sites(state, *c, sites, n);
      const bool expected = std::any_of(sites.begin(), sites.begin() + n, [&](const auto& site) {
        return is_wanted(state, site, true);
      });
      ASSERT_EQ(detail::special_refinement_possible(state, *c), expected) << links(*c);
      nb_possible += expected ? 1 : 0;
      ++nb_asked;
    }
  });
  EXPECT_GT(nb_possible, 1000);
  EXPECT_GT(nb_asked - nb_possible, 10000);
}

TEST_F(Shortcuts, SitesKnowTheirPlaceFromTheNodesAround) {
  int nb_told = 0, nb_left = 0;
  on_generated_meshes(60, [&](const State& state) {
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
      std::array<detail::Site, 4> sites;
      std::int32_t n = 0;
      detail::find_sites(state, *c, sites, n);
      for (auto site = sites.begin(); site != sites.begin() + n; ++site) {
        const std::int32_t ipos =
            true_ipos(state.domain, site->x - state.domain.x_min, site->y - state.domain.y_min);
        ASSERT_TRUE(site->ipos == -1 || site->ipos == ipos) << site->ipos << " is " << ipos;
        ++(site->ipos >= 0 ? nb_told : nb_left);
        for (std::size_t i = 0; i < 4 && site->parents[i] != nullptr; ++i) {
          const auto d = static_cast<std::size_t>(site->directions[i]);
          const double dx = site->parents[i]->x - site->x, dy = site->parents[i]->y - site->y;
          const double h = 0.25 * (std::abs(dx) + std::abs(dy));
          const auto sign = [h](double way) { return way > h ? 1.0 : way < -h ? -1.0 : 0.0; };
          ASSERT_EQ(sign(dx), detail::away_x[d]) << "direction " << d;
          ASSERT_EQ(sign(dy), detail::away_y[d]) << "direction " << d;
        }
      }
    }
  });
  EXPECT_GT(nb_told, 10000);
  EXPECT_GT(nb_left, 100) << "holes, and domains far away";
}

using Nodes = std::vector<Cell*>;

Nodes plain_walk(Cell* first, Cell* Cell::*step) {
  Nodes nodes;
  for (Cell* c = first; c != nullptr; c = c->*step) nodes.push_back(c);
  return nodes;
}

// What the history tells is out of date here: single nodes have come and gone since.
TEST_F(Shortcuts, WalksVisitWhatAPlainWalkWould) {
  scenarios::Random random{5};
  int nb_visited = 0, nb_removed = 0, nb_inserted = 0;
  on_generated_meshes(40, [&](State& state) {
    split_sublists();
    Walk quick = Walk::to_list(state.history), derive = Walk::to_derive(state.history);
    for (std::size_t l = state.level_beg.size(); l-- > 0;) {
      Nodes visited;
      for (Cell& c : quick(state.level_end[l].next)) visited.push_back(&c);
      ASSERT_EQ(visited, plain_walk(state.level_end[l].next, &Cell::prev));
    }
    Walk upwards = Walk::to_refine(state.history);
    for (std::size_t l = 0; l < state.level_beg.size(); ++l) {
      const Nodes expected = plain_walk(state.level_beg[l].next, &Cell::next);
      Nodes visited, derived;
      for (Cell& c : derive(state.level_beg[l].next)) derived.push_back(&c);
      ASSERT_EQ(derived, expected);
      for (Cell& c : upwards(state.level_beg[l].next)) {
        visited.push_back(&c);
        const bool refine = nb_nodes < 3000 && random.between(0, 3) == 0;
        upwards.changes_mesh_here(refine);
        Cell* node = &c;
        const std::int32_t before = nb_nodes;
        if (refine) refine_cell(state, node);
        nb_inserted += nb_nodes - before;
      }
      ASSERT_EQ(visited, expected);
    }
    Walk downwards = Walk::to_coarsen(state.history);
    state.history.begin_recording(nb_nodes);
    Nodes left;  // backwards
    for (std::size_t l = state.level_beg.size(); l-- > 1;) {
      const Nodes expected = plain_walk(state.level_end[l].next, &Cell::prev);
      Nodes visited;
      for (Cell& c : downwards(state.level_end[l].next)) {
        visited.push_back(&c);
        Cell* node = &c;
        if (random.between(0, 2) == 0) remove_by_level(state, node);
        if (node != nullptr) {
          left.push_back(node);
        } else {
          downwards.removed_node();
          ++nb_removed;
        }
      }
      ASSERT_EQ(visited, expected);
      nb_visited += static_cast<int>(visited.size());
    }
    state.history.end_recording(state.mesh_revision);
    join_sublists();
    ASSERT_EQ(state.history.size(), static_cast<std::ptrdiff_t>(left.size()));
    for (std::ptrdiff_t i = 0; i < state.history.size(); ++i) {
      ASSERT_EQ(state.history[i], detail::TraversalHistory::entry_of(*(left.rbegin() + i)));
    }
    ASSERT_TRUE(mesh_is_whole());
  });
  EXPECT_GT(nb_visited, 10000);
  EXPECT_GT(nb_removed, 1000);
  EXPECT_GT(nb_inserted, 1000);
}

}  // namespace
}  // namespace velmar_2d::tests
