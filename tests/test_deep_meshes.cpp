// Down to the deepest level that the coordinates allow, near the origin and far from it, and worlds
// of any size.
#include <cmath>
#include <limits>

#include "scenarios/scenarios.hpp"
#include "support/error_text.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/base/base.hpp"

namespace velmar_2d::tests {
namespace {

std::string first_finding(const Mesh& mesh) {
  const std::vector<Finding> findings = mesh.check();
  return findings.empty() ? "" : std::string(findings[0].text);
}

size_function point_spacing(double x, double y) {
  return
      [=](double px, double py, auto, double, double) { return 0.7 * std::hypot(px - x, py - y); };
}

// Fractions of dist_0 with any denominator up to 2^30, some roundings off, told from both offsets.
TEST(DeepPositions, AreToldByTheLattice) {
  scenarios::Random random{7};
  detail::Domain domain;
  domain.dist_0 = 0.1;
  domain.largest_coordinate = 40.0;
  const auto offset = [&](int halvings) {
    const double odd = 2.0 * random.between(0, (1 << 30) - 1) + 1.0;
    const double units = halvings == 0 ? random.between(0, 99) : std::ldexp(odd, -halvings);
    return std::fmod(units, 100.0) * domain.dist_0 +
           (random.uniform() - 0.5) * detail::rounding_of_positions(domain);
  };
  for (int trial = 0; trial < 31 * 20; ++trial) {
    const int k = trial % 31;
    for (int other = 0; other <= k; ++other) {
      const std::int32_t expected = other < k ? 2 * k : std::max(2 * k - 1, 0);
      const double x = offset(k), y = offset(other);
      for (const std::int32_t limit : {expected, 60}) {
        ASSERT_EQ(detail::true_ipos(domain, x, y, limit), expected) << k << ", " << other;
        ASSERT_EQ(detail::true_ipos(domain, y, x, limit), expected) << k << ", " << other;
      }
    }
  }
  EXPECT_EQ(detail::true_ipos(domain, 0.1 / 3.0, 0.1 / 3.0, 60), 3) << "off the lattice";
}

struct World {
  const char* name;
  double west, south, width;
  std::int32_t deepest;
};
// The digits of a coordinate, less six, less those that the cells of level 0 need.
const World worlds[] = {{"unit", 0.0, 0.0, 1.0, 60},       {"uneven", 0.1, -0.7, 3.0, 60},
                        {"1e4", 1e4, -7e3, 0.7, 58},       {"1e6", -3.3, 1e6, 0.7, 44},
                        {"1e10", 1e10, 1e10, 0.7, 18},     {"thousandths", 1e4, 0.0, 4e-3, 42},
                        {"largest", -3e59, 0.0, 9e59, 60}, {"smallest", 0.0, -2e-60, 9e-60, 60}};

Mesh mesh_of(const World& world, std::int32_t limit, std::int32_t n_cell_data = 0) {
  return Mesh({world.west, world.west + world.width, world.south, world.south + world.width},
              {.nx = 9, .ny = 9, .subdiv_max = limit, .n_cell_data = n_cell_data});
}

TEST(DeepMeshes, LimitsBeyondTheCoordinatesAreRefusedWithTheDeepest) {
  for (const World& world : worlds) {
    const std::string expected =
        "ERROR: arg 'subdiv_max' > " + std::to_string(world.deepest) + " !\n";
    Mesh mesh = mesh_of(world, world.deepest);
    EXPECT_EQ(text_of_error([&] { mesh.set_limit(world.deepest); }), "") << world.name;
    for (const std::string& text : {text_of_error([&] { mesh_of(world, world.deepest + 1); }),
                                    text_of_error([&] { mesh.set_limit(world.deepest + 1); })}) {
      EXPECT_NE(text.find(expected), std::string::npos) << world.name << ": " << text;
    }
    EXPECT_EQ(mesh.limit(), world.deepest);
  }
}

// A point that wanders leaves nothing behind, whatever the limit does in between.
TEST(DeepMeshes, FollowAPointAndFindBackToTheFirstGrid) {
  for (const World& world : worlds) {
    const bool is_uneven = world.deepest == 60 && world.west == 0.1;
    for (const bool resolving : {false, true}) {
      Mesh mesh = mesh_of(world, world.deepest);
      scenarios::Random random{11};
      const double dist_0 = mesh.dist_0();
      std::int32_t highest = 0;
      for (int i = 0; i < (is_uneven && !resolving ? 200 : 20); ++i) {
        const double x = world.west + world.width * random.uniform();
        const double y = i % 4 == 0 ? mesh.y_max() : world.south + world.width * random.uniform();
        resolving ? mesh.resolve(point_spacing(x, y)) : mesh.update(point_spacing(x, y));
        for (const Cell& c : mesh.nodes()) highest = std::max(highest, c.ipos);
        if (i % 20 == 19) {
          mesh.set_limit(random.between(0, world.deepest));
          ASSERT_EQ(first_finding(mesh), "") << world.name << ", update " << i;
          mesh.set_limit(world.deepest);
        }
      }
      EXPECT_GE(highest, world.deepest - 1) << world.name;
      ASSERT_EQ(first_finding(mesh), "") << world.name;
      mesh.update(scenarios::even_spacing(4.0 * dist_0));
      EXPECT_EQ(mesh.size(), 81) << world.name << (resolving ? ", resolved" : ", updated");
    }
  }
}

TEST(DeepMeshes, CheckFindsWhatDoesNotFitThePosition) {
  Mesh mesh = mesh_of(worlds[0], 60);
  mesh.update(point_spacing(0.3, 0.6));
  mesh.update(point_spacing(0.3, 0.6));
  ASSERT_FALSE(mesh.nodes(58).empty());
  Cell& c = *mesh.nodes(58).begin();
  const auto rules = [&] {
    std::string text;
    for (const Finding& finding : mesh.check()) text += std::string(finding.rule) + ' ';
    return text;
  };
  c.ipos = 57;
  EXPECT_NE(rules().find("position"), std::string::npos);
  c.ipos = 58;
  c.area = 1e-18 * mesh.area(c);
  EXPECT_EQ(rules(), "area ");
}

// f is a quadratic around the point, so that its derivatives are known at all levels. Nodes of the
// first grid keep the values that they were made with.
void expect_right_measures(const World& world, std::int32_t limit) {
  Mesh mesh = mesh_of(world, limit, 1);
  const double px = world.west + 0.318 * world.width, py = world.south + 0.577 * world.width;
  const auto f = [=](double x, double y) {
    return 2.0 * (x - px) - 3.0 * (y - py) + (x - px) * (x - px) + 0.5 * (x - px) * (y - py);
  };
  for (Cell& c : mesh.nodes()) c.data[0] = f(c.x, c.y);
  // A few regular squares at the finest level.
  const double finest = mesh.spacing_of_level(limit - 1);
  const auto size = [=](double x, double y, auto, double, double) {
    return std::max(finest, 0.6 * (std::hypot(x - px, y - py) - 5.0 * finest));
  };
  for (int i = 0; i < 8; ++i) mesh.update(size, f);
  std::int32_t highest = 0;
  double sum = 0.0;
  for (Cell& c : mesh.nodes()) {
    EXPECT_LT(c.area, world.width) << "no infinite one is cached";
    sum += mesh.area(c);
    highest = std::max(highest, c.level);
    if (c.on_boundary == 2) continue;
    const Gradient gradient = mesh.compute_derivatives(c);
    const double x = c.x - px, y = c.y - py;
    ASSERT_NEAR(gradient.dfdx, 2.0 + 2.0 * x + 0.5 * y, 1e-5) << c.level;
    ASSERT_NEAR(gradient.dfdy, -3.0 + 0.5 * x, 1e-5) << c.level;
    // The rounding of coordinates shows in second differences; here there is none.
    if (world.west == 0.0 && c.level <= 40) {
      ASSERT_NEAR(c.grad2_data, std::sqrt(4.5), 1e-2) << c.level;
    }
  }
  EXPECT_GE(highest, limit - 1);
  const double area = (mesh.x_max() - mesh.x_min()) * (mesh.y_max() - mesh.y_min());
  EXPECT_NEAR(sum, area, 1e-12 * area);
}

TEST(DeepMeshes, AreasAndDerivativesAreRightAtAllLevels) {
  for (const World& world : {worlds[0], worlds[1], worlds[2]}) {
    for (const std::int32_t limit : {31, 37, 50}) {
      SCOPED_TRACE(std::string(world.name) + ", limit " + std::to_string(limit));
      expect_right_measures(world, limit);
    }
  }
}

using DeepFreeMeshes = MeshTest;

// What an insertion caches is no area there, see Insertion.AreasAtTheDeepestLevels.
TEST_F(DeepFreeMeshes, AreasOfNodesJustInsertedAreRight) {
  make_grid(9, 9, 40);
  for (int i = 0; i < 3; ++i) update_mesh_no_init(point_spacing(3.3, 4.7));
  double sum = 0.0;
  int nb_deep = 0;
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
    nb_deep += c->area == HUGE_VAL ? 1 : 0;
    sum += cell_area(c);
  }
  EXPECT_GT(nb_deep, 0);
  EXPECT_DOUBLE_EQ(sum, 64.0);
}

/// The history of one mesh in a world of another unit of length, measured in that unit.
std::vector<double> measures(double unit) {
  Mesh mesh({-unit, unit, 0.0, unit}, {.nx = 9, .subdiv_max = 31, .n_cell_data = 1});
  const auto f = [=](double x, double y) { return std::sin(3.0 * x / unit) * y / unit; };
  for (Cell& c : mesh.nodes()) c.data[0] = f(c.x, c.y);
  for (const double radius : {0.3, 0.4}) {
    mesh.update(scenarios::ring_spacing({0.1 * unit, 0.5 * unit, radius * unit}, 0.3, 0.03 * unit,
                                        0.5 * unit),
                f);
    mesh.update(point_spacing(radius * unit, 0.2 * unit), f);
  }
  EXPECT_EQ(first_finding(mesh), "") << unit;
  std::vector<double> all;
  for (Cell& c : mesh.nodes()) {
    const Gradient gradient = mesh.compute_derivatives(c);
    all.insert(all.end(), {c.x / unit, c.y / unit, gradient.dfdx * unit, gradient.dfdy * unit,
                           c.grad2_data * unit * unit, mesh.area(c) / unit / unit});
    const CellFaces faces = mesh.faces(c);
    for (const double length : faces.length) all.push_back(length / unit);
    all.push_back(mesh.polygon(c).corners[0].x / unit);
  }
  return all;
}

// Where every stencil is refused in absolute coordinates, or none is, the unit does not matter.
TEST(Worlds, AreTheSameInAnyUnitOfLength) {
  const std::vector<double> small = measures(std::ldexp(1.0, -190));
  ASSERT_GT(small.size(), 3000U);
  for (const int exponent : {-100, 100, 190}) {
    const std::vector<double> scaled = measures(std::ldexp(1.0, exponent));
    ASSERT_EQ(scaled.size(), small.size());
    for (std::size_t i = 0; i < small.size(); ++i) {
      ASSERT_NEAR(scaled[i], small[i], 1e-6 + 1e-2 * std::abs(small[i])) << exponent << ", " << i;
    }
  }
}

TEST(Worlds, BeyondTheRangeOfAreasAreRefused) {
  constexpr double denormal = std::numeric_limits<double>::denorm_min();
  for (const auto& [from, across] : {std::pair{0.0, 1.1e60},
                                     {-1e155, 1e150},
                                     {0.0, 7e-60},
                                     {0.0, 1e-155},
                                     {0.0, 64 * denormal}}) {
    const double west = from, width = across;
    const std::string text = text_of_error([&] {
      Mesh({west, west + width, 0.0, width}, {.nx = 9, .ny = 9});
    });
    EXPECT_NE(text.find("cells must be 1e-60 wide or more, and coordinates 1e+60 or less"),
              std::string::npos)
        << west << ", " << width << ": " << text;
  }
}

}  // namespace
}  // namespace velmar_2d::tests
