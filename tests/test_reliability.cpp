// What a host can rely on: every broken rule is reported by name, an exit by an exception leaves a
// whole mesh, texts and pauses can be taken over, changes can be told from outside.
#include <map>
#include <stdexcept>

#include "scenarios/scenarios.hpp"
#include "support/child_process.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

struct Left : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Reliability : public MeshTest {
 protected:
  void SetUp() override {
    MeshTest::SetUp();
    message_handler = [this](std::string_view text) { messages += std::string(text) + "\n"; };
  }
  void TearDown() override {
    fatal_handler = nullptr;
    message_handler = nullptr;
    pause_handler = nullptr;
    MeshTest::TearDown();
  }

  std::string messages;
};

size_function ring(double time) {
  return scenarios::ring_spacing(scenarios::travelling_ring(time), 0.3, dist_0 / 8.0, dist_0);
}

void make_ring() {
  make_grid(5, 5, 7);
  for (int i = 0; i < 3; ++i) update_mesh_no_init(ring(0.0));
}

std::size_t nb_findings() {
  std::vector<Finding> findings;
  return check_mesh(findings);
}

bool finds(std::string_view rule) {
  std::vector<Finding> findings;
  check_mesh(findings);
  return std::any_of(findings.begin(), findings.end(),
                     [&](const Finding& finding) { return finding.rule == rule; });
}

TEST_F(Reliability, EveryBrokenRuleIsReportedByName) {
  make_ring();
  ASSERT_EQ(nb_findings(), 0U);
  Cell* inner = mesh_end;  // of the finest stretch
  Cell* corner = level_end[0].next;
  ASSERT_EQ(inner->on_boundary, 0);
  ASSERT_EQ(corner->on_boundary, 2);
  static Boundary stray;
  const double area = cell_area(inner);
  const std::map<std::string_view, std::function<void(Cell&, Cell&)>> damages = {
      {"list", [](Cell& c, Cell&) { c.prev = nullptr; }},
      {"stretch", [](Cell& c, Cell&) { c.ipos -= 1; }},
      {"id", [](Cell& c, Cell&) { c.id = next_id; }},
      {"position", [](Cell& c, Cell&) { c.x += 1e-5; }},
      {"unique", [](Cell& c, Cell&) { c.x = c.prev->x, c.y = c.prev->y; }},
      {"level", [](Cell& c, Cell&) { c.level = level_max + 1; }},
      {"reserve", [](Cell& c, Cell&) { c.reserve = 5; }},
      {"link", [](Cell& c, Cell&) { c.ne = c.nw = &stray; }},
      {"mutual", [](Cell& c, Cell&) { c.n = c.e = c.s = c.w = nullptr; }},
      {"direction", [](Cell& c, Cell&) { std::swap(c.e, c.w), std::swap(c.ne, c.sw); }},
      {"link_level", [](Cell& c, Cell&) { c.nl = c.nel = 3; }},
      {"side", [](Cell&, Cell& side) { side.on_boundary = 1; }},
      {"signature", [](Cell& c, Cell&) { c.signature = {1, 1}, c.signature_set = true; }},
      {"area", [&](Cell& c, Cell&) { c.area = 1.01 * area; }},
  };
  for (const auto& [rule, damage] : damages) {
    const Cell inner_before = *inner, corner_before = *corner;
    damage(*inner, *corner);
    EXPECT_TRUE(finds(rule)) << rule;
    *inner = inner_before;
    *corner = corner_before;
    ASSERT_EQ(nb_findings(), 0U) << rule;
  }
  ++nb_nodes;
  EXPECT_TRUE(finds("count"));
  --nb_nodes;
  level_max -= 2;
  EXPECT_TRUE(finds("arrays"));
  level_max += 2;
}

