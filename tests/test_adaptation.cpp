// The mesh as a whole under a wanted spacing.
#include <algorithm>
#include <cmath>
#include <set>
#include <tuple>

#include "scenarios/scenarios.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::tests {
namespace {

using Adaptation = MeshTest;

/// The spacing of a level that need not be whole.
double spacing_of(double level) { return dist_0 * std::exp2(-0.5 * level); }

// Refinement has no margin: a level that is asked for exactly is reached everywhere. The few nodes
// beyond it complete figures that had begun to be refined.
TEST_F(Adaptation, EvenSpacingGivesAnEvenGrid) {
  for (int k = 0; k <= 3; ++k) {
    make_grid(4, 3, 9);
    for (int i = 0; i < 4; ++i) update_mesh_no_init(scenarios::even_spacing(std::ldexp(1.0, -k)));
    int on_the_grid = 0, beyond = 0;
    for (const Cell* c = mesh_beg; c != nullptr; c = c->next) {
      ++(c->ipos <= 2 * k ? on_the_grid : beyond);
      EXPECT_GE(c->level, 2 * k);
      EXPECT_LE(c->level, 2 * k + 1);
    }
    EXPECT_EQ(on_the_grid, ((3 << k) + 1) * ((2 << k) + 1));
    EXPECT_LE(beyond, on_the_grid / 10);
    EXPECT_TRUE(mesh_is_whole());
    delete_mesh();
  }
}

// Coarsening has a margin of 1.05 levels, to both sides of which the mesh is asked for here.
TEST_F(Adaptation, NodesStayUntilTheWantedLevelIsClearlyLower) {
  for (const int level : {2, 4}) {
    make_grid(3, 3, level);
    const auto update_to = [](double wanted) {
      update_mesh_no_init(scenarios::even_spacing(spacing_of(wanted)));
      return nb_nodes;
    };
    update_to(level);
    const std::int32_t fine = update_to(level);
    EXPECT_EQ(update_to(level - 1.04), fine);
    EXPECT_LT(update_to(level - 1.06), fine);
    EXPECT_TRUE(mesh_is_whole());
    delete_mesh();
  }
}

TEST_F(Adaptation, SizeFunctionSeesTheDataAndNewNodesTakeThemFromTheChosenSource) {
  n_cell_data = 2;
  make_grid(3, 3, 4);
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
    c->data[0] = 2.0 * c->x - c->y;
    c->data[1] = c->x + 10.0 * c->y;
  }
  std::set<std::pair<double, double>> seen;
  update_mesh_no_init([&](double x, double y, std::span<const double> data, double, double) {
    if (data.size() == 2 && data[1] == x + 10.0 * y) seen.insert({x, y});
    return 0.25;
  });
  EXPECT_GE(seen.size(), 9U) << "the first grid; new nodes have no second value yet";
  EXPECT_TRUE(data_interpolation);
  EXPECT_FALSE(init_data_ptr);
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next)
    EXPECT_DOUBLE_EQ(c->data[0], 2.0 * c->x - c->y) << "a plane is interpolated exactly";
  const std::int64_t first_new = next_id;
  set_subdiv_max(2);
  set_subdiv_max(4);
  update_mesh_init(scenarios::even_spacing(0.25), [](double x, double y) { return 100.0 + x * y; });
  EXPECT_FALSE(data_interpolation);
  int nb_new = 0;
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next) {
    if (c->id < first_new) continue;
    ++nb_new;
    EXPECT_EQ(c->data[0], 100.0 + c->x * c->y);
  }
  EXPECT_EQ(nb_new, nb_nodes - 25);
}

TEST_F(Adaptation, SizeFunctionSeesTheIndicatorsOfNodesWithoutDataAsTheyStand) {
  make_grid(3, 3, 2);
  node_at(1, 1)->grad_data = 3.0;
  node_at(1, 1)->grad2_data = 4.0;
  int nb_seen = 0;
  update_mesh_no_init([&](double, double, std::span<const double> data, double g, double g2) {
    if (data.empty() && g == 3.0 && g2 == 4.0) ++nb_seen;
    return 1.0;
  });
  EXPECT_EQ(nb_seen, 1);
}

