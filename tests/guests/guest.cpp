// A solver author's first program, built by each guest project in its own way. It fails where the
// headers and the library that it was given do not belong together.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <velmar_2D/mesh.hpp>
#include <velmar_2D/velmar_2D.hpp>
#ifdef GUEST_DRAWS
#include <velmar_2D/velmar_2D_io.hpp>
#endif
#ifdef GUEST_SAVES
#include <velmar_2D/velmar_2D_hdf5.hpp>
#endif
#ifdef GUEST_SOLVES
#include <velmar_2D/velmar_2D_numerics.hpp>
#endif
#ifdef GUEST_SHARES
#include <velmar_2D/velmar_2D_mpi_hdf5.hpp>
#include <velmar_2D/velmar_2D_mpi_io.hpp>
#endif

namespace {

velmar_2d::Boundary north{1.0}, east{1.0}, south{0.0}, west{0.0};

int fail(const char* what) {
  std::printf("guest: %s\n", what);
  return 1;
}

double spacing(double x, double y, std::span<const double>, double, double) {
  return 0.02 + 0.2 * std::abs(std::hypot(x - 0.5, y - 0.5) - 0.3);
}
double value(double x, double) { return x; }

/// Many guests link with -O0 or -Og, which must not change what the library's code means: the
/// tables of graded sizes showed it, in memory that was in use before.
int grade_sizes() {
  using namespace velmar_2d;
  Mesh graded({}, {.nx = 33, .subdiv_max = 8});
  for (int step = 0; step < 4; ++step) {
    const auto edge = [step](double x, double y, std::span<const double>, double, double) {
      return std::max(0.004, std::abs(x - y - 0.02 * step));
    };
    graded.resolve(edge, {.slope = 0.3});
  }
  if (!graded.check().empty()) return fail("the graded mesh is not whole");
  return 0;
}

/// The same mesh as an object: what it throws, moves and calls crosses the border of the library.
int use_object(std::int32_t expected_nodes) {
  using namespace velmar_2d;
  Mesh made({0.0, 1.0, 0.0, 1.0}, {.nx = 9, .subdiv_max = 6, .n_cell_data = 2});
  Mesh mesh = std::move(made);
  for (int update = 0; update < 4; ++update) mesh.update(spacing, value);
  if (mesh.size() != expected_nodes) return fail("the object holds another mesh");
  double area = 0.0;
  for (Cell& node : mesh.nodes()) area += mesh.area(node);
  if (std::abs(area - 1.0) > 1e-12 || !mesh.check().empty()) return fail("the mesh is not whole");
  if (mesh.side_record(Direction::east, bc_type_dir).c != 1.0) return fail("no side record");
  try {
    mesh.update(nullptr);
    return fail("a mistake was not thrown");
  } catch (const Error& error) {
    if (std::strstr(error.what(), "size_fun") == nullptr) return fail(error.what());
  }
#ifdef GUEST_DRAWS
  if (!io::draw_mesh(mesh, "object.svg").empty()) return fail("the object cannot be drawn");
#endif
#ifdef GUEST_SAVES
  save(mesh, "object.h5");
  Mesh again = load("object.h5");
  if (again.update(spacing, value).visited != mesh.update(spacing, value).visited ||
      again.next_id() != mesh.next_id()) {
    return fail("the loaded mesh is another one");
  }
  try {
    load("object.svg");
    return fail("a picture was loaded");
  } catch (const Error& error) {
    if (std::strstr(error.what(), "no HDF5 file") == nullptr) return fail(error.what());
  }
#endif
#ifdef GUEST_SOLVES
  numerics::FluxMatrix flux;
  const MeshArrays arrays(mesh);
  numerics::update(flux, arrays, 1.0);
  const std::vector<double> ones(flux.matrix.diagonal.size(), 1.0);
  std::vector<double> product(ones.size(), 1.0);
  numerics::multiply(flux.matrix, ones, product);
  for (const double flow : product) {
    if (flow != 0.0) return fail("a constant flows");
  }
#endif
  return 0;
}

#ifdef GUEST_SHARES
/// One process of a mesh over processes.
int share_mesh() {
  using namespace velmar_2d;
  const Rectangle whole{0.0, 1.0, 0.0, 1.0};
  const Grid grid{.nx = 9, .subdiv_max = 6};
  Mesh alone(whole, grid);
  alone.resolve(spacing);
  Partition part(MPI_COMM_WORLD, whole, grid);
  part.resolve(spacing);
  if (part.size() != alone.size()) return fail("another mesh over processes");
  const std::string error = io::write_pvtu(part, "shared.pvtu");
  if (!error.empty()) return fail(error.c_str());
  save(part, "shared.h5");
  if (load_partition(MPI_COMM_WORLD, "shared.h5").size() != part.size()) {
    return fail("another mesh from the file");
  }
  try {
    part.resolve(size_function());
    return fail("a mistake was not thrown");
  } catch (const Error& thrown) {
    if (std::strstr(thrown.what(), "on process 0 of 1") == nullptr) return fail(thrown.what());
  }
  return 0;
}
#endif

}  // namespace

int main() {
  using namespace velmar_2d;
#ifdef GUEST_SHARES
  MPI_Init(nullptr, nullptr);
  const int shared = share_mesh();
  MPI_Finalize();
  if (shared != 0) return shared;
#endif
  if (grade_sizes() != 0 || grade_sizes() != 0) return 1;
  if (std::strcmp(version(), EXPECTED_VERSION) != 0) return fail(version());

  north_boundary_dir = &north;
  east_boundary_dir = &east;
  south_boundary_dir = &south;
  west_boundary_dir = &west;
  n_cell_data = 2;  // more than fits into the record: allocated here, released by the library
  double y_max = 0.0;
  init_mesh([](double, double, std::string_view) { return bc_type_dir; }, 9, 9, 6, y_max);
  for (int update = 0; update < 4; ++update) update_mesh_init(spacing, value);

  int counted = 0;
  for (Cell* node = mesh_beg; node != nullptr; node = node->next) {
    ++counted;
    node->data.resize(3);
    if (node->ipos > 0 && node->data[0] != node->x) return fail("a new node lacks its data");
  }
  if (counted != nb_nodes) return fail("nodes were lost");
  if (nb_nodes <= 9 * 9) return fail("nothing was refined");
  if (use_object(nb_nodes) != 0) return 1;
#ifdef GUEST_DRAWS
  for (const std::string& error : {io::draw_mesh("guest.svg"), io::write_vtu("guest.vtu")}) {
    if (!error.empty()) return fail(error.c_str());
  }
#endif
  delete_mesh();
  if (nb_nodes != 0) return fail("nodes are left");
  std::printf("guest: %d nodes with velmar_2d %s\n", counted, version());
  return 0;
}