// A handler that leaves by an exception keeps the process, and a mesh that can be used or deleted.
TEST_F(Reliability, FatalEndsCanBeSurvived) {
  fatal_handler = [](std::string_view text) { throw Left(std::string(text)); };
  const auto text_of = [](const auto& call) {
    try {
      call();
    } catch (const Left& left) {
      return std::string(left.what());
    }
    return std::string("came back");
  };
  EXPECT_EQ(text_of([] { split_sublists(); }).substr(0, 44),
            "(velmar_2D/split_sublists:) ERROR: there is ");
  make_ring();
  const std::string whole = fingerprint();
  EXPECT_EQ(text_of([] { make_grid(3, 3, 2); }),
            "(velmar_2D/init_mesh:) ERROR: mesh should be empty!");
  Vertex v = proposals_around(mesh_beg).at(0);
  v.level = level_max + 1;
  EXPECT_NE(text_of([&] { insert_node_odd_level(v); }).find("Max level of subdivisions"),
            std::string::npos);
  EXPECT_EQ(messages, "") << "the handler took the text";
  EXPECT_EQ(fingerprint(), whole);
  EXPECT_EQ(nb_findings(), 0U);

  const std::string count = " nb of deallocated nodes: " + std::to_string(nb_nodes) + "\n";
  delete_mesh();
  EXPECT_EQ(messages, count);
  EXPECT_EQ(text_of([] { delete_mesh(); }), "Attempt to DEALLOCATE unallocated 'level_beg'");
  make_ring();
  EXPECT_EQ(fingerprint(), whole);
}

// Callbacks that throw at their k-th call: in the middle of the first grid, of an insertion on a
// side, of the data of a new node, of either pass.
TEST_F(Reliability, CallbacksMayThrow) {
  enum class Thrower { bc_type, size_fun, init_data };
  for (const Thrower thrower : {Thrower::bc_type, Thrower::size_fun, Thrower::init_data}) {
    int interrupted = 0;
    for (const int k : {1, 2, 3, 5, 8, 17, 18, 21, 25, 40, 90, 200, 300}) {
      int calls = 0;
      const auto count = [&](Thrower who) {
        if (who == thrower && ++calls == k) throw Left("enough");
      };
      n_cell_data = 1;
      try {
        make_grid(5, 5, 6, [&](auto...) { return count(Thrower::bc_type), bc_type_dir; });
        for (int i = 0; i < 2; ++i) {
          update_mesh_init(
              [&, size = ring(0.4 * i)](double x, double y, auto data, double g, double g2) {
                return count(Thrower::size_fun), size(x, y, data, g, g2);
              },
              [&](double x, double y) { return count(Thrower::init_data), x * y; });
        }
      } catch (const Left&) {
        ++interrupted;
      }
      ASSERT_EQ(nb_findings(), 0U) << k;
      if (nb_nodes == 0) continue;  // the first grid is made whole or not at all
      ASSERT_TRUE(mesh_is_whole()) << k;
      update_mesh_init(scenarios::even_spacing(1e3), [](double x, double y) { return x * y; });
      ASSERT_EQ(nb_nodes, 25) << k;
      delete_mesh();
    }
    EXPECT_GE(interrupted, 5);
  }
}

TEST_F(Reliability, TextsAndPausesCanBeTakenOver) {
  const ChildEnd end = run_in_child([] {
    std::string seen;
    message_handler = [&](std::string_view text) { seen += "[" + std::string(text) + "]"; };
    pause_handler = [&](std::string_view prompt) { seen += "{" + std::string(prompt) + "}"; };
    scenarios::set_domain(0.0, 4.0, 0.0, 3.0);
    double y_max = 0.0;
    init_mesh(scenarios::all_dirichlet, 5, 5, 1, y_max);
    std::exit(seen == "[(velmar_2D/init_mesh:) Warning: cells must be squared\n"
                      "                       North boundary has been moved:]"
                      "{                       new y_max = 4 [RETURN] to resume...}"
                  ? 7
                  : 8);
  });
  EXPECT_EQ(end.exit_status, 7);
  EXPECT_EQ(end.output, "");
}

TEST_F(Reliability, ChangesAndTheirNumbersCanBeTold) {
  make_grid(5, 5, 4);
  const std::uint64_t first = mesh_revision;
  level_max = 0;  // nothing can be inserted
  update_mesh_no_init(scenarios::even_spacing(dist_0));
  EXPECT_EQ(mesh_revision, first);
  EXPECT_EQ(update_statistics.visited, 25);
  EXPECT_EQ(update_statistics.inserted + update_statistics.removed, 0);
  level_max = 4;

  std::int32_t nodes = nb_nodes;
  for (int i = 0; i < 4; ++i) {
    const std::uint64_t before = mesh_revision;
    const std::int32_t id = next_id;
    update_mesh_no_init(ring(0.3 * i));
    EXPECT_GT(mesh_revision, before);
    EXPECT_EQ(update_statistics.inserted, next_id - id);
    EXPECT_EQ(update_statistics.inserted - update_statistics.removed, nb_nodes - nodes);
    EXPECT_GT(update_statistics.refused, 0) << "the ring wants level 6";
    nodes = nb_nodes;
  }
}

}  // namespace
}  // namespace velmar_2d::tests
