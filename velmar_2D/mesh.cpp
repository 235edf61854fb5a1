// The mesh as an object.
#include "velmar_2D/mesh.hpp"

#include <cmath>
#include <limits>
#include <string>

#include "velmar_2D/check/check.hpp"
#include "velmar_2D/find/find.hpp"
#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d {

namespace {

using detail::State;

[[noreturn]] void refuse(const std::string& text) {
  throw Error("(velmar_2D/Mesh:) ERROR: " + text);
}

void set_rectangle(State& state, const Rectangle& r) {
  const std::array<double, 4> sides = {r.y_max, r.x_max, r.y_min, r.x_min};
  for (std::size_t side = 0; side < sides.size(); ++side) {
    for (std::int32_t kind = bc_type_dir; kind <= bc_type_oth; ++kind) {
      const auto k = static_cast<std::size_t>(kind);
      state.own_side_records[side][k] = {kind == bc_type_dir ? sides[side] : 0.0, kind};
      state.side_records[side][k] = &state.own_side_records[side][k];
    }
  }
}

/// What an update was given to fill new nodes with is forgotten with it.
class ForgetInitData {
 public:
  explicit ForgetInitData(State& state) : state_(state) {}
  ForgetInitData(const ForgetInitData&) = delete;
  ForgetInitData& operator=(const ForgetInitData&) = delete;
  ~ForgetInitData() {
    state_.init_data_ptr = nullptr;
    state_.data_interpolation = true;
  }

 private:
  State& state_;
};

/// What the default mesh was given belongs to its variables and stays.
template <typename Update>
UpdateStatistics updated(State& state, std::string_view operation, const Update& update) {
  const detail::MeshChange change(state, operation);
  if (&state == &detail::default_state()) {
    update();
  } else {
    const ForgetInitData forget(state);
    update();
  }
  return state.update_statistics;
}

template <typename Node>
NodeRange<Node> all_nodes(const State& state) {
  if (!state.lists_are_split()) return {state.mesh_beg, nullptr};
  return {nullptr, nullptr, state.level_beg};
}

template <typename Node>
NodeRange<Node> nodes_of_level(const State& state, std::int32_t level) {
  const auto stretch = static_cast<std::size_t>(level);
  if (level < 0 || stretch >= state.level_beg.size()) return {nullptr, nullptr};
  Cell* first = state.level_beg[stretch].next;
  return {first, first == nullptr ? nullptr : state.level_end[stretch].next->next};
}

}  // namespace

std::int32_t rows_of(const Rectangle& r, const Grid& grid) {
  if (grid.nx < 2 || grid.ny < 0 || grid.ny == 1) {
    refuse("nx and ny must be at least 2, not " + std::to_string(grid.nx) + " and " +
           std::to_string(grid.ny));
  }
  const double width = r.x_max - r.x_min, height = r.y_max - r.y_min;
  if (!(width > 0.0 && height > 0.0 && std::isfinite(width) && std::isfinite(height))) {
    refuse("the rectangle from (" + detail::to_text(r.x_min) + ", " + detail::to_text(r.y_min) +
           ") to (" + detail::to_text(r.x_max) + ", " + detail::to_text(r.y_max) +
           ") must have a width and a height above 0");
  }
  const double square = width / (grid.nx - 1);
  const double squares = grid.ny > 0 ? grid.ny - 1 : std::max(1.0, std::round(height / square));
  // Far from the origin width and height carry the rounding of the coordinates.
  const double rounding =
      std::numeric_limits<double>::epsilon() *
      (std::max(std::abs(r.x_min), std::abs(r.x_max)) * squares / (grid.nx - 1) +
       std::max(std::abs(r.y_min), std::abs(r.y_max)));
  if (std::abs(height - squares * square) > detail::height_tolerance * height + rounding) {
    refuse("the height " + detail::to_text(height) + " is not " +
           (grid.ny > 0 ? std::to_string(grid.ny - 1) + " squares" : "a whole number of squares") +
           " of width " + detail::to_text(square) + "; " + detail::to_text(squares * square) +
           " would be");
  }
  if (squares + 1.0 > std::numeric_limits<std::int32_t>::max()) {
    refuse("the grid has too many nodes along y");
  }
  return static_cast<std::int32_t>(squares) + 1;
}

