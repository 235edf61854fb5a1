// A mesh that goes on from a file with another number of processes, held against one that was
// never saved.
//
//   test_saved save FILE     some steps, then saves
//   test_saved go_on FILE    some more
#include <cmath>
#include <cstring>

#include "compare.hpp"
#include "velmar_2D/velmar_2D_mpi_hdf5.hpp"

using namespace velmar_2d;

namespace {

const Rectangle& whole = tested_whole;
const Grid grid = tested_grid(10);

/// Steps [first, end) of a front, on a Mesh or a Partition.
template <typename Kept, typename Nodes>
void run(Kept& kept, const Nodes& nodes, int first, int end) {
  for (int step = first; step < end; ++step) {
    kept.resolve([=](double x, double y, auto, double, double grad2) {
      const double ring = 0.01 + 0.3 * std::abs(std::hypot(x - 0.1 - 0.1 * step, y + 0.3) - 0.2);
      return std::min(ring, 0.3 / (1.0 + std::sqrt(grad2)));
    });
    kept.compute_derivatives();
    for (Cell* c : nodes()) {
      c->data[0] = std::tanh(20.0 * (c->x - 0.3 * c->y - 0.1 * step));
      c->data[1] += c->x;
    }
  }
}

void run(Mesh& mesh, int first, int end) {
  const auto nodes = [&] {
    std::vector<Cell*> all;
    for (Cell& c : mesh.nodes()) all.push_back(&c);
    return all;
  };
  run(mesh, nodes, first, end);
}

void run(Partition& part, int first, int end) {
  for (int step = first; step < end; ++step) {
    run(
        part, [&] { return part.owned(); }, step, step + 1);
    part.exchange();
  }
}

void save_run(const std::string& path) {
  Partition part(MPI_COMM_WORLD, whole, grid);
  part.mesh().set_transfer(Transfer::all);
  run(part, 0, 3);
  save(part, path);
  std::string refused;
  try {
    save(part, path + "/in_a_file");
  } catch (const Error& error) {
    refused = error.what();
  }
  expect(refused.find("in_a_file") != std::string::npos, "a file as a folder is refused by all", 3);
}

void go_on(const std::string& path) {
  Mesh mesh(whole, grid);
  mesh.set_transfer(Transfer::all);
  run(mesh, 0, 3);
  Partition part = load_partition(MPI_COMM_WORLD, path, {.bc_type = grid.bc_type});
  compare(part, mesh, 3);
  run(mesh, 3, 5);
  run(part, 3, 5);
  compare(part, mesh, 5);
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  if (argc != 3) return 2;
  if (std::strcmp(argv[1], "save") == 0) {
    save_run(argv[2]);
  } else {
    go_on(argv[2]);
  }
  MPI_Finalize();
  return nb_wrong == 0 ? 0 : 1;
}
