// The uniform grid of level 0.
#include <unistd.h>

#include <iostream>
#include <sstream>

#include "scenarios/scenarios.hpp"
#include "support/child_process.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

using InitMesh = MeshTest;
using scenarios::all_dirichlet;

void init(double width, double height, int nx, int ny, double& y_max) {
  scenarios::set_domain(0.0, width, 0.0, height);
  init_mesh(all_dirichlet, nx, ny, 1, y_max);
}

//   NW   N   NE      five columns and four rows, so that width and height cannot be mixed up
//   W    i    E
//   SW   S   SE
TEST_F(InitMesh, FieldsByPlace) {
  double y_max = 0.0;
  scenarios::set_domain(-1.0, 1.0, 3.0, 4.5);
  n_cell_data = 2;
  init_mesh(all_dirichlet, 5, 4, 3, y_max);
  EXPECT_EQ(dist_0, 0.5);
  EXPECT_EQ(y_max, 4.5);
  EXPECT_EQ(nb_nodes, 20);

  const std::string expected[3][3] = {
      // from the south-west
      {"on 2 reserve 1 area 0.25 signature 160,0", "on 1 reserve 2 area 0.5 signature 162,128",
       "on 2 reserve 1 area 0.25 signature 130,0"},
      {"on 1 reserve 2 area 0.5 signature 168,32", "on 0 reserve 4 area 1 signature 170,170",
       "on 1 reserve 2 area 0.5 signature 138,2"},
      {"on 2 reserve 1 area 0.25 signature 40,0", "on 1 reserve 2 area 0.5 signature 42,8",
       "on 2 reserve 1 area 0.25 signature 10,0"}};
  for (int j = 0; j < 4; ++j) {
    for (int i = 0; i < 5; ++i) {
      const Cell* c = node_at(i, j);
      ASSERT_NE(c, nullptr);
      std::ostringstream text;
      text << "on " << c->on_boundary << " reserve " << c->reserve << " area "
           << c->area / (dist_0 * dist_0) << " signature " << int{c->signature[0]} << ','
           << int{c->signature[1]};
      EXPECT_EQ(text.str(), expected[(j > 0) + (j == 3)][(i > 0) + (i == 4)]) << i << ' ' << j;
      EXPECT_TRUE(c->signature_set);
      EXPECT_EQ((std::array{c->nl, c->el, c->sl, c->wl}), (std::array{1, 1, 1, 1}));
      EXPECT_EQ(std::vector(c->data.begin(), c->data.end()), (std::vector{0.0, 0.0}));
    }
  }
  EXPECT_TRUE(mesh_is_whole());
}

// The first node created lies at the south-east corner and ends the list.
//
//   1 - 2 - 3       list order; ids run the other way
//   4 - 5 - 6
TEST_F(InitMesh, ListOrderAndLinks) {
  const std::int64_t first_id = next_id;
  double y_max = 0.0;
  init(2.0, 1.0, 3, 2, y_max);
  std::string nodes;
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next)
    nodes += std::to_string(c->id - first_id) + ": " + links(*c) + '\n';
  EXPECT_EQ(nodes,
            "5: n[North] e(1,1) s(0,0) w[West]\n"
            "4: n[North] e(2,1) s(1,0) w(0,1)\n"
            "3: n[North] e[East] s(2,0) w(1,1)\n"
            "2: n(0,1) e(1,0) s[South] w[West]\n"
            "1: n(1,1) e(2,0) s[South] w(0,0)\n"
            "0: n(2,1) e[East] s[South] w(1,0)\n");
  EXPECT_EQ(level_beg[0].next, mesh_beg);
  EXPECT_EQ(level_end[0].next, mesh_end);
  EXPECT_EQ(level_beg[1].next, nullptr);
}

TEST_F(InitMesh, MovesTheNorthSideWhereCellsAreNoSquares) {
  const auto code = [] {
    double y_max = 0.0;
    init(4.0, 3.0, 5, 5, y_max);
    std::cout << y_max << ' ' << north_boundary_dir->c << ' ' << north_boundary_neu->c << ' '
              << north_boundary_oth->c << ' ' << mesh_beg->y << ' ' << nb_nodes;
    std::string rest;
    std::getline(std::cin, rest);
    std::cout << " next line: " << rest;
  };
  const std::string warning =
      "(velmar_2D/init_mesh:) Warning: cells must be squared\n"
      "                       North boundary has been moved:\n"
      "                       new y_max = 4 [RETURN] to resume...";
  const ChildEnd answered = run_in_child(code, "one\ntwo\n");
  EXPECT_EQ(answered.output, warning + "4 4 4 4 4 25 next line: two");
  EXPECT_EQ(answered.exit_status, 0);
  const ChildEnd at_end_of_input = run_in_child(code, "");
  EXPECT_EQ(at_end_of_input.output, warning + "4 4 4 4 4 25 next line: ");

  // Who is asked must have seen the question: nothing is flushed at this end.
  EXPECT_EQ(run_in_child([] {
              double y_max = 0.0;
              init(4.0, 3.0, 5, 5, y_max);
              _exit(0);
            }).output,
            warning);

  // Only the Dirichlet record has to be there.
  const ChildEnd one_record = run_in_child([] {
    scenarios::set_domain(0.0, 1.0, 0.0, 0.9);
    north_boundary_neu = north_boundary_oth = nullptr;
    double y_max = 0.0;
    init_mesh(all_dirichlet, 3, 3, 2, y_max);
  });
  EXPECT_EQ(one_record.exit_status, 0);
}

// Division of the width does not give x_min back exactly, and width and height differ in the last
// digit: neither moves a side.
TEST_F(InitMesh, RoundingMovesNothing) {
  double y_max = 0.0;
  init(0.3, 0.1 + 0.2, 4, 4, y_max);
  EXPECT_EQ(north_boundary_dir->c, 0.1 + 0.2);
  EXPECT_EQ(y_max, 0.1 + 0.2);
  delete_mesh();
  int nb_prompts = 0;
  message_handler = [](std::string_view) {};
  pause_handler = [&](std::string_view) { ++nb_prompts; };
  init(1.0, 1.0 + 1e-13, 4, 4, y_max);
  EXPECT_EQ(nb_prompts, 1) << "more than rounding";
  EXPECT_EQ(y_max, 1.0);
  message_handler = pause_handler = nullptr;
  delete_mesh();
  scenarios::set_domain(0.1, 0.8, 0.1, 0.8);
  init_mesh(all_dirichlet, 8, 8, 1, y_max);
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next)
    EXPECT_EQ(c->w.boundary() != nullptr, c->x == 0.1);
}

}  // namespace
}  // namespace velmar_2d::tests
