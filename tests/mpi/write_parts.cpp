// Writes a mesh for ParaView: on one process with the Mesh that knows nothing of others, on several
// with a Partition.
//
//     write_parts FOLDER
#include <cmath>
#include <cstdio>

#include "velmar_2D/velmar_2D_mpi_io.hpp"

namespace {

using namespace velmar_2d;

const Rectangle whole{-0.2, 1.0, 0.1, 1.0};
const Grid grid{.nx = 17, .subdiv_max = 10, .n_cell_data = 2};

double size(double x, double y, std::span<const double> /*data*/, double /*gradient*/,
            double /*second_derivative*/) {
  return 0.004 + 0.2 * std::abs(std::hypot(x - 0.4, y - 0.5) - 0.3);
}

double value(double x, double y) { return std::sin(7.0 * x) * std::cos(5.0 * y); }

/// Two kinds of files of the same mesh, by a function that writes one.
template <typename Write>
int write_both(const Write& write) {
  for (const io::VtuCells cells : {io::VtuCells::triangles, io::VtuCells::control_cells}) {
    const std::string error =
        write(cells == io::VtuCells::triangles ? "triangles" : "control_cells",
              io::VtuOptions{.cells = cells, .data_names = {"u"}, .time = 0.5});
    if (error.empty()) continue;
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  return 0;
}

int write_whole(const std::string& folder) {
  Mesh mesh(whole, grid);
  mesh.resolve(size, value);
  for (Cell& c : mesh.nodes()) c.data[1] = c.x;
  return write_both([&](const std::string& name, const io::VtuOptions& options) {
    return io::write_vtu(mesh, folder + "/" + name + ".vtu", options);
  });
}

int write_parts(const std::string& folder) {
  Partition part(MPI_COMM_WORLD, whole, grid);
  part.resolve(size, value);
  for (Cell* c : part.owned()) c->data[1] = c->x;
  part.exchange();
  // One process alone cannot write: all are told, and none waits.
  if (part.rank() == 0) std::fclose(std::fopen((folder + "/taken").c_str(), "w"));
  MPI_Barrier(MPI_COMM_WORLD);
  const std::string refused = io::write_pvtu(part, folder + "/taken/mesh.pvtu");
  if (refused.find("taken") == std::string::npos) {
    std::printf("a file as a folder, on process %d: '%s'\n", part.rank(), refused.c_str());
    return 1;
  }
  return write_both([&](const std::string& name, const io::VtuOptions& options) {
    return io::write_pvtu(part, folder + "/" + name + ".pvtu", options);
  });
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int nb_processes = 0;
  MPI_Comm_size(MPI_COMM_WORLD, &nb_processes);
  const int status = nb_processes == 1 ? write_whole(argv[1]) : write_parts(argv[1]);
  MPI_Finalize();
  return status;
}
