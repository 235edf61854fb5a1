// The mesh as an object: what it owns, what it gives, what it refuses.
#include <cmath>
#include <memory>
#include <set>
#include <stdexcept>
#include <tuple>

#include "scenarios/scenarios.hpp"
#include "support/error_text.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/mesh.hpp"

namespace velmar_2d::tests {
namespace {

const Rectangle unit_square{0.0, 1.0, 0.0, 1.0};

size_function ring() { return scenarios::ring_spacing({0.4, 0.5, 0.3}, 0.3, 0.02, 1.0); }

void expect_error(const std::function<void()>& code, std::string_view part) {
  const std::string text = text_of_error(code);
  EXPECT_NE(text.find(part), std::string::npos) << text << "\n    instead of\n" << part;
}

TEST(Mesh, IsThatOfTheFreeProceduresAndWalksItInTheSameOrder) {
  using Node = std::tuple<double, double, std::int32_t, double, double, double>;
  const auto node = [](Cell& c, double area) {
    return Node(c.x, c.y, c.level, c.data[0], c.grad2_data, area);
  };
  const auto product = [](double x, double y) { return x * y; };
  n_cell_data = 1;
  scenarios::set_domain(0.0, 1.0, 0.0, 1.0);
  double y_max = 0.0;
  init_mesh(scenarios::all_dirichlet, 9, 9, 8, y_max);
  update_mesh_init(ring(), product);
  update_mesh_no_init(ring());
  set_subdiv_max(6);
  compute_data_at_all_nodes();
  std::vector<Node> expected;
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) expected.push_back(node(*c, cell_area(c)));
  const UpdateStatistics did = update_statistics;
  delete_mesh();
  n_cell_data = 0;

