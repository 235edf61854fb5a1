// Making the uniform grid of level 0.
#include <cmath>
#include <limits>
#include <string>

#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

namespace {

void check_side_records(const State& state) {
  constexpr std::array<std::string_view, 4> names = {"North_Boundary_Dir", "East_Boundary_Dir",
                                                     "South_Boundary_Dir", "West_Boundary_Dir"};
  for (std::size_t side = 0; side < names.size(); ++side) {
    if (state.side_records[side][bc_type_dir] != nullptr) continue;
    fatal(state.handlers, "(velmar_2D/init_mesh:) ERROR: " + std::string(names[side]) +
                              " was not allocated!\n"
                              "        (The four Dirichlet condition are always nedded,\n"
                              "         even not used by the user.)");
  }
}

void check_limit(const State& state, std::int32_t subdiv_max) {
  if (subdiv_max < 0) {
    fatal(state.handlers,
          "(velmar_2D/init_mesh:) ERROR: arg 'subdiv_max' < 0 !\n"
          "        ('subdiv_max' is used to define the number of levels\n"
          "         for subdividing the mesh cells. It must be positive.)");
  }
  check_subdiv_max(state, "init_mesh", subdiv_max, deepest_level);
  if (subdiv_max == 0) {
    message(state.handlers,
            "(velmar_2D/init_mesh:) Warning: arg 'subdiv_max' = 0 !\n"
            "    the mesh will not be able to be refined...");
  }
}

/// Moves the north side so that cells of the given height fit.
void move_north_side(const State& state, double y_max) {
  for (Boundary* record : state.side_records[0]) {
    if (record != nullptr) record->c = y_max;
  }
  if (state.handlers.of_object()) return;  // it was moved by rounding at most, see Mesh()
  message(state.handlers,
          "(velmar_2D/init_mesh:) Warning: cells must be squared\n"
          "                       North boundary has been moved:");
  pause(state.handlers,
        "                       new y_max = " + to_text(y_max) + " [RETURN] to resume...");
}

/// The link of a node across a side; a selection that leads to no record cannot be worked with.
NeighbourLink checked_side_link(const State& state, int direction, double x, double y) {
  const NeighbourLink selected = side_link(state, direction, x, y);
  if (selected.empty()) {
    fatal(state.handlers,
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
void set_place(Cell& c, double dist_0) {
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
  State& state;
  bool complete = false;
  explicit GridInProgress(State& state_of_mesh) : state(state_of_mesh) {}
  GridInProgress(const GridInProgress&) = delete;
  GridInProgress& operator=(const GridInProgress&) = delete;
  ~GridInProgress() {
    if (!complete) release_all_nodes(state);
  }
};

/// Where the lines of the grid lie, counted from the lower left corner of the frame.
struct GridLines {
  const Domain& domain;
  std::int32_t nx;
  double dy;

  double x(std::int32_t column) const {
    const Frame& frame = domain.frame;
    return column == 0 ? frame.x_min : frame.x_max - (nx - 1 - column) * domain.dist_0;
  }
  double y(std::int32_t row) const { return domain.frame.y_min + row * dy; }
};

/// A window of the frame becomes the domain; where it ends inside, it has no sides but cuts.
void open_window(State& state, const GridLines& lines, std::int32_t ny, const Window& window) {
  if (window.west < 0 || window.east >= lines.nx || window.west >= window.east ||
      window.south < 0 || window.north >= ny || window.south >= window.north) {
    fatal(state.handlers,
          "(velmar_2D/init_mesh:) ERROR: bad window\n"
          "                       it must be at least one cell of the grid wide and high,\n"
          "                       and lie within the grid !");
  }
  Domain& domain = state.domain;
  const std::array<bool, 4> is_cut = {
      window.north<ny - 1, window.east<lines.nx - 1, window.south> 0, window.west> 0};
  if (is_cut[0]) domain.y_max = lines.y(window.north);
  if (is_cut[1]) domain.x_max = lines.x(window.east);
  if (is_cut[2]) domain.y_min = lines.y(window.south);
  if (is_cut[3]) domain.x_min = lines.x(window.west);
  for (std::size_t side = 0; side < is_cut.size(); ++side) {
    state.own_side_records[side][bc_type_cut] = {0.0, bc_type_cut};
    state.side_records[side][bc_type_cut] =
        is_cut[side] ? &state.own_side_records[side][bc_type_cut] : nullptr;
  }
}

/// Builds the grid row by row from the south-east corner westwards and northwards, so that the
/// list, which grows at its head, runs from the north-west corner eastwards and southwards.
void build_grid(State& state, const GridLines& lines, const Window& window) {
  GridInProgress grid(state);
  const std::int32_t nx = window.east - window.west + 1, ny = window.north - window.south + 1;
  Cell* row_start = nullptr;  // eastmost node of the row below
  for (std::int32_t j = 1; j <= ny; ++j) {
    Cell* row_below = row_start;
    Cell* east_neighbour = nullptr;
    for (std::int32_t i = 1; i <= nx; ++i) {
      Cell* c = new_cell(state, 0);
      c->x = lines.x(window.east + 1 - i);
      c->y = lines.y(window.south - 1 + j);
      c->next = state.mesh_beg;
      if (state.mesh_beg != nullptr) state.mesh_beg->prev = c;
      state.mesh_beg = c;
      if (state.mesh_end == nullptr) state.mesh_end = c;

      if (j == ny) c->n = checked_side_link(state, north, c->x, c->y);
      if (i == 1) {
        row_start = c;
        c->e = checked_side_link(state, east, c->x, c->y);
      } else {
        link_both(*c, east, *east_neighbour);
      }
      if (j == 1) {
        c->s = checked_side_link(state, south, c->x, c->y);
      } else {
        link_both(*c, south, *row_below);
        row_below = row_below->prev;
      }
      if (i == nx) c->w = checked_side_link(state, west, c->x, c->y);
      east_neighbour = c;
    }
  }
  for (Cell* c = state.mesh_beg; c != nullptr; c = c->next) set_place(*c, state.domain.dist_0);
  grid.complete = true;
}

/// Ends the process if there are more nodes than can be counted.
void check_number_of_nodes(const State& state, std::int32_t nx, std::int32_t ny) {
  constexpr std::int64_t most_nodes = std::numeric_limits<std::int32_t>::max();
  if (std::int64_t{nx} * ny <= most_nodes) return;
  fatal(state.handlers,
        "(velmar_2D/init_mesh:) ERROR: bad arg 'nx' or 'ny'\n"
        "                       " +
            std::to_string(std::int64_t{nx} * ny) + " nodes are more than the " +
            std::to_string(most_nodes) + " that can be counted !");
}

}  // namespace

void init_mesh(State& state, bc_type_function bc_type, std::int32_t nx, std::int32_t ny,
               std::int32_t subdiv_max, double& y_max, const Window* window) {
  if (state.nb_nodes > 0) {
    if (state.lists_are_split()) join_sublists(state);
    fatal(state.handlers, "(velmar_2D/init_mesh:) ERROR: mesh should be empty!");
  }
  check_side_records(state);
  state.bc_type_ptr = std::move(bc_type);
  if (!state.bc_type_ptr) {
    fatal(state.handlers, "(velmar_2D/init_mesh:) ERROR: arg 'bc_type' is no procedure!");
  }
  check_limit(state, subdiv_max);
  state.level_max = subdiv_max;
  state.candidate_order = CandidateOrder::by_age;
  if (ny < 2 || nx < 2) {
    fatal(state.handlers,
          "(velmar_2D/init_mesh:) ERROR: bad arg 'nx' or 'ny'\n"
          "                       mesh must have at least four elements !");
  }
  const Window all{0, nx - 1, 0, ny - 1};
  if (window == nullptr) {
    check_number_of_nodes(state, nx, ny);
    window = &all;
  }

  Domain& domain = state.domain;
  domain.y_max = state.side_records[0][bc_type_dir]->c;
  domain.x_max = state.side_records[1][bc_type_dir]->c;
  domain.y_min = state.side_records[2][bc_type_dir]->c;
  domain.x_min = state.side_records[3][bc_type_dir]->c;
  y_max = domain.y_max;
  const double dx = (domain.x_max - domain.x_min) / (nx - 1);
  double dy = (domain.y_max - domain.y_min) / (ny - 1);
  // Written so that not-a-number is refused too.
  if (!(dx > 0.0 && dy > 0.0 && std::isfinite(dx) && std::isfinite(dy))) {
    fatal(state.handlers,
          "(velmar_2D/init_mesh:) ERROR: bad arg 'x_min', 'x_max', 'y_min' or 'y_max'\n"
          "                       interval width must be positive!");
  }
  const auto largest_coordinate = [&domain] {
    return std::max({std::abs(domain.x_min), std::abs(domain.x_max), std::abs(domain.y_min),
                     std::abs(domain.y_max)});
  };
  if (dx < smallest_cell * largest_coordinate()) {
    fatal(state.handlers,
          "(velmar_2D/init_mesh:) ERROR: bad arg 'x_min', 'x_max', 'y_min' or 'y_max'\n"
          "                       the cells are too small for coordinates of this size!");
  }
  if (dx < smallest_dist_0 || largest_coordinate() > farthest_coordinate) {
    fatal(state.handlers,
          "(velmar_2D/init_mesh:) ERROR: bad arg 'x_min', 'x_max', 'y_min' or 'y_max'\n"
          "                       cells must be " +
              to_text(smallest_dist_0) + " wide or more, and coordinates " +
              to_text(farthest_coordinate) +
              " or less:\n"
              "                       choose another unit of length!");
  }
  const bool north_side_moves = std::abs(dx - dy) > dx * square_tolerance;
  if (north_side_moves) {
    dy = dx;
    domain.y_max = (ny - 1) * dx + domain.y_min;
  }
  domain.dist_0 = dx;
  domain.largest_coordinate = largest_coordinate();
  domain.deepest_level = deepest_level_of(domain);
  check_subdiv_max(state, "init_mesh", subdiv_max, domain.deepest_level);
  if (north_side_moves) move_north_side(state, y_max = domain.y_max);
  set_regular(domain);
  domain.frame = {domain.x_min, domain.y_min, domain.x_max, domain.y_max};
  const GridLines lines{domain, nx, dy};
  open_window(state, lines, ny, *window);

  state.level_beg.clear();
  state.level_end.clear();
  make_level_arrays(state, state.level_max);
  state.mesh_beg = state.mesh_end = nullptr;
  build_grid(state, lines, *window);
  state.level_beg[0].next = state.mesh_beg;
  state.level_end[0].next = state.mesh_end;
  state.level_range = {0, 0};
}

}  // namespace velmar_2d::detail
