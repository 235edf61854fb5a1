// What callers may rely on: handlers, callbacks that throw, the counters of an update, the
// library's own checker, replayed calls of the fuzzer.
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <tuple>

#include "fuzz/calls.hpp"
#include "scenarios/scenarios.hpp"
#include "support/child_process.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

class Reliability : public MeshTest {
 protected:
  void TearDown() override {
    fatal_handler = message_handler = pause_handler = nullptr;
    MeshTest::TearDown();
  }
};

size_function ring_of(double x) { return scenarios::ring_spacing({x, 2.0, 1.0}, 0.4, 0.1, 1.0); }

TEST_F(Reliability, HandlersTakeEveryTextOver) {
  const ChildEnd end = run_in_child([] {
    std::string texts;
    message_handler = [&](std::string_view text) { texts += "<" + std::string(text) + ">"; };
    scenarios::set_domain(0.0, 1.0, 0.0, 2.0);
    double y_max = 0.0;
    init_mesh(scenarios::all_dirichlet, 2, 2, 1, y_max);  // waits for input, which has ended
    delete_mesh();
    pause_handler = [&](std::string_view text) { texts += "[" + std::string(text) + "]"; };
    scenarios::set_domain(0.0, 1.0, 0.0, 2.0);
    init_mesh(scenarios::all_dirichlet, 2, 2, 1, y_max);
    // One that comes back does not keep the process alive.
    fatal_handler = [&](std::string_view text) { texts += "!" + std::string(text) + "!"; };
    message_handler = [&](std::string_view text) {
      std::printf("%s<%s>", texts.c_str(), std::string(text).c_str());
    };
    init_mesh(scenarios::all_dirichlet, 2, 2, 1, y_max);
  });
  const std::string warning =
      "<(velmar_2D/init_mesh:) Warning: cells must be squared\n"
      "                       North boundary has been moved:>";
  const std::string prompt = "                       new y_max = 1 [RETURN] to resume...";
  const std::string error = "(velmar_2D/init_mesh:) ERROR: mesh should be empty!";
  EXPECT_EQ(end.output, warning + "<" + prompt + ">" + "< nb of deallocated nodes: 4>" + warning +
                            "[" + prompt + "]" + "!" + error + "!" + "<" + error + ">");
  EXPECT_EQ(end.exit_status, EXIT_FAILURE);
}

// Each of the three callbacks throws at its 1st, 2nd, 3rd ... call of one and the same update.
TEST_F(Reliability, CallbacksMayThrowAnywhere) {
  for (int thrower = 0; thrower < 3; ++thrower) {
    bool finished = false;
    int at = 0;
    for (; !finished; at += 1 + at / 16) {
      int calls_left = 0;
      const auto count = [&](int callback) {
        if (callback == thrower && --calls_left == 0) throw std::runtime_error("callback");
      };
      n_cell_data = 1;
      make_grid(5, 5, 6, [&](double, double, std::string_view) {
        count(0);
        return bc_type_neu;
      });
      const size_function front = [&](double x, double y, std::span<const double>, double, double) {
        count(1);
        return std::max(0.15, std::abs(x + y - 3.0));
      };
      const auto product = [&](double x, double y) {
        count(2);
        return x * y;
      };
      update_mesh_init(front, product);
      const std::uint64_t revision = mesh_revision;
      const std::int32_t nodes = nb_nodes;
      calls_left = at + 1;
      try {
        update_mesh_init(front, product);
        finished = true;
      } catch (const std::runtime_error&) {
      }
      calls_left = 0;
      ASSERT_TRUE(mesh_is_whole()) << "callback " << thrower << ", call " << at;
      ASSERT_NE(mesh_beg, nullptr) << "left in the split state";
      const UpdateStatistics& did = update_statistics;
      ASSERT_EQ(did.inserted - did.removed, nb_nodes - nodes);
      ASSERT_EQ(did.inserted + did.removed, static_cast<std::int64_t>(mesh_revision - revision));
      update_mesh_no_init(scenarios::even_spacing(1e3));
      ASSERT_EQ(nb_nodes, 25) << "no way back to the first grid";
      delete_mesh();
    }
    EXPECT_GT(at, 10);
  }
}

