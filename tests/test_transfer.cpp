// What becomes of data values where nodes come and go.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>

#include "scenarios/scenarios.hpp"
#include "support/history.hpp"
#include "velmar_2D/mesh.hpp"

namespace velmar_2d::tests {
namespace {

using scenarios::Random;

struct Content {
  double sum = 0.0, absolute = 0.0, lowest = INFINITY, highest = -INFINITY;
};

Content content_of(Mesh& mesh, std::size_t value) {
  Content content;
  for (Cell& c : mesh.nodes()) {
    const double area = mesh.area(c), v = c.data[value];
    content.sum += area * v;
    content.absolute += area * std::abs(v);
    content.lowest = std::min(content.lowest, v);
    content.highest = std::max(content.highest, v);
  }
  return content;
}

size_function ring_at(const Mesh& mesh, double x, double y, double finest) {
  return scenarios::ring_spacing({x, y, 0.2}, 0.3, finest, mesh.dist_0());
}

/// Between the steps of a history, also resolve(), which fills the holes that other steps leave.
template <typename Check>
void for_steps_of_histories(const Check& around_step) {
  for (std::uint64_t seed = 0; seed < 60; ++seed) {
    HistoryPlan plan;
    plan.seed = seed;
    plan.steps = static_cast<Steps>(seed % 3);
    plan.far_from_origin = seed % 4 == 3;
    plan.batched = seed % 2 == 1;
    plan.face = Face::object;
    History history(plan);
    Random random{seed + 1000};
    SCOPED_TRACE("seed " + std::to_string(seed) + ", " + history.step());
    Mesh& mesh = history.mesh();
    if (mesh.n_cell_data() < 2) continue;
    while (!history.is_over()) {
      if (random.between(0, 2) > 0) {
        around_step(mesh, random, [&] { history.step(); });
        continue;
      }
      const Rectangle r = mesh.rectangle();
      const size_function size = ring_at(mesh, r.x_min + random.uniform() * (r.x_max - r.x_min),
                                         r.y_min, mesh.dist_0() * std::exp2(-2.0));
      around_step(mesh, random, [&] { mesh.resolve(size); });
    }
  }
}

class ConservingTransfer : public testing::TestWithParam<Transfer> {};
INSTANTIATE_TEST_SUITE_P(Both, ConservingTransfer,
                         testing::Values(Transfer::conservative, Transfer::remap));

TEST_P(ConservingTransfer, ConservesThroughAnyHistory) {
  int nb_steps = 0;
  for_steps_of_histories([&](Mesh& mesh, Random& random, const auto& step) {
    mesh.set_transfer(GetParam());
    for (Cell& c : mesh.nodes()) c.data[1] = 2.0 * random.uniform() - 1.0;
    const Content before = content_of(mesh, 1);
    step();
    const Content after = content_of(mesh, 1);
    ASSERT_NEAR(after.sum, before.sum, 1e-12 * before.absolute);
    ASSERT_GE(after.lowest, before.lowest - 1e-14);
    ASSERT_LE(after.highest, before.highest + 1e-14);
    ++nb_steps;
  });
  EXPECT_GT(nb_steps, 150);
}

// Areas differ by 2^29 here.
TEST_P(ConservingTransfer, ConservesDeepDown) {
  Mesh mesh({}, {.nx = 5, .subdiv_max = 29, .n_cell_data = 1});
  mesh.set_transfer(GetParam());
  for (Cell& c : mesh.nodes()) c.data[0] = c.x - c.y;
  const Content before = content_of(mesh, 0);
  for (const double x : {0.3, 0.6, 3.0}) {
    mesh.resolve([x](double px, double py, auto...) { return std::hypot(px - x, py - 0.4); });
    EXPECT_EQ(mesh.nodes(29).empty(), x > 1.0);
    EXPECT_NEAR(content_of(mesh, 0).sum, before.sum, 1e-12 * before.absolute);
  }
}

// Between the values of two corners; and what a node leaves is mixed with what was there.
TEST(Transfer, RemapsByWhatLayUnderACell) {
  Mesh mesh({}, {.nx = 2, .subdiv_max = 1, .n_cell_data = 1});
  mesh.set_transfer(Transfer::remap);
  const auto value = [](double x, double y) { return 3.0 + x - 4.0 * x * y; };
  for (Cell& c : mesh.nodes()) c.data[0] = value(c.x, c.y);
  mesh.resolve([](double, double, auto...) { return 0.7; });
  ASSERT_EQ(mesh.size(), 5);
  for (Cell& c : mesh.nodes()) {
    const bool is_centre = c.on_boundary == 0;
    EXPECT_EQ(c.data[0], is_centre ? 2.5 : value(c.x, c.y));  // corners lose half of their cells
    if (is_centre) c.data[0] = 9.0;
  }
  mesh.resolve([](double, double, auto...) { return 1.0; });
  for (const Cell& c : mesh.nodes()) EXPECT_EQ(c.data[0], (value(c.x, c.y) + 9.0) / 2.0);
  mesh.resolve([](double, double, auto...) { return 0.7; }, [](double, double) { return -1.0; });
  for (const Cell& c : mesh.nodes()) EXPECT_EQ(c.data[0] == -1.0, c.on_boundary == 0);
}

/// By what a mesh of another kind finds below each cell, from one to the next.
TEST(Transfer, RemapsWhatAnotherMeshWouldFindBelow) {
  const auto changes = [](double centre, bool resolves) {
    return [=](Mesh& mesh) {
      const size_function size = ring_at(mesh, centre, 0.45, 0.012);
      resolves ? mesh.resolve(size) : mesh.update(size);
    };
  };
  const auto throws = [](Mesh& mesh) {
    int countdown = 900;
    const size_function size = ring_at(mesh, 0.6, 0.4, 0.01);
    EXPECT_THROW(mesh.update([&](double x, double y, auto... rest) {
      if (--countdown == 0) throw std::domain_error("enough");
      return size(x, y, rest...);
    }),
                 std::domain_error);
  };
  const std::vector<std::function<void(Mesh&)>> steps = {
      changes(0.3, true),  changes(0.35, false),
      changes(0.6, false), throws,
      changes(0.55, true), [](Mesh& mesh) { mesh.set_limit(5); },
      changes(0.5, true)};
  const auto run = [&](std::size_t nb_steps) {
    Mesh mesh({-0.2, 1.0, 0.1, 1.0}, {.nx = 9, .subdiv_max = 10, .n_cell_data = 2});
    Random random{7};
    for (std::size_t i = 0; i < nb_steps; ++i) {
      steps[i](mesh);
      mesh.set_limit(10);
    }
    for (Cell& c : mesh.nodes()) c.data[1] = random.uniform();
    return mesh;
  };
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const Mesh before = run(i);
    Mesh mesh = run(i), expected = run(i + 1);
    mesh.set_transfer(Transfer::remap);
    steps[i](mesh);
    transfer_conservative(before, expected);
    ASSERT_EQ(mesh.size(), expected.size());
    auto other = expected.nodes().begin();
    for (const Cell& c : mesh.nodes()) {
      ASSERT_EQ(c.x, other->x);
      EXPECT_NEAR(c.data[1], other->data[1], 1e-12) << "step " << i;
      const Cell* there = before.locate(c.x, c.y);
      const bool is_unchanged =
          there->x == c.x && there->y == c.y &&
          std::equal(c.data.begin() + 1, c.data.end(), there->data.begin() + 1);
      if (!is_unchanged) {
        CellPolygon a = mesh.polygon(c), b = before.polygon(*there);
        EXPECT_FALSE(a.n == b.n &&
                     std::equal(a.corners.begin(), a.corners.begin() + a.n, b.corners.begin(),
                                [](Point p, Point q) { return p.x == q.x && p.y == q.y; }))
            << "a cell that has not changed";
      }
      ++other;
    }
  }
}

/// The same nodes, however they came.
TEST(Transfer, RemapsToTheSameBitsInAnyOrder) {
  enum class Way { plain, batched, threads, hooks, from_elsewhere };
  const auto values = [](Way way) {
    Mesh mesh({}, {.nx = 9, .subdiv_max = 12, .n_cell_data = 1});
    mesh.set_transfer(Transfer::remap);
    mesh.resolve(ring_at(mesh, 0.4, 0.5, 0.01));
    if (way == Way::from_elsewhere) {  // the list has another order, and memory, too
      mesh.resolve(ring_at(mesh, 0.6, 0.2, 0.01));
      mesh.resolve(ring_at(mesh, 0.4, 0.5, 0.01));
    }
    for (Cell& c : mesh.nodes()) c.data[0] = std::sin(9.0 * c.x) / (c.y + 0.7);
    const size_function size = ring_at(mesh, 0.45, 0.52, 0.008);
    if (way == Way::batched) {
      mesh.resolve_batched([&](std::span<const Cell* const> nodes, std::span<double> sizes) {
        for (std::size_t i = 0; i < nodes.size(); ++i)
          sizes[i] = size(nodes[i]->x, nodes[i]->y, {}, 0, 0);
      });
    } else {
      if (way == Way::hooks) mesh.set_node_hooks({[](Cell&, std::span<Cell* const>) {}, {}});
      mesh.resolve(size, {.threads = way == Way::threads ? 3 : 1});
    }
    std::set<std::array<double, 3>> all;
    for (const Cell& c : mesh.nodes()) all.insert({c.x, c.y, c.data[0]});
    return all;
  };
  const auto expected = values(Way::plain);
  for (const Way way : {Way::batched, Way::threads, Way::hooks, Way::from_elsewhere}) {
    EXPECT_EQ(values(way), expected) << static_cast<int>(way);
  }
}

/// Values of linear functions are what interpolation gives back, at every node.
TEST(Transfer, OfAllValuesInterpolatesEach) {
  const auto function = [](std::size_t value, double x, double y) {
    const auto k = static_cast<double>(value);
    return 1.0 + k * x - (2.0 - k) * y;
  };
  for (const Transfer transfer : {Transfer::first, Transfer::all}) {
    Mesh mesh({}, {.nx = 9, .subdiv_max = 9, .n_cell_data = 3});
    mesh.set_transfer(transfer);
    for (Cell& c : mesh.nodes()) {
      for (std::size_t k = 0; k < 3; ++k) c.data[k] = function(k, c.x, c.y);
    }
    mesh.update(ring_at(mesh, 0.4, 0.5, 0.02));
    mesh.set_limit(6);
    mesh.resolve(ring_at(mesh, 0.6, 0.5, 0.03));
    const auto init = [](double x, double) { return 7.0 * x; };
    mesh.set_limit(9);
    const std::int64_t first_of_last = mesh.next_id();
    mesh.resolve(ring_at(mesh, 0.7, 0.5, 0.02), init);
    std::int64_t nb_zero = 0;
    for (const Cell& c : mesh.nodes()) {
      const bool is_last = c.id >= first_of_last;
      EXPECT_NEAR(c.data[0], is_last ? init(c.x, c.y) : function(0, c.x, c.y), 1e-14);
      for (std::size_t k = 1; k < 3; ++k) {
        if (transfer == Transfer::all) {
          EXPECT_NEAR(c.data[k], function(k, c.x, c.y), 1e-14);
        } else if (c.ipos > 0) {
          nb_zero += c.data[k] == 0.0 ? 1 : 0;
        }
      }
    }
    if (transfer == Transfer::first) {
      EXPECT_EQ(nb_zero, 2 * (mesh.size() - 81));
    }
  }
}

// A node that comes and goes again leaves its neighbours as they were: what it had taken, each gets
// back.
TEST(Transfer, OfANodeThatComesAndGoesChangesNothing) {
  Mesh mesh({}, {.nx = 5, .subdiv_max = 6, .n_cell_data = 1});
  mesh.set_transfer(Transfer::conservative);
  Random random{11};
  mesh.resolve(ring_at(mesh, 0.4, 0.5, 0.1));
  for (Cell& c : mesh.nodes()) c.data[0] = random.uniform();
  int nb_tried = 0;
  for (Cell& c : mesh.nodes()) {
    const Proposals proposals = mesh.build_vertex(c);
    for (const Vertex& v : proposals) {
      if (v.level > mesh.limit()) continue;
      const std::array<double, 3> before = {v.p1->data[0], v.p2->data[0], v.p3->data[0]};
      Cell& node =
          v.level % 2 == 1 ? mesh.insert_node_odd_level(v) : mesh.insert_node_even_level(v);
      ASSERT_TRUE(v.level % 2 == 1 ? mesh.remove_node_odd_level(node)
                                   : mesh.remove_node_even_level(node));
      EXPECT_NEAR(v.p1->data[0], before[0], 1e-15);
      EXPECT_NEAR(v.p2->data[0], before[1], 1e-15);
      EXPECT_NEAR(v.p3->data[0], before[2], 1e-15);
      ++nb_tried;
    }
  }
  EXPECT_GT(nb_tried, 50);
}

bool is_linked_to(const Cell& c, const Cell& other) {
  return std::any_of(directions.begin(), directions.end(),
                     [&](Direction d) { return link(c, d).cell() == &other; });
}

// Each node that comes and each that goes, once, with what is around it; what a hook writes stays.
TEST(Transfer, HooksSeeEachNodeThatComesOrGoes) {
  std::int64_t nb_seen = 0;
  for_steps_of_histories([&](Mesh& mesh, Random&, const auto& step) {
    const auto function = [](const Cell& c) { return std::sin(c.x) + c.y * c.y; };
    std::set<std::int64_t> ids;
    for (Cell& c : mesh.nodes()) {
      c.data[1] = function(c);
      ids.insert(c.id);
    }
    NodeHooks hooks;
    hooks.inserted = [&](Cell& node, std::span<Cell* const> parents) {
      EXPECT_TRUE(ids.insert(node.id).second) << "again";
      EXPECT_GE(parents.size(), 2U);
      for (const Cell* parent : parents) {
        EXPECT_TRUE(ids.contains(parent->id)) << "a parent that has not come yet";
      }
      node.data[1] = function(node);
    };
    hooks.removing = [&](Cell& node, std::span<Cell* const> neighbours) {
      EXPECT_EQ(ids.erase(node.id), 1U);
      EXPECT_GE(neighbours.size(), 2U);
      for (const Cell* neighbour : neighbours) EXPECT_TRUE(is_linked_to(*neighbour, node));
      EXPECT_EQ(node.data[1], function(node));
    };
    mesh.set_node_hooks(hooks);
    step();
    mesh.set_node_hooks({});
    EXPECT_EQ(static_cast<std::int64_t>(ids.size()), mesh.size());
    for (const Cell& c : mesh.nodes()) {
      ASSERT_EQ(c.data[1], function(c));
      ASSERT_TRUE(ids.contains(c.id));
    }
    nb_seen += mesh.size();
  });
  EXPECT_GT(nb_seen, 10000);
}

TEST(Transfer, HooksMayThrow) {
  Mesh mesh({}, {.nx = 9, .subdiv_max = 9, .n_cell_data = 1});
  for (const bool when_inserting : {true, false}) {
    int countdown = 40;
    std::int64_t doomed = 0;
    const auto hook = [&](const Cell& c, std::span<Cell* const>) {
      if (--countdown > 0) return;
      doomed = c.id;
      throw std::domain_error("enough");
    };
    mesh.set_node_hooks(when_inserting ? NodeHooks{hook, {}} : NodeHooks{{}, hook});
    const auto size = ring_at(mesh, 0.5, 0.5, when_inserting ? 0.02 : 0.2);
    EXPECT_THROW(mesh.resolve(size), std::domain_error);
    EXPECT_TRUE(mesh.check().empty());
    EXPECT_TRUE(std::any_of(mesh.nodes().begin(), mesh.nodes().end(),
                            [&](const Cell& c) { return c.id == doomed; }));
    mesh.set_node_hooks({});
    mesh.resolve(size);
    EXPECT_TRUE(mesh.check().empty());
  }
}

}  // namespace
}  // namespace velmar_2d::tests
