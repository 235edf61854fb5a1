// Where numbers run out: far from the origin, at deep levels, with large ids, at coincident points.
#include <cmath>
#include <stdexcept>

#include "scenarios/scenarios.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::tests {
namespace {

class Extremes : public MeshTest {
 protected:
  void SetUp() override {
    message_handler = pause_handler = [](std::string_view) {};
    fatal_handler = [](std::string_view text) { throw std::runtime_error(std::string(text)); };
  }
  void TearDown() override {
    MeshTest::TearDown();
    fatal_handler = message_handler = pause_handler = nullptr;
  }
};

// The rounding of x is 1e-9 of the spacing here, a thousand times what tells positions apart near
// the origin.
TEST_F(Extremes, FarFromTheOriginEveryNodeHasAPlaceOnTheLattice) {
  constexpr double west = 1e4, width = 4e-3;
  scenarios::Random random{13};
  for (int trial = 0; trial < 60; ++trial) {
    scenarios::set_domain(west, west + width, 0.0, width);
    double y_max = 0.0;
    init_mesh(scenarios::all_dirichlet, 5, 5, 28, y_max);
    const double x = west + width * random.uniform(), y = width * random.uniform();
    const size_function size = [=](double px, double py, auto, double, double) {
      return 0.7 * std::hypot(px - x, py - y);
    };
    ASSERT_NO_THROW(update_mesh_no_init(size)) << "trial " << trial;
    EXPECT_GT(nb_nodes, 50);
    std::vector<Finding> findings;
    ASSERT_EQ(check_mesh(findings), 0U) << trial << ": " << findings[0].text;
    ASSERT_NO_THROW(set_subdiv_max(3)) << "trial " << trial;
    ASSERT_EQ(check_mesh(findings), 0U) << trial << ": " << findings[0].text;
    delete_mesh();
  }
}

//         N --- NE       2^level is beyond 32 bits; the spacing is not.
//         |     |
//   W --- C --- E        f = 2 x - 3 y
//         |
//         S
TEST_F(Extremes, RegularSquaresAreFoundAtDeepLevels) {
  n_cell_data = 1;
  for (const std::int32_t level : {30, 32, 34, 60}) {
    make_grid(3, 3, 1);
    const double h = dist_0 * std::exp2(-level / 2);
    std::array<Cell, 6> nodes;
    auto& [c, n, e, s, w, ne] = nodes;
    n.y = e.x = ne.x = ne.y = h;
    s.y = w.x = -h;
    c.n = &n, c.e = &e, c.s = &s, c.w = &w;
    n.e = e.n = &ne;
    c.level = level;
    for (Cell& node : nodes) {
      node.id = next_id++;
      node.data.resize(1);
      node.data[0] = 2.0 * node.x - 3.0 * node.y;
    }
    double dx = 0.0, dy = 0.0;
    ASSERT_NO_THROW(compute_data_at_node(&c, &dx, &dy)) << level;
    EXPECT_EQ(dx, 2.0);
    EXPECT_EQ(dy, -3.0);
    delete_mesh();
  }
}

/// The mesh of a front that moves, whose nodes have data and derivatives.
std::string front_after(std::int64_t first_id) {
  next_id = first_id;
  n_cell_data = 1;
  make_grid(5, 5, 7);
  for (int i = 0; i < 6; ++i) {
    const scenarios::Ring ring{0.5 * i, 2.0, 1.0};
    update_mesh_init(scenarios::ring_spacing(ring, 0.4, 0.1, 1.0),
                     [](double x, double y) { return std::sqrt(x * x + y * y); });
  }
  EXPECT_TRUE(mesh_is_whole());
  EXPECT_GT(next_id, first_id + 500);
  std::string result = fingerprint();
  delete_mesh();
  return result;
}

// Ids order the candidates of a fit, where they stand among numbers of double precision.
TEST_F(Extremes, IdentifiersGoOnBeyond32Bits) {
  constexpr std::int64_t one = 1;
  const std::string expected = front_after(1);
  for (const std::int64_t first : {(one << 31) - 300, (one << 32) - 300}) {
    EXPECT_EQ(front_after(first), expected) << first;
  }
  next_id = 1;
}

TEST_F(Extremes, CoincidentRowsAreAligned) {
  for (const double at : {0.0, 1e6}) {
    detail::Stencil list{};
    for (int i = 0; i < 6; ++i) list.x[i] = list.y[i] = at;
    EXPECT_FALSE(detail::are_4pts_not_aligned(list, 4));
    EXPECT_TRUE(detail::are_4pts_not_aligned(list, 3)) << "no four";
    EXPECT_FALSE(detail::are_6pts_not_aligned_3_by_3(list));
    Cell c, other;
    c.x = c.y = other.x = other.y = at;
    c.n = c.e = &other;
    EXPECT_TRUE(detail::are_4pts_not_aligned_neighbors(&c)) << "no four";
    c.s = &other;
    EXPECT_FALSE(detail::are_4pts_not_aligned_neighbors(&c));
  }
}

}  // namespace
}  // namespace velmar_2d::tests
