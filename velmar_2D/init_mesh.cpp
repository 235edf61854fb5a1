// Making the uniform grid of level 0.
#include <cmath>
#include <string>

#include "velmar_2D/internal.hpp"

namespace velmar_2d {

namespace {

using namespace detail;

/// The cells count as squares where width and height agree within this fraction of the width:
/// ten times the machine epsilon, the rounding of the divisions that give them.
constexpr double square_tolerance = 2.220446049250313e-15;

/// Covers the rounding of positions when the length of a link is compared with dist_0.
constexpr double link_length_margin = 1e-3;

/// Of the largest coordinate. In smaller cells the rounding of coordinates, 1e-16 of them, would
/// exceed a thousandth of the cell, and soon after two nodes would have one position.
constexpr double smallest_cell = 1e-13;

struct SideName {
  Boundary* const* dir;
  std::string_view record;
};

constexpr std::array<SideName, 4> sides = {{{&north_boundary_dir, "North_Boundary_Dir"},
                                            {&east_boundary_dir, "East_Boundary_Dir"},
                                            {&south_boundary_dir, "South_Boundary_Dir"},
                                            {&west_boundary_dir, "West_Boundary_Dir"}}};

void check_side_records() {
  for (const SideName& side : sides) {
    if (*side.dir != nullptr) continue;
    fatal("(velmar_2D/init_mesh:) ERROR: " + std::string(side.record) +
          " was not allocated!\n"
          "        (The four Dirichlet condition are always nedded,\n"
          "         even not used by the user.)");
  }
}

void check_limit(std::int32_t subdiv_max) {
  if (subdiv_max < 0) {
    fatal(
        "(velmar_2D/init_mesh:) ERROR: arg 'subdiv_max' < 0 !\n"
        "        ('subdiv_max' is used to define the number of levels\n"
        "         for subdividing the mesh cells. It must be positive.)");
  }
  check_subdiv_max("init_mesh", subdiv_max);
  if (subdiv_max == 0) {
    message(
        "(velmar_2D/init_mesh:) Warning: arg 'subdiv_max' = 0 !\n"
        "    the mesh will not be able to be refined...");
  }
}

/// Moves the north side so that cells of the given height fit.
void move_north_side(double& y_max) {
  for (Boundary* record : {north_boundary_dir, north_boundary_neu, north_boundary_oth}) {
    if (record != nullptr) record->c = y_max;
  }
  message(
      "(velmar_2D/init_mesh:) Warning: cells must be squared\n"
      "                       North boundary has been moved:");
  pause("                       new y_max = " + to_text(y_max) + " [RETURN] to resume...");
}

/// The link of a node across a side; a selection that leads to no record cannot be worked with.
NeighbourLink checked_side_link(int direction, double x, double y) {
  const NeighbourLink selected = side_link(direction, x, y);
  if (selected.empty()) {
    fatal(
        "(velmar_2D/init_mesh:) ERROR: bad result of 'bc_type'\n"
        "                       it must be 0 (Dirichlet), 1 (Neumann) or 2 (other),\n"
        "                       and the side must have a record of this kind !");
  }
  return selected;
}

/// Makes two nodes straight neighbours: b lies in this direction from a.
void link_both(Cell& a, int direction, Cell& b) {
  link(a, direction) = &b;
  link(b, opposite(direction)) = &a;
}

/// Fields of a grid node that follow from its place. Sides are numbered as their directions.
void set_place(Cell& c) {
  // signature[0] of the corner that a side makes with the next side clockwise
  constexpr std::array<std::uint8_t, 4> corner_signatures = {10, 130, 160, 40};

  const double square = dist_0 * dist_0;
  c.nl = c.el = c.sl = c.wl = 1;
  c.signature_set = true;
  c.area = square;
  c.signature = {170, 170};
  for (const int side : straight_directions) {
    const auto i = static_cast<std::size_t>(side / 2);
    if (link(c, side).boundary() == nullptr) continue;
    if (link(c, side + 2).boundary() != nullptr) {
      c.on_boundary = 2;
      c.reserve = 1;
      c.area = 0.25 * square;
      c.signature = {corner_signatures[i], 0};
      return;
    }
    if (link(c, side - 2).boundary() != nullptr) continue;  // that side handles the corner
    c.on_boundary = 1;
    c.reserve = 2;
    c.area = 0.5 * square;
    c.signature = side_signatures[i];
  }
}

/// Half a grid is no mesh: where the building is left by an exception, its nodes are given back.
struct GridInProgress {
  bool complete = false;
  GridInProgress() = default;
  GridInProgress(const GridInProgress&) = delete;
  GridInProgress& operator=(const GridInProgress&) = delete;
  ~GridInProgress() {
    if (!complete) release_all_nodes();
  }
};

/// Builds the grid row by row from the south-east corner westwards and northwards, so that the
/// list, which grows at its head, runs from the north-west corner eastwards and southwards.
void build_grid(std::int32_t nx, std::int32_t ny, double x_max, double dy) {
  GridInProgress grid;
  Cell* row_start = nullptr;  // eastmost node of the row below
  for (std::int32_t j = 1; j <= ny; ++j) {
    Cell* row_below = row_start;
    Cell* east_neighbour = nullptr;
    for (std::int32_t i = 1; i <= nx; ++i) {
      Cell* c = new_cell(0);
      c->x = i == nx ? x_min : x_max - (i - 1) * dist_0;
      c->y = y_min + (j - 1) * dy;
      c->next = mesh_beg;
      if (mesh_beg != nullptr) mesh_beg->prev = c;
      mesh_beg = c;
      if (mesh_end == nullptr) mesh_end = c;

      if (j == ny) c->n = checked_side_link(north, c->x, c->y);
      if (i == 1) {
        row_start = c;
        c->e = checked_side_link(east, c->x, c->y);
      } else {
        link_both(*c, east, *east_neighbour);
      }
      if (j == 1) {
        c->s = checked_side_link(south, c->x, c->y);
      } else {
        link_both(*c, south, *row_below);
        row_below = row_below->prev;
      }
      if (i == nx) c->w = checked_side_link(west, c->x, c->y);
      east_neighbour = c;
    }
  }
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) set_place(*c);
  grid.complete = true;
}

}  // namespace