bc_type_function same_kind(std::int32_t kind) {
  return [kind](double, double, std::string_view) { return kind; };
}

bc_type_function kind_by_side(std::int32_t north, std::int32_t east, std::int32_t south,
                              std::int32_t west) {
  return [=](double, double, std::string_view side) {
    switch (side.front()) {
      case 'N': return north;
      case 'E': return east;
      case 'S': return south;
      default: return west;
    }
  };
}

void detail::StateDeleter::operator()(State* state) const {
  if (state != &default_state()) delete_state(state);
}

Mesh& default_mesh() {
  static Mesh mesh(&detail::default_state());
  return mesh;
}

State& Mesh::state() const {
  if (state_ == nullptr) refuse("this mesh has been moved away");
  return *state_;
}

// ---------------------------------------------------------------------------------------------
// Making and adapting
// ---------------------------------------------------------------------------------------------

Mesh::Mesh(const Rectangle& rectangle, const Grid& grid) : Mesh(rectangle, grid, nullptr) {}

Mesh::Mesh(const Rectangle& rectangle, const Grid& grid, const Window* window) : state_(new State) {
  State& made = *state_;
  made.handlers.defaults = &detail::default_state().handlers;
  const std::int32_t ny = rows_of(rectangle, grid);
  if (grid.n_cell_data < 0) refuse("n_cell_data is negative");
  set_rectangle(made, rectangle);
  made.n_cell_data = grid.n_cell_data;
  double upper_y = 0.0;
  const detail::MeshChange change(made, "Mesh", false);
  detail::init_mesh(made, grid.bc_type ? grid.bc_type : same_kind(bc_type_dir), grid.nx, ny,
                    grid.subdiv_max, upper_y, window);
}

UpdateStatistics Mesh::update(const size_function& size) {
  return updated(state(), "update", [&] { detail::update_mesh_no_init(state(), size); });
}

UpdateStatistics Mesh::update(const size_function& size, init_data_function init_data) {
  return updated(state(), "update",
                 [&] { detail::update_mesh_init(state(), size, std::move(init_data)); });
}

UpdateStatistics Mesh::update_batched(const batch_size_function& sizes) {
  return updated(state(), "update_batched", [&] { detail::update_mesh_no_init(state(), sizes); });
}

UpdateStatistics Mesh::update_batched(const batch_size_function& sizes,
                                      init_data_function init_data) {
  return updated(state(), "update_batched",
                 [&] { detail::update_mesh_init(state(), sizes, std::move(init_data)); });
}

UpdateStatistics Mesh::resolve(const size_function& size, const Resolution& resolution) {
  return updated(state(), "resolve",
                 [&] { detail::resolve_mesh_no_init(state(), size, resolution); });
}

UpdateStatistics Mesh::resolve(const size_function& size, init_data_function init_data,
                               const Resolution& resolution) {
  return updated(state(), "resolve", [&] {
    detail::resolve_mesh_init(state(), size, std::move(init_data), resolution);
  });
}

UpdateStatistics Mesh::resolve_batched(const batch_size_function& sizes,
                                       const Resolution& resolution) {
  return updated(state(), "resolve_batched",
                 [&] { detail::resolve_mesh_no_init(state(), sizes, resolution); });
}

UpdateStatistics Mesh::resolve_batched(const batch_size_function& sizes,
                                       init_data_function init_data, const Resolution& resolution) {
  return updated(state(), "resolve_batched", [&] {
    detail::resolve_mesh_init(state(), sizes, std::move(init_data), resolution);
  });
}

Transfer Mesh::transfer() const { return state().transfer; }
void Mesh::set_transfer(Transfer transfer) { state().transfer = transfer; }
void Mesh::set_progress_handler(progress_function handler, double seconds) {
  state().progress.handler = std::move(handler);
  state().progress.seconds_between_calls = seconds;
}
void Mesh::set_node_hooks(NodeHooks hooks) { state().hooks = std::move(hooks); }

