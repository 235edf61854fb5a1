// Every fatal end and every warning, provoked once: its text to the letter and the exit status.
#include <cmath>
#include <cstdlib>
#include <limits>
#include <stdexcept>

#include "scenarios/scenarios.hpp"
#include "support/child_process.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

struct Case {
  const char* name;
  void (*code)();
  std::string output;
  int exit_status = EXIT_FAILURE;
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

void init(int nx, int ny, int limit, bc_type_function kinds = scenarios::all_dirichlet) {
  double y_max = 0.0;
  init_mesh(std::move(kinds), nx, ny, limit, y_max);
}

void init_on(double west, double east, double south, double north) {
  scenarios::set_domain(west, east, south, north);
  init(2, 2, 1);
}

void init_without(Boundary*& record) {
  scenarios::set_domain(0.0, 1.0, 0.0, 1.0);
  record = nullptr;
  init(2, 2, 1);
}

void unit_init(int nx, int ny, int limit, bc_type_function kinds = scenarios::all_dirichlet) {
  scenarios::set_domain(0.0, 1.0, 0.0, 1.0);
  init(nx, ny, limit, std::move(kinds));
}

/// The centre of the one square of a smallest grid.
Vertex centre_vertex(int limit) {
  unit_init(2, 2, limit);
  return proposals_around(mesh_beg).at(0);
}

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

const std::string tag = "(velmar_2D/init_mesh:) ",
                  odd = "(Velmar_2D:) insert_node_odd_level: ERROR\n",
                  even = "(Velmar_2D:) insert_node_even_level: ERROR\n";
const std::string no_record =
    " was not allocated!\n        (The four Dirichlet condition are always nedded,\n"
    "         even not used by the user.)\n";
const std::string bad_width = tag +
                              "ERROR: bad arg 'x_min', 'x_max', 'y_min' or 'y_max'\n"
                              "                       interval width must be positive!\n";
const std::string bad_size =
    tag +
    "ERROR: bad arg 'x_min', 'x_max', 'y_min' or 'y_max'\n"
    "                       cells must be 1e-60 wide or more, and coordinates 1e+60 or less:\n"
    "                       choose another unit of length!\n";
const std::string bad_number = tag +
                               "ERROR: bad arg 'nx' or 'ny'\n"
                               "                       mesh must have at least four elements !\n";
const std::string bad_kind =
    tag +
    "ERROR: bad result of 'bc_type'\n"
    "                       it must be 0 (Dirichlet), 1 (Neumann) or 2 (other),\n"
    "                       and the side must have a record of this kind !\n";
const std::string absurd_limit =
    "ERROR: arg 'subdiv_max' > 60 !\n        (nodes above level 60 cannot be told apart.)\n";
const std::string at_the_limit =
    "             you cannot add a new node\n"
    "             (Max level of subdivisions reached)\n"
    " => you must avoid this before calling this routine\n";
const std::string no_parent = "             a parent of the new node is missing\n";
const std::string no_node = "Attempt to DEALLOCATE unallocated 'c'\n";

std::string deleted(int nodes) {
  return " nb of deallocated nodes: " + std::to_string(nodes) + "\n";
}
std::string no_mesh(const std::string& operation) {
  return "(velmar_2D/" + operation +
         ":) ERROR: there is no mesh!\n        (It must be made by init_mesh before this call.)\n";
}

// clang-format off
const Case init_mesh_cases[] = {
    {"mesh_exists", [] { unit_init(2, 2, 1); north_boundary_dir = nullptr; init(2, 2, -1); },
     tag + "ERROR: mesh should be empty!\n"},
    {"mesh_exists_in_the_split_state", [] { unit_init(2, 2, 1); split_sublists(); init(2, 2, 1); },
     tag + "ERROR: mesh should be empty!\n"},
    {"no_north_record", [] { init_without(north_boundary_dir); },
     tag + "ERROR: North_Boundary_Dir" + no_record},
    {"no_west_record_is_told_before_the_rest",
     [] { scenarios::set_domain(0.0, 1.0, 0.0, 1.0); west_boundary_dir = nullptr; init(1, 1, -1, nullptr); },
     tag + "ERROR: West_Boundary_Dir" + no_record},
    {"no_callback", [] { unit_init(2, 2, 1, nullptr); },
     tag + "ERROR: arg 'bc_type' is no procedure!\n"},
    {"negative_limit_is_told_before_nx", [] { unit_init(1, 2, -1); },
     tag + "ERROR: arg 'subdiv_max' < 0 !\n"
           "        ('subdiv_max' is used to define the number of levels\n"
           "         for subdividing the mesh cells. It must be positive.)\n"},
    {"absurd_limit", [] { unit_init(2, 2, std::numeric_limits<std::int32_t>::max()); },
     tag + absurd_limit},
    {"limit_too_deep_for_the_coordinates",
     [] { scenarios::set_domain(1e6, 1000001.0, 0.0, 1.0); init(11, 11, 45); },
     tag + "ERROR: arg 'subdiv_max' > 44 !\n"
           "        (nodes above level 44 cannot be told apart in this domain.)\n"},
    {"world_too_large", [] { init_on(0.0, 2e60, 0.0, 2e60); }, bad_size},
    {"limit_0_only_warns", [] { unit_init(2, 2, 0); delete_mesh(); },
     tag + "Warning: arg 'subdiv_max' = 0 !\n    the mesh will not be able to be refined...\n" +
     deleted(4), 0},
    {"nx_1", [] { unit_init(1, 2, 1); }, bad_number},
    {"ny_1", [] { unit_init(2, 1, 1); }, bad_number},
    {"width_0", [] { init_on(1.0, 1.0, 0.0, 1.0); }, bad_width},
    {"height_negative", [] { init_on(0.0, 1.0, 1.0, 0.0); }, bad_width},
    {"width_not_a_number", [] { init_on(nan, 1.0, 0.0, 1.0); }, bad_width},
    {"height_infinite", [] { init_on(0.0, 1.0, 0.0, HUGE_VAL); }, bad_width},
    {"cells_below_the_rounding_of_coordinates", [] { init_on(1.0, 1.0 + 1e-14, 0.0, 1e-14); },
     tag + "ERROR: bad arg 'x_min', 'x_max', 'y_min' or 'y_max'\n"
           "                       the cells are too small for coordinates of this size!\n"},
    {"more_nodes_than_can_be_counted", [] { unit_init(65536, 32768, 1); },
     tag + "ERROR: bad arg 'nx' or 'ny'\n"
           "                       2147483648 nodes are more than the 2147483647 that can be counted !\n"},
    {"kind_out_of_range",
     [] { unit_init(2, 2, 1, [](double, double, std::string_view) { return 3; }); }, bad_kind},
    {"kind_without_record",
     [] {
       scenarios::set_domain(0.0, 1.0, 0.0, 1.0);
       west_boundary_oth = nullptr;
       init(2, 2, 1, [](double, double, std::string_view side) { return side == "West" ? 2 : 1; });
     },
     bad_kind},
};

const Case mesh_cases[] = {
    {"update_without_a_mesh", [] { update_mesh_no_init(scenarios::even_spacing(1.0)); },
     no_mesh("update_mesh")},
    {"update_after_deletion",
     [] { unit_init(2, 2, 3); delete_mesh(); update_mesh_init(scenarios::even_spacing(1.0), nullptr); },
     deleted(4) + no_mesh("update_mesh")},
    {"split_without_a_mesh", [] { split_sublists(); }, no_mesh("split_sublists")},
    {"join_without_a_mesh", [] { join_sublists(); }, no_mesh("join_sublists")},
    {"lowered_limit_without_a_mesh", [] { set_subdiv_max(3); set_subdiv_max(1); },
     no_mesh("set_subdiv_max")},
    {"raised_limit_without_a_mesh_is_fine", [] { set_subdiv_max(3); }, "", 0},
    {"deletion_after_a_raised_limit_without_a_mesh", [] { set_subdiv_max(3); delete_mesh(); },
     deleted(0) + "Attempt to DEALLOCATE unallocated 'level_beg'\n"},
    {"raised_limit_absurd", [] { unit_init(2, 2, 1); set_subdiv_max(61); },
     "(velmar_2D/set_subdiv_max:) " + absurd_limit},
    {"second_deletion", [] { unit_init(2, 2, 1); delete_mesh(); delete_mesh(); },
     deleted(4) + deleted(0) + "Attempt to DEALLOCATE unallocated 'level_beg'\n"},
    {"deletion_without_level_end", [] { unit_init(2, 2, 1); level_end.clear(); delete_mesh(); },
     deleted(4) + "Attempt to DEALLOCATE unallocated 'level_end'\n"},
    {"no_size_function", [] { unit_init(2, 2, 1); update_mesh_no_init(nullptr); },
     "(velmar_2D/update_mesh:) ERROR: arg 'size_fun' is no procedure!\n"},
    {"no_init_data",
     [] { n_cell_data = 1; unit_init(2, 2, 1); update_mesh_init(scenarios::even_spacing(1.0), nullptr); },
     "(velmar_2D/update_mesh:) ERROR: arg 'init_data' is no procedure!\n"},
};

const Case node_cases[] = {
    {"odd_insertion_above_the_limit",
     [] { Vertex v = centre_vertex(1); v.level = 2; insert_node_odd_level(v); }, odd + at_the_limit},
    {"even_insertion_above_the_limit",
     [] { Vertex v = centre_vertex(1); v.level = 2; insert_node_even_level(v); }, even + at_the_limit},
    {"insertion_before_any_mesh", [] { insert_node_odd_level({}); }, odd + at_the_limit},
    {"insertion_after_deletion",
     [] { const Vertex v = centre_vertex(1); delete_mesh(); insert_node_odd_level(v); },
     deleted(4) + no_mesh("insert_node_odd_level")},
    {"odd_insertion_without_a_fourth_corner",
     [] { n_cell_data = 1; Vertex v = centre_vertex(1); v.p4 = nullptr; insert_node_odd_level(v); },
     "insert_node_odd on_boundary\n"},
    {"odd_insertion_without_a_parent",
     [] { Vertex v = centre_vertex(1); v.p2 = nullptr; insert_node_odd_level(v); }, odd + no_parent},
    {"even_insertion_without_a_parent",
     [] { Vertex v = centre_vertex(1); v.p3 = nullptr; insert_node_even_level(v); }, even + no_parent},
    {"insertion_at_a_negative_level",
     [] { Vertex v = centre_vertex(1); v.level = -1; insert_node_odd_level(v); },
     odd + "             the level of the new node is negative\n"},
    {"position_beyond_the_level_arrays",
     [] { Vertex v = centre_vertex(3); v.x = 0.125; insert_node_odd_level(v); },
     "(Velmar_2D:) insert_node: ERROR\n"
     "             the position (0.125, 0.5) belongs to level 6,\n"
     "             which lies outside of the levels 0 to 3\n"},
    {"no_procedure_for_data",
     [] { n_cell_data = 1; data_interpolation = false; insert_node_odd_level(centre_vertex(1)); },
     "(Velmar_2D:) insert_node: ERROR\n"
     "             there is no procedure for the data of new nodes\n"
     "             ('data_interpolation' is false, but 'init_data_ptr' is not set)\n"},
    {"no_procedure_for_the_sides",
     [] { Cell* c = insert(centre_vertex(2)); bc_type_ptr = nullptr; insert(proposals_around(c).at(0)); },
     "(Velmar_2D:) ERROR: there is no procedure for the sides\n             ('bc_type_ptr' is not set)\n"},
    {"odd_removal_of_no_node", [] { Cell* c = nullptr; remove_node_odd_level(c); }, no_node},
    {"even_removal_of_no_node", [] { Cell* c = nullptr; remove_node_even_level(c); }, no_node},
};
// clang-format on

class Messages : public testing::TestWithParam<Case> {};

TEST_P(Messages, TextAndExitStatus) {
  const ChildEnd end = run_in_child([] {
    level_max = -1;  // as in a new process, whatever ran before in this one
    init_data_ptr = nullptr;
    GetParam().code();
  });
  EXPECT_EQ(end.output, GetParam().output);
  EXPECT_EQ(end.exit_status, GetParam().exit_status);
}

// The same ends, left by an exception instead: in this process, so that a sanitizer sees it all.
TEST_P(Messages, TheLibraryGoesOnAfterAnException) {
  const Case& fatal_case = GetParam();
  if (fatal_case.exit_status == 0) return;
  std::string output;
  message_handler = [&](std::string_view text) { output += std::string(text) + "\n"; };
  fatal_handler = [&](std::string_view text) {
    throw std::runtime_error(std::string(text) + "\n");
  };
  level_max = -1;
  const std::int64_t id_before = next_id;
  try {
    fatal_case.code();
    ADD_FAILURE() << "came back";
  } catch (const std::runtime_error& end) {
    EXPECT_EQ(output + end.what(), fatal_case.output);
  }
  const std::int32_t nodes = nb_nodes;
  std::vector<Finding> findings;
  if (level_beg.size() == level_end.size()) {
    check_mesh(findings);
    for (const Finding& finding : findings) EXPECT_EQ(finding.rule, "side") << finding.text;
  }
  level_beg.resize(1);  // two cases have deleted them
  level_end.resize(1);
  output.clear();
  delete_mesh();
  EXPECT_EQ(output, deleted(nodes));
  n_cell_data = 0;
  data_interpolation = true;
  next_id = id_before;
  unit_init(3, 3, 4);
  update_mesh_no_init(scenarios::even_spacing(dist_0 / 2.0));
  EXPECT_GT(nb_nodes, 9);
  EXPECT_EQ(check_mesh(findings), 0U);
  delete_mesh();
  fatal_handler = message_handler = nullptr;
}

std::string name_of(const testing::TestParamInfo<Case>& tested) { return tested.param.name; }
INSTANTIATE_TEST_SUITE_P(InitMesh, Messages, testing::ValuesIn(init_mesh_cases), name_of);
INSTANTIATE_TEST_SUITE_P(Mesh, Messages, testing::ValuesIn(mesh_cases), name_of);
INSTANTIATE_TEST_SUITE_P(Nodes, Messages, testing::ValuesIn(node_cases), name_of);

}  // namespace
}  // namespace velmar_2d::tests