void init_mesh(bc_type_function bc_type, std::int32_t nx, std::int32_t ny, std::int32_t subdiv_max,
               double& y_max) {
  const detail::MeshChange change("init_mesh");
  if (nb_nodes > 0) {
    if (lists_are_split()) join_sublists();
    fatal("(velmar_2D/init_mesh:) ERROR: mesh should be empty!");
  }
  check_side_records();
  bc_type_ptr = std::move(bc_type);
  if (!bc_type_ptr) fatal("(velmar_2D/init_mesh:) ERROR: arg 'bc_type' is no procedure!");
  check_limit(subdiv_max);
  level_max = subdiv_max;
  if (ny < 2 || nx < 2) {
    fatal(
        "(velmar_2D/init_mesh:) ERROR: bad arg 'nx' or 'ny'\n"
        "                       mesh must have at least four elements !");
  }

  x_min = west_boundary_dir->c;
  const double x_max = east_boundary_dir->c;
  y_min = south_boundary_dir->c;
  y_max = north_boundary_dir->c;
  const double dx = (x_max - x_min) / (nx - 1);
  double dy = (y_max - y_min) / (ny - 1);
  // Written so that not-a-number is refused too.
  if (!(dx > 0.0 && dy > 0.0 && std::isfinite(dx) && std::isfinite(dy))) {
    fatal(
        "(velmar_2D/init_mesh:) ERROR: bad arg 'x_min', 'x_max', 'y_min' or 'y_max'\n"
        "                       interval width must be positive!");
  }
  const auto largest_coordinate = [&] {
    return std::max({std::abs(x_min), std::abs(x_max), std::abs(y_min), std::abs(y_max)});
  };
  if (dx < smallest_cell * largest_coordinate()) {
    fatal(
        "(velmar_2D/init_mesh:) ERROR: bad arg 'x_min', 'x_max', 'y_min' or 'y_max'\n"
        "                       the cells are too small for coordinates of this size!");
  }
  if (std::abs(dx - dy) > dx * square_tolerance) {
    dy = dx;
    y_max = (ny - 1) * dx + y_min;
    move_north_side(y_max);
  }
  dist_0 = dx;
  domain.x_max = x_max;
  domain.y_max = y_max;
  domain.largest_coordinate = largest_coordinate();
  domain.longest_link = dist_0 * (1.0 + link_length_margin);
  domain.lattice_is_whole = positions_are_exact();

  level_beg.clear();
  level_end.clear();
  make_level_arrays(level_max);
  mesh_beg = mesh_end = nullptr;
  build_grid(nx, ny, x_max, dy);
  level_beg[0].next = mesh_beg;
  level_end[0].next = mesh_end;
  level_range = {0, 0};
}

}  // namespace velmar_2d
