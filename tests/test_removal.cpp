// Removing single nodes: what is declined, how the survivors are linked again.
#include "scenarios/scenarios.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

using Removal = MeshTest;

void refine_around(double u, double v) {
  for (const Vertex& vertex : proposals_around(node_at(u, v))) insert(vertex);
}

//   (0,2) --- (1,2) --- (2,2)          (0,2) --- (1,2) --- (2,2)
//     |         |         |              |         |         |
//   (0,1) --- (1,1) --- (2,1)    ->    (0,1) --- (1,1) --- (2,1)
//      \     /     \     /               |         |  \     /
//         c           o                  |         |     o
//      /     \     /     \               |         |  /     \       .
//   (0,0)     (1,0)     (2,0)          (0,0) --- (1,0)     (2,0)
TEST_F(Removal, CentreOfASquareGivesItsSidesBack) {
  make_grid(3, 3, 2);
  insert(proposals_around(node_at(0, 0)).at(0));
  insert(proposals_around(node_at(2, 0)).at(0));
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->area = 7.0;
  EXPECT_TRUE(remove(node_at(0.5, 0.5)));
  EXPECT_EQ(links(1, 1), "n(1,2) e(2,1) se(1.5,0.5) s(1,0) w(0,1)");
  EXPECT_EQ(links(1, 0), "n(1,1) ne(1.5,0.5) s[South] w(0,0)");
  EXPECT_EQ(links(0, 0), "n(0,1) e(1,0) s[South] w[West]");
  // Link levels: 1 towards a square that has its centre, 1 along a side of the domain, else 2.
  EXPECT_EQ((std::array{node_at(1, 1)->wl, node_at(1, 1)->sl}), (std::array{2, 1}));
  EXPECT_EQ((std::array{node_at(0, 1)->sl, node_at(0, 1)->el}), (std::array{1, 2}));
  EXPECT_EQ(node_at(1, 0)->area, -1.0);
  EXPECT_EQ(node_at(0, 2)->area, 7.0) << "not around the node";
}

TEST_F(Removal, DeclinesNodesThatOthersNeed) {
  make_grid(3, 3, 3);
  refine_around(1, 1);
  refine_around(0.5, 0.5);
  refine_around(1, 0.5);
  const auto declines = [](double u, double v, void (*operation)(Cell*&)) {
    const auto before = describe_mesh();
    Cell* c = node_at(u, v);
    operation(c);
    return c != nullptr && c == node_at(u, v) && describe_mesh() == before;
  };
  EXPECT_TRUE(declines(0.5, 0.5, remove_node_odd_level)) << "has straight links";
  EXPECT_TRUE(declines(0.5, 0, remove_node_odd_level)) << "lies on a side";
  EXPECT_TRUE(declines(1, 0.5, remove_node_even_level)) << "has diagonal links";
  EXPECT_TRUE(declines(1.5, 1.5, remove_node_even_level)) << "is the centre of a square";
  EXPECT_TRUE(remove(node_at(0, 0.5))) << "on a side, with straight links only";
  EXPECT_TRUE(mesh_is_whole());
}

// Insertion and removal are each other's inverse wherever the mesh is: links, levels, reserves and
// the order of the list, in the joined and in the split state.
TEST_F(Removal, UndoesAnInsertionExactly) {
  int undone = 0;
  for (const double at : {0.2, 0.5, 0.8}) {
    scenarios::init_unit_square(5, 4, 7);
    update_mesh_no_init(scenarios::ring_spacing({at, 0.5, 0.3}, 0.5, 0.1 * dist_0, dist_0));
    for (const bool split : {false, true}) {
      const auto before = describe_mesh();
      std::vector<Cell*> nodes;
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) nodes.push_back(c);
      if (split) split_sublists();
      for (Cell* around : nodes) {
        for (const Vertex& v : proposals_around(around)) {
          if (v.level > level_max) continue;
          ASSERT_TRUE(remove(insert(v)));
          ++undone;
        }
      }
      if (split) join_sublists();
      ASSERT_EQ(describe_mesh(), before);
      ASSERT_TRUE(mesh_is_whole());
    }
    delete_mesh();
  }
  EXPECT_GT(undone, 1000);
}

}  // namespace
}  // namespace velmar_2d::tests
