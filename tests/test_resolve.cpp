// The least mesh, held against one that is computed from positions and wants alone.
#include <bit>
#include <cmath>
#include <limits>
#include <set>
#include <tuple>

#include "scenarios/scenarios.hpp"
#include "support/history.hpp"
#include "support/least_mesh.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/mesh.hpp"

namespace velmar_2d::tests {
namespace {

/// Along the line through two points.
size_function near_line(double x, double y, double dx, double dy, double slope, double finest) {
  return [=](double px, double py, auto...) {
    return finest + slope * std::abs((px - x) * dy - (py - y) * dx) / std::hypot(dx, dy);
  };
}

struct Domain {
  const char* name;
  Rectangle rectangle;
  std::int32_t nx;
};
const Domain domains[] = {{"unit square", {0, 1, 0, 1}, 5},
                          {"one square", {0, 1, 0, 1}, 2},
                          {"wide", {-1, 0.5, 2, 2.25}, 7},
                          {"column", {0, 1, 0, 4}, 2}};

/// Sizes for a rectangle, by number.
constexpr int nb_kinds_of_size = 7;
size_function size_of_kind(int kind, const Mesh& mesh, scenarios::Random& random) {
  const Rectangle r = mesh.rectangle();
  const double d = mesh.dist_0(), finest = d * std::exp2(-0.5 * random.between(2, 11));
  const auto on = [&](double low, double high) {
    const double t[] = {0.0, 1.0, random.uniform(), random.uniform()};
    return low + (high - low) * t[random.between(0, 3)];  // sides and corners, too
  };
  const double x = on(r.x_min, r.x_max), y = on(r.y_min, r.y_max);
  const double slope = std::pow(20.0, random.uniform()) / 10.0;
  const std::uint64_t seed = random.next();
  switch (kind) {
    case 0: return scenarios::random_spacing(seed, 0.02, finest, 3 * d);
    case 1: return scenarios::jumping_spacing(x, std::max(finest, 0.1 * d), 2 * d);
    case 2: return near_point(x, y, slope, finest);
    case 3: return near_line(x, y, random.uniform(), random.uniform() - 0.5, slope, finest);
    case 4: return scenarios::ring_spacing({x, y, d * random.uniform()}, slope, finest, 2 * d);
    case 5: return scenarios::even_spacing(std::max(finest, 0.1 * d));
    default: {
      // Fine spacing in a disc, with a jump around it.
      const double radius = d * random.uniform();
      return [=](double px, double py, auto...) {
        return std::hypot(px - x, py - y) < radius ? finest : 1.5 * d;
      };
    }
  }
}

TEST(Resolve, MakesTheLeastMeshAndThenLeavesItAsItIs) {
  scenarios::Random random{1};
  for (const Domain& domain : domains) {
    for (int run = 0; run < 5 * nb_kinds_of_size; ++run) {
      Mesh mesh(domain.rectangle, {.nx = domain.nx, .subdiv_max = random.between(3, 10)});
      const size_function size = size_of_kind(run % nb_kinds_of_size, mesh, random);
      const UpdateStatistics first = mesh.resolve(size);
      const Lattice lattice(mesh);
      const Positions expected = lattice.least(size);
      ASSERT_TRUE(lattice.of(mesh) == expected) << difference(lattice.of(mesh), expected) << "\n"
                                                << domain.name << ", run " << run;
      ASSERT_TRUE(is_in_order(mesh)) << domain.name << ", run " << run;
      EXPECT_EQ(first.visited, mesh.size());
      EXPECT_EQ(first.removed, 0);
      const std::uint64_t revision = mesh.revision();
      EXPECT_EQ(mesh.resolve(size).visited, mesh.size());
      ASSERT_EQ(mesh.revision(), revision) << domain.name << ", run " << run;
    }
  }
}

class ResolveAfter : public MeshTest {};

TEST_F(ResolveAfter, AnyHistoryLeavesNoMoreThanIsNeeded) {
  for (std::uint64_t seed = 100; seed < 300; ++seed) {
    Steps steps = seed % 2 == 0 ? Steps::single_nodes : Steps::adapt_hostile;
    Mesh& mesh = default_mesh();
    scenarios::Random random{seed};
    run_history({seed, steps}, [&](const std::string& step) {
      if (seed % 4 > 1 || random.between(0, 1) == 0) return;  // mixed with it, in half of them
      resolve_mesh_no_init(size_of_kind(random.between(0, nb_kinds_of_size - 1), mesh, random));
      ASSERT_TRUE(mesh_is_whole() && is_in_order(mesh)) << "seed " << seed << ", after " << step;
    });
    const Lattice lattice(mesh);
    // Twice: first from what the history has left, then from what the first call has.
    for (int i = 0; i < 3; ++i) {
      const Positions before = lattice.of(mesh);
      const size_function size =
          size_of_kind(random.between(0, nb_kinds_of_size - 1), mesh, random);
      resolve_mesh_no_init(size);
      const Positions expected = lattice.without_surplus(lattice.closure(before, size), size);
      ASSERT_TRUE(lattice.of(mesh) == expected)
          << difference(lattice.of(mesh), expected) << "\nseed " << seed << ", size " << i;
      ASSERT_TRUE(mesh_is_whole() && is_in_order(mesh)) << "seed " << seed << ", size " << i;
    }
    const std::uint64_t revision = mesh_revision;
    const size_function graded = near_point(mesh.x_min(), mesh.y_max(), 0.41, 0.1 * dist_0);
    resolve_mesh_no_init(graded);
    ASSERT_TRUE(lattice.of(mesh) == lattice.least(graded)) << "seed " << seed;
    EXPECT_GE(mesh_revision, revision);
    delete_mesh();
  }
}

/// Every node in list order, to the last bit.
std::vector<std::string> describe(const Mesh& mesh) {
  std::vector<std::string> nodes;
  for (const Cell& c : mesh.nodes()) {
    std::string text = std::to_string(c.id) + " level " + std::to_string(c.level) + "." +
                       std::to_string(c.reserve);
    for (const double value :
         {c.x, c.y, c.data.empty() ? 0.0 : c.data[0], c.grad_data, c.grad2_data}) {
      text += " " + std::to_string(std::bit_cast<std::uint64_t>(value));
    }
    nodes.push_back(text);
  }
  return nodes;
}

/// Bits of all positions, whatever their order.
std::set<std::pair<double, double>> places(const Mesh& mesh) {
  std::set<std::pair<double, double>> all;
  for (const Cell& c : mesh.nodes()) all.emplace(c.x, c.y);
  return all;
}

batch_size_function in_batches(const size_function& size) {
  return [size](std::span<const Cell* const> nodes, std::span<double> sizes) {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      const Cell& c = *nodes[i];
      sizes[i] = size(c.x, c.y, {c.data.data(), c.data.size()}, c.grad_data, c.grad2_data);
    }
  };
}

// Squares of 0.1 away from the origin: positions are rounded, and still the same bits.
TEST(Resolve, FollowsAFrontAsIfItHadBegunWithEachFrame) {
  const Rectangle rectangle{3.0, 3.8, -0.3, 0.5};
  for (const double slope : {0.1, 0.41}) {
    Mesh mesh(rectangle, {.nx = 9, .subdiv_max = 9});
    for (int frame = 0; frame < 50; ++frame) {
      const scenarios::Ring ring{3.1 + 0.01 * frame, 0.1, 0.25};
      const size_function size = scenarios::ring_spacing(ring, slope, 0.006, 0.15);
      mesh.resolve(size);
      Mesh from_scratch(rectangle, {.nx = 9, .subdiv_max = 9});
      from_scratch.resolve(size);
      ASSERT_TRUE(places(mesh) == places(from_scratch)) << "slope " << slope << ", " << frame;
      ASSERT_TRUE(is_in_order(mesh));
    }
  }
}

TEST(Resolve, GivesExactLevelsAndDeepOnesInOneCall) {
  for (int level = 0; level <= 12; ++level) {
    // Up to a billionth, rounding does not decide; beyond, the size does.
    for (const auto& [factor, more] : {std::pair{1.0, 0}, {1.0 - 5e-10, 0}, {1.0 - 5e-9, 1}}) {
      Mesh mesh({0.0, 0.3, 0.0, 0.3}, {.nx = 4, .subdiv_max = 13});
      const double spacing = mesh.spacing_of_level(level);
      mesh.resolve(scenarios::even_spacing(factor * spacing));
      for (const Cell& c : mesh.nodes()) ASSERT_EQ(c.level, level + more) << factor;
    }
  }
  Mesh mesh({0, 1, 0, 1}, {.nx = 5, .subdiv_max = 30});
  const double x = 0.25 + std::ldexp(5, -14), y = std::ldexp(3, -13);
  const size_function size = near_point(x, y, 1.0, std::ldexp(1.0, -18));
  mesh.resolve(size);
  const Lattice lattice(mesh);
  EXPECT_TRUE(lattice.of(mesh) == lattice.least(size));
  EXPECT_TRUE(is_in_order(mesh));
  const bool reached = std::any_of(mesh.nodes().begin(), mesh.nodes().end(),
                                   [](const Cell& c) { return c.level >= 30; });
  EXPECT_TRUE(reached);
  mesh.resolve(scenarios::even_spacing(1.0));
  EXPECT_EQ(mesh.size(), 25);
}

TEST(Resolve, FindsEveryPointUpToASlope) {
  scenarios::Random random{3};
  constexpr int finest_level = 16;
  for (int run = 0; run < 400; ++run) {
    const Domain& domain = domains[run % std::size(domains)];
    Mesh mesh(domain.rectangle, {.nx = domain.nx, .subdiv_max = 30});
    const Rectangle r = mesh.rectangle();
    const double x = r.x_min + (r.x_max - r.x_min) * random.uniform();
    const double y = r.y_min + (r.y_max - r.y_min) * random.uniform();
    const double finest = mesh.spacing_of_level(finest_level);
    mesh.resolve([=](double px, double py, auto...) {
      return std::max(finest, 1.41 * std::hypot(px - x, py - y));
    });
    int highest = 0;
    for (const Cell& c : mesh.nodes()) highest = std::max(highest, c.level);
    EXPECT_GE(highest, finest_level) << domain.name << ": " << x << ", " << y;
  }
}

/// How far a point is from a slanted front.
double from_front(double x, double y, double position) {
  return (x + 0.3 * y - position) / std::hypot(1.0, 0.3);
}

// A field that changes within two of the finest spacings, or from one to the next: all that tells
// where it is are the derivatives of the values at the nodes.
TEST(Resolve, KeepsEveryNodeOfAMovingFrontAtTheFinestLevel) {
  constexpr int finest_level = 16;
  constexpr double width = 1e-3;
  for (const bool is_step : {false, true}) {
    for (const bool by_hessian : {false, true}) {
      Mesh mesh({0, 1, 0, 0.25}, {.nx = 9, .subdiv_max = finest_level, .n_cell_data = 1});
      const size_function size = [=](double, double, auto, double gradient, double hessian) {
        return std::min(0.25 / gradient, by_hessian ? std::sqrt(0.1 / hessian) : 1.0);
      };
      const double half_width = 0.5 * (is_step ? mesh.spacing_of_level(finest_level) : width);
      for (int frame = 0; frame < 12; ++frame) {
        const double position = 0.371 + 0.0006 * frame;
        const auto field = [=](double x, double y) {
          const double distance = from_front(x, y, position);
          return is_step ? std::copysign(1.0, distance) : std::tanh(distance / width);
        };
        for (Cell& c : mesh.nodes()) c.data[0] = field(c.x, c.y);
        // Derivatives of coarse surroundings find the front; it is settled with those of finer
        // ones.
        for (int i = frame == 0 ? 4 : 1; i > 0; --i) {
          mesh.resolve(size, field, {.margin = by_hessian ? 1.5 : 0.5, .most_nodes = 100'000});
        }
        int nb_of_front = 0;
        for (const Cell& c : mesh.nodes()) {
          if (std::abs(from_front(c.x, c.y, position)) > half_width) continue;
          ++nb_of_front;
          ASSERT_EQ(c.level, finest_level) << c.x << ", " << c.y << ", frame " << frame;
        }
        EXPECT_GT(nb_of_front, 250);
        EXPECT_LT(mesh.size(), 30 * nb_of_front) << "nodes go behind the front";
      }
      EXPECT_TRUE(is_in_order(mesh));
    }
  }
}

TEST(Resolve, KeepsNodesWithinTheMargin) {
  scenarios::Random random{7};
  for (int run = 0; run < 2 * nb_kinds_of_size; ++run) {
    Mesh mesh({0, 1, 0, 1}, {.nx = 5, .subdiv_max = 8});
    const Lattice lattice(mesh);
    const double margin = 0.3 + 1.5 * random.uniform();
    for (int i = 0; i < 3; ++i) {
      const size_function size = size_of_kind(run % nb_kinds_of_size, mesh, random);
      const Positions before = lattice.of(mesh);
      mesh.resolve(size, {.margin = margin});
      ASSERT_TRUE(lattice.of(mesh) ==
                  lattice.without_surplus(lattice.closure(before, size), size, margin));
      // Nothing that is wanted goes while wants fall by less than the margin. What is left from
      // before may.
      if (i > 0) continue;
      const std::uint64_t revision = mesh.revision();
      const double growth = std::exp2(0.5 * margin * 0.99);
      mesh.resolve([&](double x, double y, auto... rest) { return growth * size(x, y, rest...); },
                   {.margin = margin});
      mesh.resolve(size, {.margin = margin});
      EXPECT_EQ(mesh.revision(), revision);
    }
  }
}

TEST(Resolve, FollowsSlowChangesWithinTheMargin) {
  for (const double margin : {0.0, 0.7, 1.6}) {
    Mesh mesh({0, 1, 0, 1}, {.nx = 9, .subdiv_max = 8});
    const Lattice lattice(mesh);
    for (int frame = 0; frame < 60; ++frame) {
      // Fine spacing stays where it was, but for a small part.
      const size_function size = [=](double x, double y, auto...) {
        return std::min(0.01 + 0.3 * std::abs(x - 0.2),
                        0.01 + 0.4 * std::hypot(x - 0.6 - 0.004 * frame, y - 0.4));
      };
      const Positions before = lattice.of(mesh);
      mesh.resolve(size, {.margin = margin});
      const Positions expected =
          lattice.without_surplus(lattice.closure(before, size), size, margin);
      ASSERT_TRUE(lattice.of(mesh) == expected)
          << difference(lattice.of(mesh), expected) << "\nmargin " << margin << ", " << frame;
    }
    ASSERT_TRUE(is_in_order(mesh));
  }
}

// A want may fall and still lie above the level of its node, where others had its rings made.
TEST(Resolve, KeepsNothingBeyondTheMarginWhereWantsFallHereAndThere) {
  const double margin = 2.5;
  for (const double share_of_none : {0.0, 0.3}) {
    Mesh mesh({0, 1, 0, 1}, {.nx = 9, .subdiv_max = 8});
    const Lattice lattice(mesh);
    for (std::uint64_t frame = 0; frame < 25; ++frame) {
      const size_function size = [=](double x, double y, auto...) {
        std::uint64_t changed = frame;  // when this place last changed its mind
        while (changed > 0 && scenarios::position_noise(x, y, changed) > 0.02) --changed;
        if (scenarios::position_noise(x, y, 2000 + changed) < share_of_none) return std::nan("");
        const double noise = scenarios::position_noise(x, y, 1000 + changed);
        return 0.125 * std::exp2(-3.0 * noise * noise * noise * noise);
      };
      const Positions before = lattice.of(mesh);
      mesh.resolve(size, {.margin = margin});
      const Positions expected =
          lattice.without_surplus(lattice.closure(before, size), size, margin);
      ASSERT_TRUE(lattice.of(mesh) == expected) << difference(lattice.of(mesh), expected) << "\n"
                                                << frame << ", share " << share_of_none;
    }
  }
}

TEST(Resolve, GradesSizesOverTheMesh) {
  scenarios::Random random{9};
  for (int run = 0; run < 4 * nb_kinds_of_size; ++run) {
    const Domain& domain = domains[run % std::size(domains)];
    const Grid grid{.nx = domain.nx, .subdiv_max = 8};
    Mesh mesh(domain.rectangle, grid), other(domain.rectangle, grid);
    const Lattice lattice(mesh);
    const size_function size = size_of_kind(run % nb_kinds_of_size, mesh, random);
    const double slope = 0.1 + 0.3 * random.uniform();
    mesh.resolve(size, {.slope = slope});
    const Positions expected = lattice.least_graded(size, slope);
    ASSERT_TRUE(lattice.of(mesh) == expected)
        << difference(lattice.of(mesh), expected) << "\nrun " << run;
    ASSERT_TRUE(is_in_order(mesh));
    const std::uint64_t revision = mesh.revision();
    mesh.resolve(size, {.slope = slope});
    EXPECT_EQ(mesh.revision(), revision) << "run " << run;
    // Where the sizes are that smooth, the mesh forgets what it was.
    const size_function sharper = size_of_kind(5, mesh, random);
    const size_function smooth = near_point(0.3, 0.6, slope, 0.1 * mesh.dist_0());
    other.resolve(sharper);
    other.resolve(smooth, {.slope = slope});
    const Positions graded = lattice.least_graded(smooth, slope);
    ASSERT_TRUE(lattice.of(other) == graded) << difference(lattice.of(other), graded);
    ASSERT_TRUE(is_in_order(other));
  }
}

TEST(Resolve, LeavesNodesThatWantNothingAsTheyAre) {
  constexpr double no_number = std::numeric_limits<double>::quiet_NaN();
  Mesh mesh({0, 1, 0, 1}, {.nx = 5, .subdiv_max = 8});
  mesh.resolve(near_point(0.3, 0.4, 0.4, 0.02));
  const std::vector<std::string> before = describe(mesh);
  for (const double nothing : {no_number, -1.0, -std::numeric_limits<double>::infinity()}) {
    for (const double slope : {0.0, 0.5}) {
      mesh.resolve(scenarios::even_spacing(nothing), {.slope = slope});
      ASSERT_EQ(describe(mesh), before) << nothing << ", slope " << slope;
    }
  }
  mesh.resolve_batched([](std::span<const Cell* const>, std::span<double>) {});
  EXPECT_EQ(describe(mesh), before);
  mesh.resolve(scenarios::even_spacing(-0.0));  // the finest
  for (const Cell& c : mesh.nodes()) ASSERT_EQ(c.level, 8);
}

// Neither the order in which nodes are asked nor what they wanted before decides what that is.
TEST(Resolve, KeepsTheLevelThatOthersMakeWhereASizeIsNone) {
  scenarios::Random random{11};
  for (int run = 0; run < 4 * nb_kinds_of_size; ++run) {
    const Domain& domain = domains[run % std::size(domains)];
    const Grid grid{.nx = domain.nx, .subdiv_max = 8};
    const double share = 0.8 * random.uniform(), margin = run % 3 == 0 ? 1.2 : 0.0;
    Mesh mesh(domain.rectangle, grid), batched(domain.rectangle, grid),
        threaded(domain.rectangle, grid);
    const Lattice lattice(mesh);
    for (int i = 0; i < 5; ++i) {
      const size_function others = size_of_kind((run + i) % nb_kinds_of_size, mesh, random);
      const std::uint64_t seed = random.next();
      const size_function size = [&](double x, double y, auto... rest) {
        const bool is_none = scenarios::position_noise(x, y, seed) < share;
        return is_none ? (x < y ? -1.0 : std::nan("")) : others(x, y, rest...);
      };
      const Positions before = lattice.of(mesh);
      mesh.resolve(size, {.margin = margin});
      const Positions expected =
          lattice.without_surplus(lattice.closure(before, size), size, margin);
      ASSERT_TRUE(lattice.of(mesh) == expected)
          << difference(lattice.of(mesh), expected) << "\nrun " << run << ", size " << i;
      batched.resolve_batched(in_batches(size), {.margin = margin});
      threaded.resolve(size, {.margin = margin, .threads = 2});
      ASSERT_TRUE(is_in_order(mesh));
      ASSERT_EQ(describe(batched), describe(mesh)) << "run " << run << ", size " << i;
      ASSERT_EQ(describe(threaded), describe(mesh)) << "run " << run << ", size " << i;
    }
  }
}

/// All forms of one adaptation, with data that come from a procedure or are interpolated.
class Forms : public MeshTest, public testing::WithParamInterface<bool> {};

TEST_P(Forms, AreTheSameToTheLastBit) {
  const bool with_init = GetParam();
  const auto wave = [](double x, double y) { return std::tanh(9.0 * (x - y * y)); };
  const size_function by_data = [](double, double, std::span<const double> data, double gradient,
                                   double hessian) {
    return 0.6 / (0.3 + gradient + 0.05 * hessian + std::abs(data[0]));
  };
  for (const Resolution& resolution : {Resolution{}, Resolution{.margin = 0.5, .slope = 0.7}}) {
    Mesh one_by_one({0, 4, 0, 4}, {.nx = 5, .subdiv_max = 8, .n_cell_data = 1});
    Mesh batched({0, 4, 0, 4}, {.nx = 5, .subdiv_max = 8, .n_cell_data = 1});
    n_cell_data = 1;
    next_id = 1;
    make_grid(5, 5, 8);
    for (Mesh* mesh : {&one_by_one, &batched, &default_mesh()}) {
      for (Cell& c : mesh->nodes()) c.data[0] = wave(c.x, c.y);
    }
    for (int i = 0; i < 5; ++i) {
      if (with_init) {
        one_by_one.resolve(by_data, wave, resolution);
        batched.resolve_batched(in_batches(by_data), wave, resolution);
        i % 2 == 0 ? resolve_mesh_init(by_data, wave, resolution)
                   : resolve_mesh_init_batched(in_batches(by_data), wave, resolution);
      } else {
        one_by_one.resolve(by_data, resolution);
        batched.resolve_batched(in_batches(by_data), resolution);
        i % 2 == 0 ? resolve_mesh_no_init(by_data, resolution)
                   : resolve_mesh_no_init_batched(in_batches(by_data), resolution);
      }
      ASSERT_EQ(describe(one_by_one), describe(batched)) << "call " << i;
      ASSERT_EQ(describe(one_by_one), describe(default_mesh())) << "call " << i;
      const UpdateStatistics a = one_by_one.statistics(), b = batched.statistics();
      EXPECT_EQ(std::tuple(a.visited, a.inserted, a.removed, a.refused),
                std::tuple(b.visited, b.inserted, b.removed, b.refused));
      ASSERT_TRUE(is_in_order(one_by_one));
      // Data of nodes that move on with the front are current.
      for (const Cell& c : one_by_one.nodes()) {
        if (with_init) {
          ASSERT_EQ(c.data[0], wave(c.x, c.y));
        }
      }
    }
    EXPECT_GT(one_by_one.size(), 100);
    delete_mesh();
  }
}

INSTANTIATE_TEST_SUITE_P(Resolve, Forms, testing::Bool());

}  // namespace
}  // namespace velmar_2d::tests
