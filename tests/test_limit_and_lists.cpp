// The node list by stretches, the subdivision limit, and the end of a mesh.
#include "scenarios/scenarios.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::tests {
namespace {

using Lists = MeshTest;
using Limit = MeshTest;
using Deletion = MeshTest;

void adapt(double spacing, int updates) {
  for (int i = 0; i < updates; ++i) update_mesh_no_init(scenarios::even_spacing(spacing));
}

/// A node among parents that do not surround it: the links of others are cut at one end.
void insert_beside_the_lattice() {
  Vertex v = proposals_around(node_at(0, 0)).at(0);
  v.p1 = v.p2;
  v.x = 0.25;
  v.y = 0.25;
  v.level = 1;
  insert_node_odd_level(v);
}

// Midpoints of edges without the centre that would come first: stretch 1 is filled last, between
// two others, and emptied again. Stretch 3 stays empty, so that joining meets one.
TEST_F(Lists, NodesEnterAndLeaveAStretchBetweenOthers) {
  const auto stretches = [] {
    split_sublists();
    join_sublists();
    std::string forwards, backwards;
    for (const Cell* c = mesh_beg; c != nullptr; c = c->next) forwards += std::to_string(c->ipos);
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
  EXPECT_EQ(level_range, (std::array<std::int32_t, 2>{0, 2}));
}

TEST_F(Lists, AreJoinedByAnUpdateThatCannotBegin) {
  fatal_handler = [](std::string_view) { throw 1; };
  n_cell_data = 1;
  make_grid(3, 3, 4);
  split_sublists();
  EXPECT_THROW(update_mesh_no_init(nullptr), int);
  EXPECT_NE(mesh_beg, nullptr);
  split_sublists();
  EXPECT_THROW(update_mesh_init(scenarios::even_spacing(1.0), nullptr), int);
  EXPECT_NE(mesh_beg, nullptr);
  fatal_handler = nullptr;
}

TEST_F(Limit, LoweringEmptiesTheStretchesAboveRaisingChangesNoNode) {
  make_grid(3, 3, 5);
  adapt(0.25, 3);
  ASSERT_GE(nb_nodes, 81) << "at least the uniform grid of a quarter of the spacing";
  set_subdiv_max(2);
  EXPECT_EQ(nb_nodes, 25) << "the uniform grid of half the spacing";
  EXPECT_EQ(level_range, (std::array<std::int32_t, 2>{0, 2}));
  EXPECT_TRUE(mesh_is_whole());
  const auto before = describe_mesh();
  set_subdiv_max(7);
  EXPECT_EQ(level_beg.size(), 8U);
  EXPECT_EQ(level_end.size(), 8U);
  EXPECT_EQ(describe_mesh(), before);
  adapt(0.25, 3);
  EXPECT_GE(nb_nodes, 81);
  EXPECT_TRUE(mesh_is_whole());
}

// Holes among the nodes that go are filled first. What the last update was given may be gone then.
TEST_F(Limit, LoweringAsksNoProcedureThatHasReturned) {
  int nb_filled = 0;
  for (std::uint64_t seed = 0; seed < 40; ++seed) {
    n_cell_data = 1;
    make_grid(5, 4, 8);
    bool returned = false;
    for (std::uint64_t i = 0; i < 4; ++i) {
      update_mesh_init(scenarios::random_spacing(10 * seed + i, 0.1, 0.06, 1.0),
                       [&](double x, double) {
                         EXPECT_FALSE(returned) << "seed " << seed;
                         return x;
                       });
    }
    returned = true;
    const std::int64_t id_before = next_id;
    set_subdiv_max(static_cast<std::int32_t>(seed % 5));
    nb_filled += next_id > id_before ? 1 : 0;
    EXPECT_FALSE(data_interpolation) << "stays, for insertions of the caller's own";
    EXPECT_TRUE(mesh_is_whole());
    delete_mesh();
  }
  EXPECT_GE(nb_filled, 3);
}

// Each removal on its own would search the whole mesh for links to its node.
TEST_F(Limit, LoweringAfterAWrongInsertionTakesLinearTime) {
  make_grid(240, 240, 4);
  adapt(0.5, 1);
  const std::int32_t nodes = nb_nodes;
  ASSERT_GT(nodes, 200000);
  Vertex v = proposals_around(node_at(7.5, 7.5)).at(0);
  v.p3 = node_at(7, 9);
  v.level = 4;
  insert_node_even_level(v);
  set_subdiv_max(0);
  EXPECT_EQ(nb_nodes, 240 * 240);
}

TEST_F(Limit, NegativeLimitLeavesNoNodeAndANewMeshCanBeMade) {
  make_grid(3, 4, 6);
  adapt(0.2, 2);
  set_subdiv_max(-3);
  EXPECT_EQ(nb_nodes, 0);
  EXPECT_EQ(mesh_beg, nullptr);
  EXPECT_EQ(level_range[0], -1);
  make_grid(2, 2, 3);
  insert_beside_the_lattice();
  ASSERT_TRUE(detail::default_state().links_may_be_one_way);
  set_subdiv_max(-1);
  EXPECT_FALSE(detail::default_state().links_may_be_one_way);
  make_grid(3, 4, 6);
  EXPECT_TRUE(mesh_is_whole());
}

TEST_F(Deletion, SaysHowManyNodesItReleasedOfASplitListToo) {
  make_grid(3, 3, 4);
  adapt(0.25, 3);
  const std::int32_t nodes = nb_nodes;
  split_sublists();
  testing::internal::CaptureStdout();
  delete_mesh();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            " nb of deallocated nodes: " + std::to_string(nodes) + "\n");
  EXPECT_EQ(nb_nodes, 0);
  EXPECT_EQ(mesh_end, nullptr);
  EXPECT_TRUE(level_beg.empty() && level_end.empty());
  const std::int64_t first_id = next_id;
  make_grid(3, 3, 4);
  EXPECT_EQ(mesh_end->id, first_id) << "ids go on from mesh to mesh";
}

}  // namespace
}  // namespace velmar_2d::tests
