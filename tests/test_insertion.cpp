// Inserting single nodes: links, pruning, sides, shapes and data.
#include <cmath>
#include <sstream>

#include "scenarios/scenarios.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

using Insertion = MeshTest;
using Signature = std::array<std::uint8_t, 2>;

//   (0,1) --- (1,1) --- (2,1)         (0,1)     (1,1) --- (2,1)
//     |         |         |              \     / |          |
//     |         |         |     ->          N    |          |     then a centre in the right
//     |         |         |              /     \ |          |     square: the link between cut
//   (0,0) --- (1,0) --- (2,0)         (0,0)     (1,0) --- (2,0)
TEST_F(Insertion, CentresOfSquaresCutTheLinksBetweenThemAndAlongTheSides) {
  make_grid(3, 2, 1);
  const Cell* c = insert_at(0.5, 0.5, node_at(0, 0));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(links(0.5, 0.5), "ne(1,1) se(1,0) sw(0,0) nw(0,1)");
  EXPECT_EQ(links(0, 1), "n[North] se(0.5,0.5) w[West]");
  EXPECT_EQ(links(1, 0), "n(1,1) e(2,0) s[South] nw(0.5,0.5)");
  EXPECT_EQ(c->level, 1);
  EXPECT_EQ(c->ipos, 1);
  EXPECT_EQ(c->reserve, 4);
  EXPECT_EQ(c->area, 0.5);
  EXPECT_EQ(c->signature, (Signature{85, 85}));
  const Cell* corner = node_at(0, 0);
  EXPECT_EQ(corner->level, 1) << "the only square of this corner has its centre";
  EXPECT_EQ(corner->reserve, 2);
  EXPECT_EQ(corner->area, -1.0);
  EXPECT_FALSE(corner->signature_set);

  insert_at(1.5, 0.5, node_at(1, 1));
  EXPECT_EQ(links(1, 0), "ne(1.5,0.5) s[South] nw(0.5,0.5)");
  EXPECT_EQ(links(1, 1), "n[North] se(1.5,0.5) sw(0.5,0.5)");
  EXPECT_EQ(node_at(1, 0)->nl, 2);
  EXPECT_TRUE(mesh_is_whole());
}

//   (0,1)     (1,1)     (2,1)         (0,1)     (1,1)     (2,1)
//      \     /     \     /               \     /  |  \     /
//         o           o         ->         o ---- M ---- o        then H on the side: the
//      /     \     /     \               / |  \   |   /   \       links from o and (1,0) past
//   (0,0)     (1,0)     (2,0)         (0,0)-H--(1,0)     (2,0)    it to one another are cut
TEST_F(Insertion, MidpointsOfEdgesCutTheDiagonals) {
  make_grid(3, 2, 2);
  insert_at(0.5, 0.5, node_at(0, 0));
  insert_at(1.5, 0.5, node_at(2, 0));
  const Cell* middle = insert_at(1, 0.5, node_at(1, 0));
  EXPECT_EQ(links(1, 0.5), "n(1,1) e(1.5,0.5) s(1,0) w(0.5,0.5)");
  EXPECT_EQ(links(1, 0), "n(1,0.5) ne(1.5,0.5) s[South] nw(0.5,0.5)");
  EXPECT_EQ(node_at(1, 0)->nwl, 1);
  EXPECT_EQ(middle->area, 0.25);
  EXPECT_EQ(middle->signature, (Signature{170, 170}));

  const Cell* half = insert_at(0.5, 0, node_at(0.5, 0.5));
  EXPECT_EQ(links(0.5, 0), "n(0.5,0.5) e(1,0) s[South] w(0,0)");
  EXPECT_EQ(links(0.5, 0.5), "ne(1,1) e(1,0.5) s(0.5,0) sw(0,0) nw(0,1)");
  EXPECT_EQ(links(1, 0), "n(1,0.5) ne(1.5,0.5) s[South] w(0.5,0)");
  EXPECT_EQ((std::array{half->nl, half->el, half->sl, half->wl}), (std::array{2, 1, 2, 1}));
  EXPECT_TRUE(mesh_is_whole());
}