const UpdateStatistics& Mesh::statistics() const { return state().update_statistics; }

std::int32_t Mesh::limit() const { return state().level_max; }

void Mesh::set_limit(std::int32_t limit) {
  if (limit < 0 && &state() != &detail::default_state()) refuse("the limit is negative");
  const detail::MeshChange change(state(), "set_limit");
  detail::set_subdiv_max(state(), limit);
}

// ---------------------------------------------------------------------------------------------
// Nodes
// ---------------------------------------------------------------------------------------------

NodeRange<Cell> Mesh::nodes() { return all_nodes<Cell>(state()); }
NodeRange<const Cell> Mesh::nodes() const { return all_nodes<const Cell>(state()); }
NodeRange<Cell> Mesh::nodes(std::int32_t level) { return nodes_of_level<Cell>(state(), level); }
NodeRange<const Cell> Mesh::nodes(std::int32_t level) const {
  return nodes_of_level<const Cell>(state(), level);
}
std::int64_t Mesh::size() const { return state().nb_nodes; }
std::uint64_t Mesh::revision() const { return state().mesh_revision; }
std::int32_t Mesh::n_cell_data() const { return state().n_cell_data; }
std::int64_t Mesh::next_id() const { return state().next_id; }

// ---------------------------------------------------------------------------------------------
// The domain
// ---------------------------------------------------------------------------------------------

Rectangle Mesh::rectangle() const { return {x_min(), x_max(), y_min(), y_max()}; }
double Mesh::x_min() const { return state().domain.x_min; }
double Mesh::x_max() const { return state().domain.x_max; }
double Mesh::y_min() const { return state().domain.y_min; }
double Mesh::y_max() const { return state().domain.y_max; }
double Mesh::dist_0() const { return state().domain.dist_0; }
double Mesh::spacing_of_level(std::int32_t level) const {
  return state().domain.dist_0 / std::exp2(level / 2.0);
}

Boundary& Mesh::side_record(Direction side, std::int32_t kind) {
  const auto direction = static_cast<std::int32_t>(side);
  if (direction % 2 != 0) refuse("a diagonal direction has no side");
  if (kind < bc_type_dir || kind > bc_type_oth) {
    refuse("a kind of side must be 0, 1 or 2, not " + std::to_string(kind));
  }
  Boundary* record =
      state().side_records[static_cast<std::size_t>(direction / 2)][static_cast<std::size_t>(kind)];
  if (record == nullptr) refuse("the side has no record of this kind");
  return *record;
}
const Boundary& Mesh::side_record(Direction side, std::int32_t kind) const {
  return const_cast<Mesh*>(this)->side_record(side, kind);
}

// ---------------------------------------------------------------------------------------------
// Derivatives and control cells
// ---------------------------------------------------------------------------------------------

Gradient Mesh::compute_derivatives(Cell& c) const {
  Gradient gradient;
  detail::Workspace work;
  detail::compute_data_at_node(state(), work, &c, &gradient.dfdx, &gradient.dfdy);
  return gradient;
}

void Mesh::compute_derivatives(int threads) {
  const detail::InUse in_use(state(), "compute_derivatives");
  detail::compute_data_at_all_nodes(state(), threads);
}

double Mesh::area(Cell& c) const { return detail::cell_area(state(), c); }

CellFaces Mesh::faces(const Cell& c) const {
  CellFaces faces;
  detail::cell_faces(state(), c, faces);
  return faces;
}

CellPolygon Mesh::polygon(const Cell& c) const {
  CellPolygon polygon;
  detail::cell_polygon(state(), c, polygon.corners, polygon.n);
  return polygon;
}

CellShape Mesh::shape(Cell& c) const {
  CellShape shape;
  detail::cell_type(state(), c, shape.type, shape.shift);
  return shape;
}

// ---------------------------------------------------------------------------------------------
// Values anywhere
// ---------------------------------------------------------------------------------------------