// Not written leaves as it is; an exception leaves a whole mesh; the stretches come one at a time.
TEST_F(Adaptation, BatchesAreTheStretchesInBothPasses) {
  make_grid(3, 3, 4);
  update_mesh_no_init(scenarios::even_spacing(0.25));
  const auto before = describe_mesh();
  std::vector<std::int32_t> stretches;
  std::size_t asked = 0;
  update_mesh_no_init_batched([&](std::span<const Cell* const> nodes, std::span<double> sizes) {
    EXPECT_EQ(nodes.size(), sizes.size());
    for (const Cell* c : nodes) EXPECT_EQ(c->ipos, nodes[0]->ipos);
    stretches.push_back(nodes[0]->ipos);
    asked += nodes.size();
  });
  EXPECT_EQ(stretches, (std::vector<std::int32_t>{0, 1, 2, 3, 4, 4, 3, 2, 1}));
  EXPECT_EQ(asked, 2 * before.size() - 9);
  EXPECT_EQ(describe_mesh(), before);

  const auto give_up = [&](std::span<const Cell* const> nodes, std::span<double> sizes) {
    std::fill(sizes.begin(), sizes.end(), 4.0);
    if (nodes.front() != mesh_beg && nodes.back()->ipos == 3) throw 3;
  };
  EXPECT_THROW(update_mesh_no_init_batched(give_up), int);
  EXPECT_NE(mesh_beg, nullptr);
  EXPECT_TRUE(mesh_is_whole());
  EXPECT_FALSE(detail::default_state().stretch_nodes.is_open());
  set_subdiv_max(8);  // nodes enter stretches that were none of that update's
  update_mesh_no_init(scenarios::even_spacing(0.1));
  EXPECT_TRUE(mesh_is_whole());
}

using Nodes = std::set<std::tuple<double, double, std::int32_t>>;

/// The mesh of a field that was mirrored or turned, mirrored or turned back. The grid is a square
/// and its coordinates are dyadic, so that no rounding comes in between.
Nodes adapted_to(const scenarios::Ring& ring, void (*turn)(double& x, double& y)) {
  scenarios::init_unit_square(9, 9, 8);
  const size_function size = scenarios::ring_spacing(ring, 0.3, dist_0 / 16.0, dist_0);
  for (int i = 0; i < 4; ++i) {
    update_mesh_no_init([&](double x, double y, std::span<const double> data, double g, double g2) {
      turn(x, y);
      return size(x, y, data, g, g2);
    });
  }
  Nodes nodes;
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next) {
    double x = c->x, y = c->y;
    turn(x, y);
    nodes.insert({x, y, c->level});
  }
  delete_mesh();
  return nodes;
}

// No direction is treated differently from the others. (Ties between neighbours are broken by the
// order of the list, so a few fields differ in a few nodes; these do not.)
TEST_F(Adaptation, MirroredFieldGivesTheMirroredMesh) {
  for (const scenarios::Ring& ring :
       {scenarios::Ring{0.5, 0.5, 0.3}, scenarios::Ring{0.25, 0.375, 0.25},
        scenarios::Ring{0.9, 0.2, 0.4}, scenarios::Ring{0.1, 0.6, 0.1}}) {
    const Nodes nodes = adapted_to(ring, [](double&, double&) {});
    EXPECT_GT(nodes.size(), 300U);
    EXPECT_TRUE(nodes == adapted_to(ring, [](double& x, double&) { x = 1.0 - x; }));
    EXPECT_TRUE(nodes == adapted_to(ring, [](double&, double& y) { y = 1.0 - y; }));
    EXPECT_TRUE(nodes == adapted_to(ring, [](double& x, double& y) { std::swap(x, y); }));
  }
}

TEST_F(Adaptation, SteadyFieldStopsChanging) {
  scenarios::init_unit_square(17, 17, 8);
  const size_function size = scenarios::ring_spacing({0.4, 0.45, 0.3}, 0.1, dist_0 / 16.0, dist_0);
  for (int i = 0; i < 3; ++i) update_mesh_no_init(size);
  const std::string steady = fingerprint();
  for (int i = 0; i < 5; ++i) {
    update_mesh_no_init(size);
    EXPECT_EQ(fingerprint(), steady) << "update " << i;
  }
}

}  // namespace
}  // namespace velmar_2d::tests