  Mesh mesh(unit_square, {.nx = 9, .subdiv_max = 8, .n_cell_data = 1});
  mesh.update(ring(), product);
  EXPECT_EQ(mesh.update(ring()).inserted, did.inserted);
  mesh.set_limit(6);
  mesh.compute_derivatives();
  for (const bool split : {false, true}) {
    if (split) mesh.split_sublists();
    std::vector<Node> nodes, by_level;
    for (Cell& c : mesh.nodes()) nodes.push_back(node(c, mesh.area(c)));
    for (std::int32_t level = -1; level <= mesh.limit() + 1; ++level) {
      for (Cell& c : mesh.nodes(level)) {
        EXPECT_EQ(c.ipos, level);
        by_level.push_back(node(c, mesh.area(c)));
      }
    }
    EXPECT_TRUE(nodes == expected);
    EXPECT_TRUE(by_level == expected);
    EXPECT_EQ(mesh.size(), static_cast<std::int64_t>(nodes.size()));
  }
  mesh.join_sublists();
  EXPECT_TRUE(mesh.check().empty());
  EXPECT_EQ(mesh.nodes(0).begin()->ipos, 0);
  EXPECT_TRUE(mesh.nodes(7).empty());
}

TEST(Mesh, OwnsTheRecordsOfItsSides) {
  const Rectangle rectangle{-1.0, 3.0, 2.0, 4.0};
  Mesh mesh(rectangle,
            {.nx = 5, .bc_type = kind_by_side(bc_type_neu, bc_type_oth, bc_type_dir, bc_type_neu)});
  const std::tuple<Direction, std::int32_t, double> sides[] = {
      {Direction::north, bc_type_neu, 4.0},
      {Direction::east, bc_type_oth, 3.0},
      {Direction::south, bc_type_dir, 2.0},
      {Direction::west, bc_type_neu, -1.0}};
  for (const auto& [side, kind, place] : sides) {
    EXPECT_EQ(mesh.side_record(side, bc_type_dir).c, place);
    Boundary& record = mesh.side_record(side, kind);
    EXPECT_EQ(record.bc_type, kind);
    int nb_linked = 0;
    for (const Cell& c : std::as_const(mesh).nodes()) {
      const NeighbourLink link = Mesh::link(c, side);
      if (link.boundary() == nullptr) continue;
      EXPECT_EQ(link.boundary(), &record);
      ++nb_linked;
    }
    EXPECT_EQ(nb_linked, side == Direction::north || side == Direction::south ? 5 : 3);
  }
  EXPECT_EQ((std::array{mesh.x_min(), mesh.x_max(), mesh.y_min(), mesh.y_max()}),
            (std::array{-1.0, 3.0, 2.0, 4.0}));
  EXPECT_EQ(mesh.spacing_of_level(4), 0.25 * mesh.dist_0());
  expect_error([&] { mesh.side_record(Direction::north_east, 0); }, "a diagonal direction");
  expect_error([&] { mesh.side_record(Direction::north, 3); }, "must be 0, 1 or 2, not 3");
}

TEST(Mesh, HeightIsAWholeNumberOfSquares) {
  EXPECT_EQ(Mesh({0.0, 1.0, 0.0, 0.5}, {.nx = 9}).size(), 9 * 5);
  EXPECT_EQ(Mesh({0.1, 0.4, 0.0, 0.1 + 0.2}, {.nx = 4}).size(), 4 * 4) << "up to rounding";
  EXPECT_EQ(Mesh({0.0, 1.0, 0.0, 0.5}, {.nx = 9, .ny = 5}).size(), 9 * 5);
  expect_error(
      [] {
        Mesh({0.0, 1.0, 0.0, 0.55}, {.nx = 9});
      },
      "the height 0.55 is not a whole number of squares of width 0.125; 0.5 would be");
  expect_error(
      [] {
        Mesh({0.0, 1.0, 0.0, 0.5}, {.nx = 9, .ny = 6});
      },
      "the height 0.5 is not 5 squares of width 0.125; 0.625 would be");
}

// Nothing is printed and nothing waits for a key, limit 0 and unknown shapes included.
TEST(Mesh, MistakesThrowWhatIsWrongAndNothingIsPrinted) {
  testing::internal::CaptureStdout();
  expect_error([] { Mesh(unit_square, {.nx = 1}); }, "nx and ny must be at least 2, not 1 and 0");
  expect_error([] { Mesh({0.0, 0.0, 0.0, 1.0}); }, "must have a width and a height above 0");
  expect_error([] { Mesh({1.0, 1.0 + 0x1p-45, 0.0, 0x1p-45}, {.nx = 2}); }, "cells are too small");
  expect_error([] { Mesh(unit_square, {.nx = 65536}); }, "4294967296 nodes are more than");
  expect_error([] { Mesh(unit_square, {.subdiv_max = -1}); }, "'subdiv_max' < 0");
  expect_error([] { Mesh(unit_square, {.n_cell_data = -1}); }, "n_cell_data is negative");
  expect_error([] { Mesh(unit_square, {.bc_type = same_kind(3)}); }, "bad result of 'bc_type'");
  {
    Mesh mesh(unit_square, {.nx = 3, .subdiv_max = 0, .n_cell_data = 1});
    expect_error([&] { mesh.set_limit(-1); }, "the limit is negative");
    expect_error([&] { mesh.set_limit(2'000'000); }, "'subdiv_max' > 60");
    expect_error([&] { mesh.update(size_function()); }, "'size_fun' is no procedure");
    expect_error([&] { mesh.update(ring(), nullptr); }, "'init_data' is no procedure");
    expect_error(
        [&] {
          Vertex v;
          v.level = 1;
          mesh.insert_node_odd_level(v);
        },
        "Max level of subdivisions");
    Cell& corner = *mesh.nodes().begin();
    EXPECT_FALSE(mesh.remove_node_odd_level(corner)) << "declined, not refused";
    Cell lonely = corner;
    lonely.e = nullptr;
    lonely.signature_set = false;
    EXPECT_EQ(mesh.shape(lonely).type, 0);
    EXPECT_TRUE(mesh.check().empty());
    EXPECT_EQ(mesh.size(), 9);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(Mesh, MovesWithEverythingItsUserHolds) {
  Mesh first(unit_square, {.nx = 5});
  first.update(ring());
  Cell& node = *first.nodes(3).begin();
  Boundary& side = first.side_record(Direction::west, bc_type_dir);
  Mesh second = std::move(first);
  EXPECT_EQ(&*second.nodes(3).begin(), &node);
  EXPECT_EQ(&second.side_record(Direction::west, bc_type_dir), &side);
  expect_error([&] { first.size(); }, "moved away");
  expect_error([&] { first.update(ring()); }, "moved away");
  first = Mesh(unit_square, {.nx = 3});
  EXPECT_EQ(first.size(), 9);
  first = std::move(second);  // the nodes of the one before go
  first.update(scenarios::even_spacing(10.0));
  EXPECT_EQ(first.size(), 25);
  EXPECT_TRUE(first.check().empty());
}

TEST(Mesh, ForgetsWhatAnUpdateWasGiven) {
  const auto held = std::make_shared<int>(7);
  const auto data = [held](double, double) { return double(*held); };
  Mesh mesh(unit_square, {.nx = 5, .n_cell_data = 1});
  const long held_here = held.use_count();
  mesh.update(ring(), data);
  EXPECT_EQ(held.use_count(), held_here);
  EXPECT_THROW(mesh.update([](auto...) -> double { throw 1; }, data), int);
  EXPECT_EQ(held.use_count(), held_here);
  for (Cell& c : mesh.nodes()) c.data[0] = 3.0;
  const Proposals proposals = mesh.build_vertex(*mesh.nodes().begin());
  ASSERT_GT(proposals.n, 0);
  const Vertex& v = *proposals.begin();
  const bool odd = v.level % 2 == 1;
  const Cell& c = odd ? mesh.insert_node_odd_level(v) : mesh.insert_node_even_level(v);
  EXPECT_EQ(c.data[0], 3.0) << "interpolated";
  EXPECT_EQ(std::pair(c.x, c.y), std::pair(v.x, v.y));
}

TEST(Mesh, ItsOwnHandlersComeBeforeThoseOfTheProcess) {
  std::string texts;
  const auto note = [&texts](const char* who) {
    return [&texts, who](std::string_view text) {
      texts += who + std::string(text.substr(0, text.find('\n'))) + "; ";
    };
  };
  message_handler = note("process: ");
  fatal_handler = note("process, fatal: ");
  Mesh mesh(unit_square, {.nx = 3, .subdiv_max = 0});
  EXPECT_EQ(texts, "process: (velmar_2D/init_mesh:) Warning: arg 'subdiv_max' = 0 !; ");
  texts.clear();
  expect_error([&] { mesh.set_limit(2'000'000); }, "'subdiv_max' > 60");
  EXPECT_EQ(texts.substr(0, 16), "process, fatal: ");

  mesh.set_message_handler(note("own: "));
  mesh.set_pause_handler(note("own pause: "));
  mesh.set_fatal_handler([](std::string_view) { throw 5; });
  EXPECT_THROW(mesh.set_limit(2'000'000), int);
  texts.clear();
  Cell lonely = *mesh.nodes().begin();
  lonely.e = nullptr;
  lonely.signature_set = false;
  mesh.shape(lonely);
  EXPECT_EQ(texts,
            "own: (velmar_2D/cell_type:) Warning: unknown shape of a control cell; "
            "own pause: [return for resume...]; ");
  texts.clear();
  Mesh other(unit_square, {.nx = 3, .subdiv_max = 0});
  EXPECT_EQ(texts.substr(0, 9), "process: ") << "the handlers of a mesh are for it alone";
  message_handler = fatal_handler = nullptr;
}

// Each phase tells where it is, and what is thrown there leaves a whole mesh, wherever it is
// thrown.
TEST(MeshProgress, LeavesAnyPhase) {
  const auto size = [](double x, double y, auto...) { return 0.004 + 0.2 * std::abs(x - y); };
  const auto coarse = [](double, double, auto...) { return 1.0; };
  std::set<std::string> left;
  for (const std::string phase : {"restoring", "derivatives", "refining", "coarsening"}) {
    for (const std::string operation : {"update", "resolve", "set_limit"}) {
      Mesh mesh({}, {.nx = 17, .subdiv_max = 10, .n_cell_data = 1});
      mesh.update(size);
      mesh.set_progress_handler(
          [&](const Progress& progress) {
            EXPECT_TRUE(progress.done >= 0 && progress.known > 17 * 17);
            if (progress.phase == phase) throw std::domain_error(phase);
          },
          0.0);
      try {
        if (operation == "update") mesh.update(coarse);
        if (operation == "resolve") mesh.resolve(coarse);
        if (operation == "set_limit") mesh.set_limit(0);
      } catch (const std::domain_error& error) {
        left.insert(error.what() + (" of " + operation));
      }
      EXPECT_TRUE(mesh.check().empty());
      mesh.set_progress_handler(nullptr);
      mesh.resolve(coarse);
      EXPECT_EQ(mesh.size(), 17 * 17);
    }
  }
  EXPECT_EQ(left.size(), 8U) << "an update restores nothing, a limit only coarsens";
}

// What is thrown while values are transferred leaves those that were there.
TEST(MeshProgress, LeavesTransfers) {
  Mesh from({}, {.nx = 65, .n_cell_data = 1}), to({}, {.nx = 65, .n_cell_data = 1});
  for (Cell& c : from.nodes()) c.data[0] = 1.0;
  for (const auto& transfers : {std::function([&] { transfer(from, to); }),
                                std::function([&] { transfer_conservative(from, to); })}) {
    to.set_progress_handler(
        [](const Progress& p) {
          EXPECT_EQ(p.phase, "transferring");
          if (p.done > p.known / 2) throw std::domain_error("enough");
        },
        0.0);
    EXPECT_THROW(transfers(), std::domain_error);
    for (const Cell& c : to.nodes()) ASSERT_EQ(c.data[0], 0.0);
  }
}

}  // namespace
}  // namespace velmar_2d::tests