TEST_F(Reliability, HalfAGridIsNoMesh) {
  for (int last = 1; last <= 12; ++last) {
    int calls = 0;
    const auto kinds = [&](double, double, std::string_view) {
      return ++calls == last ? throw std::runtime_error("callback") : bc_type_dir;
    };
    EXPECT_THROW(make_grid(4, 4, 2, kinds), std::runtime_error);
    EXPECT_EQ(nb_nodes, 0);
    EXPECT_EQ(mesh_beg, nullptr);
  }
}

TEST_F(Reliability, CountersTellWhatAnUpdateDid) {
  make_grid(5, 5, 6);
  const std::uint64_t first_grid = mesh_revision;
  update_mesh_no_init(scenarios::even_spacing(1.0));  // nothing to do
  EXPECT_EQ(mesh_revision, first_grid);
  EXPECT_EQ(update_statistics.visited, 25);  // level 0 is not asked on the way down
  EXPECT_EQ(update_statistics.inserted + update_statistics.removed, 0);

  auto growth = [nodes = nb_nodes]() mutable { return nb_nodes - std::exchange(nodes, nb_nodes); };
  std::uint64_t revision = mesh_revision;
  do {
    update_mesh_no_init(scenarios::even_spacing(0.25));
    const UpdateStatistics& did = update_statistics;
    EXPECT_EQ(did.inserted - did.removed, growth());
    EXPECT_EQ(mesh_revision, revision + static_cast<std::uint64_t>(did.inserted + did.removed));
    EXPECT_EQ(did.refused, 0);
    revision = mesh_revision;
  } while (update_statistics.inserted > 0);
  EXPECT_EQ(nb_nodes, 17 * 17);

  set_subdiv_max(4);
  update_mesh_no_init(scenarios::even_spacing(0.1));
  EXPECT_GT(update_statistics.refused, 0);
  const std::int32_t nodes = nb_nodes;
  revision = mesh_revision;
  delete_mesh();
  EXPECT_EQ(mesh_revision, revision + static_cast<std::uint64_t>(nodes));
}

// A validating build holds every change against the rules. Here a callback breaks one.
TEST_F(Reliability, ValidatingBuildsTellWhichChangeBrokeTheMesh) {
  const ChildEnd end = run_in_child([] {
    make_grid(3, 3, 2);
    update_mesh_no_init([](double, double, auto...) {
      level_beg[0].next->next->s = nullptr;
      return 1.0;
    });
  });
#if defined(VELMAR_2D_VALIDATE)
  const std::string expected =
      "(Velmar_2D:) update_mesh_no_init: ERROR\n             the mesh is not whole: ";
  EXPECT_EQ(end.output.substr(0, expected.size()), expected) << end.output;
  EXPECT_EQ(end.exit_status, EXIT_FAILURE);
#else
  EXPECT_EQ(end.output, "");
  EXPECT_EQ(end.exit_status, 0);
#endif
}

// ---------------------------------------------------------------------------------------------
// The library's checker
// ---------------------------------------------------------------------------------------------

/// Damage to the mesh of one test: around an inner node of ipos 0 that has neighbours on all sides.
struct Damage {
  const char* rule;
  void (*make)(Cell& c);
};

Cell other_node;  // not in the mesh