Cell* Mesh::locate(double x, double y, const Cell* start) {
  return const_cast<Cell*>(detail::locate(state(), {x, y}, start));
}

const Cell* Mesh::locate(double x, double y, const Cell* start) const {
  return detail::locate(state(), {x, y}, start);
}

std::vector<const Cell*> Mesh::locate(std::span<const Point> points) const {
  std::vector<const Cell*> found = detail::make_table<const Cell*>(state(), points.size());
  detail::locate_many(state(), points, found);
  return found;
}

double Mesh::value_at(double x, double y, std::int32_t value, Interpolation how,
                      const Cell* start) const {
  return detail::value_at(state(), {x, y}, value, how, start);
}

std::vector<double> Mesh::values_at(std::span<const Point> points, Interpolation how) const {
  const auto nb_values = static_cast<std::size_t>(std::max(0, n_cell_data()));
  std::vector<double> values = detail::make_table<double>(state(), points.size() * nb_values);
  detail::values_at(state(), points, how, values);
  return values;
}

std::vector<LinePiece> Mesh::line_cut(Point a, Point b) const {
  std::vector<LinePiece> pieces;
  detail::line_cut(state(), a, b, pieces);
  return pieces;
}

Triangulation Mesh::triangulation() const {
  Triangulation result;
  detail::triangulate(state(), result);
  return result;
}

std::int64_t transfer(const Mesh& from, Mesh& to, Interpolation how) {
  return detail::transfer(from.state(), to.state(), how);
}

std::int64_t transfer_conservative(const Mesh& from, Mesh& to) {
  return detail::transfer_conservative(from.state(), to.state());
}

// ---------------------------------------------------------------------------------------------
// Checking, single steps, texts
// ---------------------------------------------------------------------------------------------

std::vector<Finding> Mesh::check() const {
  std::vector<Finding> findings;
  detail::check_mesh(state(), findings);
  return findings;
}

Proposals Mesh::build_vertex(Cell& c) const {
  Proposals proposals;
  detail::build_vertex(state(), c, proposals.vertices, proposals.n);
  return proposals;
}

Cell& Mesh::insert_node_odd_level(const Vertex& v) {
  const detail::MeshChange change(state(), "insert_node_odd_level");
  const detail::RemapAtEnd remap_at_end(state());
  return detail::insert_node_odd_level(state(), v);
}

Cell& Mesh::insert_node_even_level(const Vertex& v) {
  const detail::MeshChange change(state(), "insert_node_even_level");
  const detail::RemapAtEnd remap_at_end(state());
  return detail::insert_node_even_level(state(), v);
}

bool Mesh::remove_node_odd_level(Cell& c) {
  const detail::MeshChange change(state(), "remove_node_odd_level");
  const detail::RemapAtEnd remap_at_end(state());
  Cell* node = &c;
  detail::remove_node_odd_level(state(), node);
  return node == nullptr;
}

bool Mesh::remove_node_even_level(Cell& c) {
  const detail::MeshChange change(state(), "remove_node_even_level");
  const detail::RemapAtEnd remap_at_end(state());
  Cell* node = &c;
  detail::remove_node_even_level(state(), node);
  return node == nullptr;
}

void Mesh::split_sublists() {
  const detail::MeshChange change(state(), "split_sublists");
  detail::split_sublists(state());
}

void Mesh::join_sublists() {
  const detail::MeshChange change(state(), "join_sublists");
  detail::join_sublists(state());
}

// A handler that replaced itself would go on in what is no more.
void Mesh::set_message_handler(text_function handler) {
  detail::require_no_use(state(), "set_message_handler");
  state().handlers.message = std::move(handler);
}
void Mesh::set_fatal_handler(text_function handler) {
  detail::require_no_use(state(), "set_fatal_handler");
  state().handlers.fatal = std::move(handler);
}
void Mesh::set_pause_handler(text_function handler) {
  detail::require_no_use(state(), "set_pause_handler");
  state().handlers.pause = std::move(handler);
}

}  // namespace velmar_2d
