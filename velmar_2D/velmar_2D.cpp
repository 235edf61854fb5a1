// The free procedures and the library-wide variables: the window of one default mesh.
#include "velmar_2D/velmar_2D.hpp"

#include "velmar_2D/check/check.hpp"
#include "velmar_2D/find/find.hpp"
#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d {

namespace detail {

namespace {

/// Never destroyed: what ends after main() may still use the mesh.
union DefaultMesh {
  DefaultMesh() : state() {}
  DefaultMesh(const DefaultMesh&) = delete;
  DefaultMesh& operator=(const DefaultMesh&) = delete;
  ~DefaultMesh() {}  // NOLINT(modernize-use-equals-default): it would be deleted
  State state;
};

// Made before the objects of other files, whose constructors may set n_cell_data and the like.
#if defined(__GNUC__)
[[gnu::init_priority(101)]]
#endif
DefaultMesh default_mesh;

}  // namespace

State& default_state() { return default_mesh.state; }

}  // namespace detail

// ---------------------------------------------------------------------------------------------
// Variables
// ---------------------------------------------------------------------------------------------

Cell*& mesh_beg = detail::default_mesh.state.mesh_beg;
Cell*& mesh_end = detail::default_mesh.state.mesh_end;
std::vector<Handle>& level_beg = detail::default_mesh.state.level_beg;
std::vector<Handle>& level_end = detail::default_mesh.state.level_end;
std::vector<Handle>& tmp_beg = detail::default_mesh.state.tmp_beg;
std::vector<Handle>& tmp_end = detail::default_mesh.state.tmp_end;
std::array<std::int32_t, 2>& level_range = detail::default_mesh.state.level_range;
std::int32_t& level_max = detail::default_mesh.state.level_max;
std::int64_t& next_id = detail::default_mesh.state.next_id;
std::int32_t& nb_nodes = detail::default_mesh.state.nb_nodes;
std::uint64_t& mesh_revision = detail::default_mesh.state.mesh_revision;
UpdateStatistics& update_statistics = detail::default_mesh.state.update_statistics;
std::int32_t& n_cell_data = detail::default_mesh.state.n_cell_data;
double& x_min = detail::default_mesh.state.domain.x_min;
double& y_min = detail::default_mesh.state.domain.y_min;
double& dist_0 = detail::default_mesh.state.domain.dist_0;
double& grad_data = detail::default_mesh.state.grad_data;
double& grad2_data = detail::default_mesh.state.grad2_data;
bool& data_interpolation = detail::default_mesh.state.data_interpolation;
Transfer& data_transfer = detail::default_mesh.state.transfer;
NodeHooks& node_hooks = detail::default_mesh.state.hooks;
progress_function& progress_handler = detail::default_mesh.state.progress.handler;
init_data_function& init_data_ptr = detail::default_mesh.state.init_data_ptr;
bc_type_function& bc_type_ptr = detail::default_mesh.state.bc_type_ptr;
text_function& fatal_handler = detail::default_mesh.state.handlers.fatal;
text_function& message_handler = detail::default_mesh.state.handlers.message;
text_function& pause_handler = detail::default_mesh.state.handlers.pause;

Boundary*& north_boundary_dir = detail::default_mesh.state.side_records[0][bc_type_dir];
Boundary*& north_boundary_neu = detail::default_mesh.state.side_records[0][bc_type_neu];
Boundary*& north_boundary_oth = detail::default_mesh.state.side_records[0][bc_type_oth];
Boundary*& east_boundary_dir = detail::default_mesh.state.side_records[1][bc_type_dir];
Boundary*& east_boundary_neu = detail::default_mesh.state.side_records[1][bc_type_neu];
Boundary*& east_boundary_oth = detail::default_mesh.state.side_records[1][bc_type_oth];
Boundary*& south_boundary_dir = detail::default_mesh.state.side_records[2][bc_type_dir];
Boundary*& south_boundary_neu = detail::default_mesh.state.side_records[2][bc_type_neu];
Boundary*& south_boundary_oth = detail::default_mesh.state.side_records[2][bc_type_oth];
Boundary*& west_boundary_dir = detail::default_mesh.state.side_records[3][bc_type_dir];
Boundary*& west_boundary_neu = detail::default_mesh.state.side_records[3][bc_type_neu];
Boundary*& west_boundary_oth = detail::default_mesh.state.side_records[3][bc_type_oth];

// ---------------------------------------------------------------------------------------------
// Procedures
// ---------------------------------------------------------------------------------------------

namespace {

detail::State& state() { return detail::default_mesh.state; }

}  // namespace

void init_mesh(bc_type_function bc_type, std::int32_t nx, std::int32_t ny, std::int32_t subdiv_max,
               double& y_max) {
  const detail::MeshChange change(state(), "init_mesh", false);
  detail::init_mesh(state(), std::move(bc_type), nx, ny, subdiv_max, y_max);
}

void update_mesh_init(const size_function& size_fun, init_data_function init_data) {
  const detail::MeshChange change(state(), "update_mesh_init");
  detail::update_mesh_init(state(), size_fun, std::move(init_data));
}

