// The node list by stretches, the subdivision limit, and the end of a mesh.
#include "scenarios/scenarios.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

using Lists = MeshTest;
using Limit = MeshTest;
using Deletion = MeshTest;

void adapt(double spacing, int updates) {
  for (int i = 0; i < updates; ++i) update_mesh_no_init(scenarios::even_spacing(spacing));
}

TEST_F(Lists, SplitAndJoinGiveTheSameListBack) {
  make_grid(4, 3, 5);
  adapt(0.3, 2);
  const auto before = describe_mesh();
  split_sublists();
  EXPECT_EQ(mesh_beg, nullptr);
  EXPECT_EQ(mesh_end, nullptr);
  for (std::size_t l = 0; l < level_beg.size(); ++l) {
    if (level_beg[l].next == nullptr) continue;
    EXPECT_EQ(level_beg[l].next->prev, nullptr);
    EXPECT_EQ(level_end[l].next->next, nullptr);
  }
  EXPECT_TRUE(mesh_is_whole());
  split_sublists();
  join_sublists();
  EXPECT_EQ(describe_mesh(), before);
  join_sublists();
  EXPECT_EQ(describe_mesh(), before);
  EXPECT_TRUE(mesh_is_whole());
}

// A list made by hand: stretches 1 and 3 hold nodes, 0 and 2 and 4 do not.
TEST_F(Lists, JoiningSkipsEmptyStretches) {
  std::array<Cell, 3> nodes;
  nodes[0].next = &nodes[1];
  nodes[1].prev = &nodes[0];
  level_max = 4;
  level_beg.assign(5, {});
  level_end.assign(5, {});
  level_beg[1].next = &nodes[0];
  level_end[1].next = &nodes[1];
  level_beg[3].next = level_end[3].next = &nodes[2];
  nb_nodes = 3;
  join_sublists();
  EXPECT_EQ(mesh_beg, &nodes[0]);
  EXPECT_EQ(nodes[1].next, &nodes[2]);
  EXPECT_EQ(nodes[2].prev, &nodes[1]);
  EXPECT_EQ(mesh_end, &nodes[2]);
  EXPECT_EQ(level_range, (std::array<std::int32_t, 2>{1, 3}));
  mesh_beg = mesh_end = nullptr;
  nb_nodes = 0;
  level_beg.clear();
  level_end.clear();
}

// Midpoints of edges without the centre that would come first: stretch 1 is filled last, between
// two others, and emptied again.
TEST_F(Lists, NodesEnterAndLeaveAStretchBetweenOthers) {
  const auto stretches = [] {
    std::string forwards, backwards;
    const Cell* last = nullptr;
    for (const Cell* c = mesh_beg; c != nullptr; last = c, c = c->next)
      forwards += std::to_string(c->ipos);
    EXPECT_EQ(last, mesh_end);
    for (const Cell* c = mesh_end; c != nullptr; c = c->prev)
      backwards = std::to_string(c->ipos) + backwards;
    EXPECT_EQ(forwards, backwards);
    return forwards;
  };
  make_grid(2, 2, 3);
  const Vertex centre_vertex = proposals_around(node_at(0, 0)).at(0);
  Vertex v = centre_vertex;
  v.p4 = nullptr;
  v.level = 2;
  v.y = 0.0;
  Cell* first = insert(v);
  v.y = 1.0;
  insert(v);
  EXPECT_EQ(stretches(), "000022");
  Cell* centre = insert(centre_vertex);
  EXPECT_EQ(stretches(), "0000122");
  remove_node_odd_level(centre);
  EXPECT_EQ(stretches(), "000022");
  EXPECT_EQ(level_beg[1].next, nullptr);
  EXPECT_EQ(level_end[1].next, nullptr);
  remove_node_even_level(first);
  EXPECT_EQ(stretches(), "00002");
  EXPECT_EQ(level_beg[2].next, mesh_end);
  EXPECT_EQ(level_end[2].next, mesh_end);
}