const Damage damages[] = {
    {"arrays", [](Cell&) { level_beg.pop_back(); }},
    {"arrays", [](Cell&) { level_max = 1; }},
    {"arrays", [](Cell&) { level_end[1].next = nullptr; }},
    {"list", [](Cell& c) { c.prev = nullptr; }},
    {"list", [](Cell& c) { c.next = c.prev; }},
    {"list", [](Cell&) { mesh_end->next = mesh_beg; }},
    {"list", [](Cell&) { mesh_end = mesh_beg; }},
    {"list", [](Cell&) { mesh_beg = mesh_beg->next; }},
    {"stretch", [](Cell& c) { c.ipos = 1; }},
    {"stretch", [](Cell& c) { c.next = nullptr; }},
    {"count", [](Cell&) { ++nb_nodes; }},
    {"count", [](Cell&) { nb_nodes -= 2; }},
    {"id", [](Cell& c) { c.id = 0; }},
    {"id", [](Cell& c) { c.id = next_id; }},
    {"position", [](Cell& c) { c.x += 1e-6; }},
    {"position", [](Cell& c) { c.y = NAN; }},
    {"position", [](Cell& c) { c.x += 100.0; }},
    {"position", [](Cell&) { level_beg[3].next->x = level_beg[3].next->y = 0.5; }},
    {"unique", [](Cell& c) { c.x += 1.0; }},
    {"level", [](Cell& c) { c.level = level_max + 1; }},
    {"level", [](Cell& c) { c.level = -1; }},
    {"reserve", [](Cell& c) { c.reserve = 0; }},
    {"reserve", [](Cell& c) { c.reserve = 5; }},
    {"link", [](Cell& c) { (c.n.empty() ? c.ne : c.n) = &other_node; }},
    {"link", [](Cell& c) { c.se = south_boundary_dir; }},
    {"mutual", [](Cell& c) { c.s = c.w = c.sw = c.se = nullptr; }},
    {"direction", [](Cell& c) { std::swap(c.n, c.s), std::swap(c.ne, c.sw); }},
    {"link_level", [](Cell& c) { c.wl = 3; }},
    {"link_level",
     [](Cell&) {
       Cell& c = *level_beg[3].next;
       c.nel = 3 - c.nel;
     }},
    {"side", [](Cell&) { mesh_beg->n = nullptr; }},
    {"side", [](Cell&) { mesh_beg->n = south_boundary_dir; }},
    {"side", [](Cell& c) { c.on_boundary = 1; }},
    {"side", [](Cell& c) { c.n = north_boundary_dir; }},
    {"signature",
     [](Cell& c) {
       c.signature = {1, 0}, c.signature_set = true;
     }},
    {"area", [](Cell& c) { c.area = 0.3; }},
    {"domain_area", [](Cell& c) { c.n = c.ne = c.e = nullptr; }},
    {"closed_sides", [](Cell&) { mesh_beg->e = mesh_beg->se = mesh_beg->s = nullptr; }},
};

TEST_F(Reliability, CheckerNamesEveryBrokenRule) {
  std::vector<Finding> findings;
  EXPECT_EQ(check_mesh(findings), 0U) << "no mesh is whole";
  make_grid(5, 5, 6);
  for (int i = 0; i < 4; ++i) update_mesh_no_init(ring_of(2.0));
  std::vector<std::pair<Cell*, Cell>> nodes;
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) nodes.emplace_back(c, *c);
  const auto whole = std::tuple(mesh_beg, mesh_end, level_beg, level_end, level_max, nb_nodes);
  for (const Damage& damage : damages) {
    damage.make(*node_at(2.0, 2.0));
    const std::size_t n = check_mesh(findings);
    EXPECT_EQ(n, findings.size());
    EXPECT_TRUE(std::any_of(findings.begin(), findings.end(),
                            [&](const Finding& finding) { return finding.rule == damage.rule; }))
        << damage.rule << ", damage " << &damage - damages << "; instead "
        << (findings.empty() ? "nothing" : findings.front().text);
    for (const auto& [c, copy] : nodes) *c = copy;
    std::tie(mesh_beg, mesh_end, level_beg, level_end, level_max, nb_nodes) = whole;
    ASSERT_EQ(check_mesh(findings), 0U) << damage.rule;
  }
  split_sublists();
  ASSERT_EQ(check_mesh(findings), 0U);
  level_end[2].next->next = level_beg[3].next;
  ASSERT_EQ(check_mesh(findings), 1U);
  EXPECT_EQ(findings[0].rule, "list");
  EXPECT_EQ(findings[0].node, level_end[2].next);
  level_end[2].next->next = nullptr;
}

TEST(Fuzzer, ReplaysItsCorpus) {
  int replayed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(VELMAR_2D_FUZZ_CORPUS)) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(run_calls({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}), "")
        << entry.path();
    ++replayed;
  }
  EXPECT_GT(replayed, 20);
}

}  // namespace
}  // namespace velmar_2d::tests