void update_mesh_no_init(const size_function& size_fun) {
  const detail::MeshChange change(state(), "update_mesh_no_init");
  detail::update_mesh_no_init(state(), size_fun);
}

void update_mesh_init_batched(const batch_size_function& size_fun, init_data_function init_data) {
  const detail::MeshChange change(state(), "update_mesh_init_batched");
  detail::update_mesh_init(state(), size_fun, std::move(init_data));
}

void update_mesh_no_init_batched(const batch_size_function& size_fun) {
  const detail::MeshChange change(state(), "update_mesh_no_init_batched");
  detail::update_mesh_no_init(state(), size_fun);
}

void resolve_mesh_init(const size_function& size_fun, init_data_function init_data,
                       const Resolution& resolution) {
  const detail::MeshChange change(state(), "resolve_mesh_init");
  detail::resolve_mesh_init(state(), size_fun, std::move(init_data), resolution);
}

void resolve_mesh_no_init(const size_function& size_fun, const Resolution& resolution) {
  const detail::MeshChange change(state(), "resolve_mesh_no_init");
  detail::resolve_mesh_no_init(state(), size_fun, resolution);
}

void resolve_mesh_init_batched(const batch_size_function& size_fun, init_data_function init_data,
                               const Resolution& resolution) {
  const detail::MeshChange change(state(), "resolve_mesh_init_batched");
  detail::resolve_mesh_init(state(), size_fun, std::move(init_data), resolution);
}

void resolve_mesh_no_init_batched(const batch_size_function& size_fun,
                                  const Resolution& resolution) {
  const detail::MeshChange change(state(), "resolve_mesh_no_init_batched");
  detail::resolve_mesh_no_init(state(), size_fun, resolution);
}

void set_subdiv_max(std::int32_t subdiv_max) {
  const detail::MeshChange change(state(), "set_subdiv_max");
  detail::set_subdiv_max(state(), subdiv_max);
}

std::int32_t get_subdiv_max() { return state().level_max; }

void delete_mesh() {
  const detail::MeshChange change(state(), "delete_mesh", false);
  detail::delete_mesh(state());
}

void split_sublists() {
  const detail::MeshChange change(state(), "split_sublists");
  detail::split_sublists(state());
}

void join_sublists() {
  const detail::MeshChange change(state(), "join_sublists");
  detail::join_sublists(state());
}

void build_vertex(Cell* c, std::array<Vertex, 4>& vertex_list, std::int32_t& n) {
  detail::build_vertex(state(), *c, vertex_list, n);
}

void insert_node_odd_level(const Vertex& v) {
  const detail::MeshChange change(state(), "insert_node_odd_level");
  const detail::RemapAtEnd remap_at_end(state());
  detail::insert_node_odd_level(state(), v);
}

void insert_node_even_level(const Vertex& v) {
  const detail::MeshChange change(state(), "insert_node_even_level");
  const detail::RemapAtEnd remap_at_end(state());
  detail::insert_node_even_level(state(), v);
}

void remove_node_odd_level(Cell*& c) {
  const detail::MeshChange change(state(), "remove_node_odd_level");
  const detail::RemapAtEnd remap_at_end(state());
  detail::remove_node_odd_level(state(), c);
}

void remove_node_even_level(Cell*& c) {
  const detail::MeshChange change(state(), "remove_node_even_level");
  const detail::RemapAtEnd remap_at_end(state());
  detail::remove_node_even_level(state(), c);
}

void compute_data_at_node(Cell* c, double* dfdx, double* dfdy) {
  detail::Workspace work;
  detail::compute_data_at_node(state(), work, c, dfdx, dfdy);
}

void compute_data_at_all_nodes(int threads) {
  const detail::InUse in_use(state(), "compute_data_at_all_nodes");
  detail::compute_data_at_all_nodes(state(), threads);
}

void cell_type(Cell* c, std::int32_t& type, std::int32_t& shift) {
  detail::cell_type(state(), *c, type, shift);
}

double cell_area(Cell* c) { return detail::cell_area(state(), *c); }

void cell_faces(const Cell* c, CellFaces& faces) { detail::cell_faces(state(), *c, faces); }

void cell_polygon(const Cell* c, std::array<Point, max_cell_corners>& corners, std::int32_t& n) {
  detail::cell_polygon(state(), *c, corners, n);
}

Cell* locate(double x, double y, const Cell* start) {
  return const_cast<Cell*>(detail::locate(state(), {x, y}, start));
}

double value_at(double x, double y, std::int32_t value, Interpolation how, const Cell* start) {
  return detail::value_at(state(), {x, y}, value, how, start);
}

void line_cut(Point a, Point b, std::vector<LinePiece>& pieces) {
  detail::line_cut(state(), a, b, pieces);
}

std::size_t check_mesh(std::vector<Finding>& findings) {
  return detail::check_mesh(state(), findings);
}

}  // namespace velmar_2d
