// The least mesh, held against one that is computed from positions and wants alone.
#include <bit>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <stdexcept>

#include "scenarios/scenarios.hpp"
#include "support/history.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/mesh.hpp"

namespace velmar_2d::tests {
namespace {

/// A position in units of dist_0 / 2^halvings, from the lower left corner.
using Position = std::pair<std::int64_t, std::int64_t>;
using Positions = std::set<Position>;

/// The lattice over the rectangle of a mesh; shares no code with the library.
class Lattice {
 public:
  explicit Lattice(const Mesh& mesh)
      : x_min_(mesh.x_min()),
        y_min_(mesh.y_min()),
        dist_0_(mesh.dist_0()),
        limit_(mesh.limit()),
        last_x_(std::lround((mesh.x_max() - x_min_) / dist_0_) << halvings),
        last_y_(std::lround((mesh.y_max() - y_min_) / dist_0_) << halvings) {}

  Positions grid() const {
    Positions all;
    for (Position p{0, 0}; p.second <= last_y_; p.second += unit) {
      for (p.first = 0; p.first <= last_x_; p.first += unit) all.insert(p);
    }
    return all;
  }
  Positions of(const Mesh& mesh) const {
    Positions all;
    for (const Cell& c : mesh.nodes()) {
      EXPECT_TRUE(all.insert({index(c.x - x_min_), index(c.y - y_min_)}).second) << "twice";
    }
    EXPECT_EQ(all.size(), static_cast<std::size_t>(mesh.size()));
    return all;
  }

  static int ipos(Position p) {
    const int x = halvings_of(p.first), y = halvings_of(p.second);
    return x == y ? std::max(0, 2 * x - 1) : 2 * std::max(x, y);
  }
  Positions ring(Position p, int level) const {
    const std::int64_t s = unit >> ((level + 1) / 2);
    const Positions diagonal = {{s, s}, {s, -s}, {-s, s}, {-s, -s}};
    const Positions straight = {{s, 0}, {-s, 0}, {0, s}, {0, -s}};
    Positions members;
    for (const auto& [dx, dy] : level % 2 == 1 ? diagonal : straight) {
      const Position q{p.first + dx, p.second + dy};
      if (q.first >= 0 && q.second >= 0 && q.first <= last_x_ && q.second <= last_y_) {
        members.insert(q);
      }
    }
    return members;
  }
  int wanted_level(const size_function& size, Position p, double margin = 0.0) const {
    const double h = size(x_min_ + length(p.first), y_min_ + length(p.second), {}, 0.0, 0.0);
    int level = 0;
    while (level < limit_ && h * std::exp2(-0.5 * margin) <
                                 dist_0_ * std::exp2(-0.5 * level) * (1.0 - 1e-9)) {
      ++level;
    }
    return level;
  }

  /// The rules, starting from the positions that are there.
  Positions closure(const Positions& start, const size_function& size) const {
    Positions all = start;
    std::vector<Position> open(start.begin(), start.end());
    while (!open.empty()) {
      const Position p = open.back();
      open.pop_back();
      const int lowest = ipos(p), highest = std::max(lowest, wanted_level(size, p));
      for (int l = std::max(1, lowest); l <= highest; ++l) {
        for (const Position& q : ring(p, l)) {
          if (all.insert(q).second) open.push_back(q);
        }
      }
    }
    return all;
  }
  /// Without what no other position rests on and none wants, from the finest to the coarsest.
  Positions without_surplus(Positions all, const size_function& size, double margin = 0.0) const {
    std::vector<std::vector<Position>> by_ipos(2 * halvings + 1);
    std::map<Position, int> nb_resting;
    for (const Position& p : all) {
      by_ipos[static_cast<std::size_t>(ipos(p))].push_back(p);
      for (const Position& q : parents(p)) ++nb_resting[q];
    }
    for (int l = 2 * halvings; l > 0; --l) {
      for (const Position& q : by_ipos[static_cast<std::size_t>(l)]) {
        const Positions around = parents(q);
        if (nb_resting[q] > 0 || std::any_of(around.begin(), around.end(), [&](Position p) {
              return wanted_level(size, p, margin) >= l;
            })) {
          continue;
        }
        all.erase(q);
        for (const Position& p : around) --nb_resting[p];
      }
    }
    return all;
  }
  Positions least(const size_function& size) const { return closure(grid(), size); }

 private:
  static constexpr int halvings = 20;
  static constexpr std::int64_t unit = std::int64_t{1} << halvings;

  static int halvings_of(std::int64_t offset) {
    int n = 0;
    while (n < halvings && offset % (unit >> n) != 0) ++n;
    return n;
  }
  Positions parents(Position p) const { return ipos(p) == 0 ? Positions{} : ring(p, ipos(p)); }
  std::int64_t index(double length) const {
    const double exact = length / dist_0_ * static_cast<double>(unit);
    EXPECT_NEAR(exact, std::round(exact), 1e-2);
    return std::llround(exact);
  }
  double length(std::int64_t index) const {
    return static_cast<double>(index) / static_cast<double>(unit) * dist_0_;
  }

  double x_min_, y_min_, dist_0_;
  int limit_;
  std::int64_t last_x_, last_y_;
};

/// What two sets do not have in common, for the eye.
std::string difference(const Positions& mesh, const Positions& expected) {
  std::string text;
  const auto list = [&](const char* title, const Positions& a, const Positions& b) {
    text += title;
    for (const Position& p : a) {
      if (b.count(p) != 0 || text.size() > 1000) continue;
      text += " (" + std::to_string(p.first) + ", " + std::to_string(p.second) + ")ipos " +
              std::to_string(Lattice::ipos(p));
    }
  };
  list("surplus:", mesh, expected);
  list("\nmissing:", expected, mesh);
  return text;
}

bool is_in_order(const Mesh& mesh) {
  const std::vector<Finding> findings = mesh.check();
  for (const Finding& finding : findings) ADD_FAILURE() << finding.rule << ": " << finding.text;
  return findings.empty();
}

size_function near_point(double x, double y, double slope, double finest) {
  return [=](double px, double py, auto...) {
    return finest + slope * std::hypot(px - x, py - y);
  };
}
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
      ASSERT_TRUE(lattice.of(mesh) == expected)
          << difference(lattice.of(mesh), expected) << "\n" << domain.name << ", run " << run;
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
    run_history({seed, steps}, [](const std::string&) {});
    Mesh& mesh = default_mesh();
    const Lattice lattice(mesh);
    scenarios::Random random{seed};
    // Twice: first from what the history has left, then from what the first call has.
    for (int i = 0; i < 3; ++i) {
      const Positions before = lattice.of(mesh);
      const size_function size = size_of_kind(random.between(0, nb_kinds_of_size - 1), mesh, random);
      resolve_mesh_no_init(size);
      const Positions expected = lattice.without_surplus(lattice.closure(before, size), size);
      ASSERT_TRUE(lattice.of(mesh) == expected)
          << difference(lattice.of(mesh), expected) << "\nseed " << seed << ", size " << i;
      ASSERT_TRUE(mesh_is_whole()) << "seed " << seed << ", size " << i;
    }
    const std::uint64_t revision = mesh_revision;
    const size_function graded = near_point(mesh.x_min(), mesh.y_max(), 0.41, 0.1 * dist_0);
    resolve_mesh_no_init(graded);
    ASSERT_TRUE(lattice.of(mesh) == lattice.least(graded)) << "seed " << seed;
    EXPECT_GE(mesh_revision, revision);
    delete_mesh();
  }
}

}  // namespace
}  // namespace velmar_2d::tests