TEST_F(Insertion, MidpointOnEverySideTakesItsRecordAndShape) {
  std::string calls;
  make_grid(2, 2, 2, [&](double x, double y, std::string_view side) {
    std::ostringstream call;
    call << side << ' ' << x << ' ' << y << "; ";
    calls += call.str();
    return side == "North" ? bc_type_neu : side == "East" ? bc_type_oth : bc_type_dir;
  });
  Cell* centre = insert_at(0.5, 0.5, node_at(0, 0));
  calls.clear();
  for (const Vertex& v : proposals_around(centre)) insert(v);
  EXPECT_EQ(calls, "East 1 0.5; South 0.5 0; West 0 0.5; North 0.5 1; ");
  const struct {
    double u, v;
    const char* links;
    Signature signature;
  } sides[] = {
      {0.5, 1, "n[North neu] e(1,1) s(0.5,0.5) w(0,1)", {42, 8}},
      {1, 0.5, "n(1,1) e[East oth] s(1,0) w(0.5,0.5)", {138, 2}},
      {0.5, 0, "n(0.5,0.5) e(1,0) s[South] w(0,0)", {162, 128}},
      {0, 0.5, "n(0,1) e(0.5,0.5) s(0,0) w[West]", {168, 32}},
  };
  for (const auto& side : sides) {
    ASSERT_EQ(links(side.u, side.v), side.links);
    const Cell* c = node_at(side.u, side.v);
    EXPECT_EQ(c->signature, side.signature);
    EXPECT_EQ(c->on_boundary, 1);
    EXPECT_EQ(c->reserve, 2);
    EXPECT_EQ(c->area, 0.125);
  }
  EXPECT_TRUE(mesh_is_whole());

  delete_mesh();
  make_grid(2, 2, 2);
  centre = insert_at(0.5, 0.5, node_at(0, 0));
  bc_type_ptr = [](double, double, std::string_view) { return 3; };  // selects no record
  const Cell* c = insert_at(0.5, 0, centre);
  EXPECT_EQ(links(*c), "n(0.5,0.5) e(1,0) w(0,0)");
  EXPECT_EQ(c->on_boundary, 1);
  EXPECT_FALSE(c->signature_set);
}

TEST_F(Insertion, DataComeFromTheParentsOrFromTheProcedure) {
  n_cell_data = 2;
  make_grid(2, 2, 2);
  node_at(0, 0)->data[0] = 1.0;
  node_at(1, 0)->data[0] = 2.0;
  node_at(0, 1)->data[0] = 4.0;
  node_at(1, 1)->data[0] = 9.0;
  node_at(1, 1)->data[1] = 5.0;
  Cell* centre = insert_at(0.5, 0.5, node_at(0, 0));
  EXPECT_EQ(centre->data[0], 4.0);
  EXPECT_EQ(centre->data[1], 0.0) << "only the first value is interpolated";
  // On a side the mean of the two parents on that side, wherever the third stands in the list.
  EXPECT_EQ(insert_at(0.5, 0, centre)->data[0], 1.5);
  EXPECT_EQ(insert_at(0, 0.5, node_at(0, 0))->data[0], 2.5);
  for (Vertex v : proposals_around(centre)) {
    if (v.x != 1.0) continue;
    std::swap(v.p1, v.p3);
    EXPECT_EQ(insert(v)->data[0], 5.5) << "the one inside comes last";
  }
  data_interpolation = false;
  init_data_ptr = [](double x, double y) { return x + 10.0 * y; };
  EXPECT_EQ(insert_at(0.5, 1, centre)->data[0], 10.5);

  delete_mesh();
  data_interpolation = true;
  n_cell_data = 0;
  make_grid(2, 2, 2);
  n_cell_data = 1;
  node_at(0, 0)->data.resize(1);
  node_at(0, 0)->data[0] = 8.0;
  EXPECT_EQ(insert_at(0.5, 0.5, node_at(0, 0))->data[0], 2.0) << "none counts as 0";
}

// 2^level is a signed 32-bit integer: negative at 31, and 0 beyond it.
TEST_F(Insertion, AreasAtTheDeepestLevels) {
  for (const auto& [level, area] :
       {std::pair{30, std::ldexp(1.0, -30)}, {31, -std::ldexp(1.0, -31)}, {33, HUGE_VAL}}) {
    make_grid(2, 2, 33);
    Vertex v = proposals_around(node_at(0, 0)).at(0);
    v.level = level;
    insert_node_odd_level(v);
    EXPECT_EQ(node_at(0.5, 0.5)->area, area) << level;
    delete_mesh();
  }
}

}  // namespace
}  // namespace velmar_2d::tests