TEST_F(Limit, LoweringEmptiesTheStretchesAboveAndKeepsTheArrays) {
  make_grid(3, 3, 5);
  adapt(0.25, 3);
  ASSERT_GE(nb_nodes, 81) << "at least the uniform grid of a quarter of the spacing";
  set_subdiv_max(2);
  EXPECT_EQ(nb_nodes, 25) << "the uniform grid of half the spacing";
  EXPECT_EQ(get_subdiv_max(), 2);
  EXPECT_EQ(level_range, (std::array<std::int32_t, 2>{0, 2}));
  EXPECT_TRUE(mesh_is_whole());
  ASSERT_EQ(level_beg.size(), 6U);
  EXPECT_EQ(level_beg[3].next, nullptr);
  const Handle* arrays = level_beg.data();
  set_subdiv_max(5);
  EXPECT_EQ(level_beg.data(), arrays) << "there is room already";
  set_subdiv_max(5);
  EXPECT_EQ(nb_nodes, 25);
  adapt(0.25, 3);
  EXPECT_GE(nb_nodes, 81);
  EXPECT_TRUE(mesh_is_whole());
}

TEST_F(Limit, RaisingMakesRoomAndChangesNoNode) {
  make_grid(3, 3, 2);
  adapt(0.5, 2);
  const auto before = describe_mesh();
  const std::vector<Handle> old_beg = level_beg, old_end = level_end;
  set_subdiv_max(5);
  EXPECT_EQ(get_subdiv_max(), 5);
  EXPECT_EQ(describe_mesh(), before);
  ASSERT_EQ(level_beg.size(), 6U);
  ASSERT_EQ(level_end.size(), 6U);
  for (std::size_t l = 0; l < 6; ++l) {
    EXPECT_EQ(level_beg[l].next, l < 3 ? old_beg[l].next : nullptr);
    EXPECT_EQ(level_end[l].next, l < 3 ? old_end[l].next : nullptr);
  }
  EXPECT_TRUE(mesh_is_whole());
}

TEST_F(Limit, NegativeLimitLeavesNoNodeAndANewMeshCanBeMade) {
  make_grid(3, 4, 6);
  adapt(0.2, 2);
  set_subdiv_max(-3);
  EXPECT_EQ(nb_nodes, 0);
  EXPECT_EQ(get_subdiv_max(), -3);
  EXPECT_EQ(mesh_beg, nullptr);
  EXPECT_EQ(mesh_end, nullptr);
  EXPECT_EQ(level_range[0], -1);
  make_grid(3, 4, 6);
  adapt(0.2, 2);
  EXPECT_TRUE(mesh_is_whole());
}

TEST_F(Deletion, SaysHowManyNodesItReleased) {
  make_grid(5, 5, 2);
  testing::internal::CaptureStdout();
  delete_mesh();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), " nb of deallocated nodes: 25\n");
  EXPECT_EQ(nb_nodes, 0);
  EXPECT_EQ(mesh_beg, nullptr);
  EXPECT_EQ(mesh_end, nullptr);
  EXPECT_TRUE(level_beg.empty() && level_end.empty());
  EXPECT_EQ(get_subdiv_max(), 2) << "stays";
  EXPECT_EQ(dist_0, 1.0) << "stays";
}

TEST_F(Deletion, OfASplitListLosesNoNode) {
  make_grid(3, 3, 4);
  adapt(0.25, 3);
  const std::int32_t nodes = nb_nodes;
  ASSERT_GT(nodes, 25);
  split_sublists();
  testing::internal::CaptureStdout();
  delete_mesh();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            " nb of deallocated nodes: " + std::to_string(nodes) + "\n");
  EXPECT_EQ(nb_nodes, 0);
}

// The leak check at the end of the process sees every node that was lost here.
TEST_F(Deletion, ThousandMeshesLeaveNothing) {
  testing::internal::CaptureStdout();
  for (int round = 0; round < 1000; ++round) {
    n_cell_data = round % 4;
    const std::int32_t first_id = next_id;
    make_grid(3 + round % 3, 3 + round % 2, round % 6);
    ASSERT_EQ(mesh_end->id, first_id) << "ids go on from mesh to mesh";
    const double finest = 0.2 + 0.1 * (round % 5);
    update_mesh_no_init(scenarios::jumping_spacing(0.4, finest, 1.0));
    set_subdiv_max(round % 4);
    delete_mesh();
    ASSERT_EQ(nb_nodes, 0);
  }
  testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace velmar_2d::tests
