// Resolving where something goes wrong: too many nodes, exceptions, a mesh out of order.
#include <cmath>
#include <stdexcept>

#include "support/least_mesh.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

TEST(Resolve, EndsWhereItNeedsMoreNodesThanItMayHave) {
  const size_function size = near_point(0.5, 0.5, 0.3, 1e-4);
  for (const double slope : {0.0, 0.2}) {
    Mesh mesh({0, 1, 0, 1}, {.nx = 5, .subdiv_max = 20});
    try {
      mesh.resolve(size, {.most_nodes = 777, .slope = slope});
      FAIL() << "no error";
    } catch (const Error& error) {
      EXPECT_NE(std::string(error.what()).find("more than 777 nodes"), std::string::npos);
    }
    EXPECT_EQ(mesh.size(), 777);
    EXPECT_EQ(mesh.statistics().inserted, 777 - 25);
    EXPECT_TRUE(is_in_order(mesh));
    mesh.resolve(size);
    const std::int64_t needed = mesh.size();
    mesh.resolve(size, {.most_nodes = needed});
    EXPECT_EQ(mesh.size(), needed);
  }
  Mesh mesh({0, 1, 0, 1}, {.nx = 3});
  for (const Resolution& bad : {Resolution{.margin = -1.0}, Resolution{.most_nodes = -1},
                                Resolution{.slope = std::nan("")}, Resolution{.threads = -1}}) {
    EXPECT_THROW(mesh.resolve(size, bad), Error);
  }
  EXPECT_THROW(mesh.resolve(size_function{}), Error);
}

TEST(Resolve, LeavesTheMeshWholeWhereACallbackThrows) {
  const auto size_at = [](int frame) { return near_point(0.1 + 0.2 * frame, 0.3, 0.4, 0.01); };
  const Lattice lattice(Mesh({0, 1, 0, 1}, {.nx = 5, .subdiv_max = 9}));
  for (int thrower = 0; thrower < 60; ++thrower) {
    Mesh mesh({0, 1, 0, 1}, {.nx = 5, .subdiv_max = 9, .n_cell_data = 1});
    mesh.resolve(size_at(0));
    const int fails_at = 37 * thrower + 1;
    int nb_calls = 0;
    const auto count = [&] {
      if (++nb_calls == fails_at) throw std::runtime_error("no size");
    };
    const auto counted = [&](double x, double y, auto... rest) {
      count();
      return size_at(1)(x, y, rest...);
    };
    const auto init = [&](double x, double y) {
      count();
      return x * y;
    };
    try {
      mesh.resolve(counted, init, {.slope = thrower % 3 == 2 ? 0.4 : 0.0});
    } catch (const std::runtime_error&) {
      EXPECT_EQ(nb_calls, fails_at);
    }
    ASSERT_TRUE(is_in_order(mesh)) << "call " << fails_at;
    mesh.resolve(size_at(2));
    ASSERT_TRUE(lattice.of(mesh) == lattice.least(size_at(2))) << "call " << fails_at;
    ASSERT_TRUE(is_in_order(mesh));
  }
}

// Wants that fell before the exception have fallen all the same.
TEST(Resolve, GivesUpNodesAfterACallbackThrew) {
  Mesh mesh({0, 1, 0, 1}, {.nx = 5, .subdiv_max = 9});
  mesh.resolve(near_point(0.3, 0.3, 0.4, 0.01));
  std::int64_t nb_calls = 0;
  EXPECT_THROW(mesh.resolve([&](double, double, auto...) {
    if (++nb_calls == mesh.size()) throw std::runtime_error("no size");
    return 1.0;
  }),
               std::runtime_error);
  mesh.resolve(scenarios::even_spacing(1.0));
  EXPECT_EQ(mesh.size(), 25);
}

double linear(double x, double y) { return x + 2.0 * y; }

//   o---o---o---o---o
//   |   |   |   |   |     +  off the lattice
//   o---x---o---o---o     x  of the grid, and gone
//   |   |   | + |   |     *  far below its surroundings: parents are missing over several levels
//   o---o---o---o---o
//   | * |   |   |   |
//   o---o---o---o---o
TEST(Resolve, PutsAMeshInOrderThatSingleStepsHaveSpoilt) {
  Mesh mesh({0, 4, 0, 3}, {.nx = 5, .subdiv_max = 12, .n_cell_data = 1});
  const Lattice lattice(mesh);
  for (Cell& c : mesh.nodes()) c.data[0] = linear(c.x, c.y);
  const auto node = [&](double x, double y) -> Cell* {
    for (Cell& c : mesh.nodes()) {
      if (c.x == x && c.y == y) return &c;
    }
    return nullptr;
  };
  const auto insert_in_square = [&](double west, double south, double x, double y) {
    Vertex v;
    v.x = west + x;
    v.y = south + y;
    v.level = 7;
    v.p1 = node(west, south);
    v.p2 = node(west, south + 1);
    v.p3 = node(west + 1, south + 1);
    v.p4 = node(west + 1, south);
    Cell& c = mesh.insert_node_odd_level(v);
    c.data[0] = linear(c.x, c.y);
    return c.id;
  };
  const std::int64_t off_the_lattice = insert_in_square(2, 1, 0.3, 0.6);
  const std::int64_t far_below = insert_in_square(0, 0, 11.0 / 16.0, 5.0 / 16.0);
  ASSERT_TRUE(mesh.remove_node_even_level(*node(1, 2)));

  const size_function size = near_point(11.0 / 16.0, 5.0 / 16.0, 0.4, 1.0 / 20.0);
  mesh.resolve(size);
  const Positions expected = lattice.least(size);
  ASSERT_TRUE(lattice.of(mesh) == expected) << difference(lattice.of(mesh), expected);
  EXPECT_TRUE(is_in_order(mesh));
  bool kept = false;
  for (const Cell& c : mesh.nodes()) {
    EXPECT_NEAR(c.data[0], linear(c.x, c.y), 1e-12) << c.x << ", " << c.y;
    EXPECT_NE(c.id, off_the_lattice);
    kept = kept || c.id == far_below;
  }
  EXPECT_TRUE(kept);
}

}  // namespace
}  // namespace velmar_2d::tests
