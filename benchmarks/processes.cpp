// What it costs to keep one mesh over several processes: a ring that moves by two of the finest
// spacings, resolved with data, and ten explicit substeps with an exchange each.
//
//     mpirun -n 2 velmar_2d_mpi_bench [finest spacing] [updates] [nx] [slope of Resolution]
//
// Seconds are those of the processor that the slowest process took, without what it spent in
// messages: waiting counts there, however loaded the machine is. With one process the same is done
// by a Mesh, too.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "velmar_2D/velmar_2D_mpi.hpp"

namespace {

using namespace velmar_2d;

double processor_seconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

size_function ring(double finest, int step) {
  const double x0 = 0.4 + 2.0 * finest * step;
  return [=](double x, double y, auto...) {
    return finest + 0.04 * std::abs(std::hypot(x - x0, y - 0.5) - 0.25);
  };
}

/// What follows from a node and those that it is linked to.
double relaxed(const Cell& c) {
  double sum = 0.0;
  int n = 0;
  for (const Direction d : directions) {
    const Cell* there = link(c, d).cell();
    if (there == nullptr) continue;
    sum += there->data[0];
    ++n;
  }
  return 0.5 * c.data[0] + 0.5 * sum / n;
}

template <typename Nodes, typename Exchange>
void substeps(const Nodes& nodes, std::vector<double>& next, const Exchange& exchange) {
  for (int substep = 0; substep < 10; ++substep) {
    next.clear();
    for (const Cell* c : nodes) next.push_back(relaxed(*c));
    std::size_t i = 0;
    for (Cell* c : nodes) c->data[0] = next[i++];
    exchange();
  }
}

double largest(double seconds) {
  double all = 0.0;
  MPI_Allreduce(&seconds, &all, 1, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
  return all;
}

void run_mesh(const Grid& grid, double finest, int nb_updates, const Resolution& resolution) {
  Mesh mesh({0.0, 1.0, 0.0, 1.0}, grid);
  mesh.resolve(ring(finest, 0), resolution);
  double updating = 0.0, solving = 0.0;
  std::vector<double> next;
  for (int step = 1; step <= nb_updates; ++step) {
    const double begin = processor_seconds();
    mesh.resolve(ring(finest, step), resolution);
    updating += processor_seconds() - begin;
    std::vector<Cell*> nodes;
    for (Cell& c : mesh.nodes()) nodes.push_back(&c);
    const double middle = processor_seconds();
    substeps(nodes, next, [] {});
    solving += processor_seconds() - middle;
  }
  std::printf("a Mesh:        %9lld nodes   update %.4f s   ten substeps %.4f s\n",
              static_cast<long long>(mesh.size()), updating / nb_updates, solving / nb_updates);
}

void run_partition(const Grid& grid, double finest, int nb_updates, const Resolution& resolution) {
  Partition part(MPI_COMM_WORLD, {0.0, 1.0, 0.0, 1.0}, grid);
  part.resolve(ring(finest, 0), resolution);
  part.rebalance(1.02);
  part.resolve(ring(finest, 0), resolution);
  double updating = 0.0, sharing = 0.0, solving = 0.0;
  std::int64_t nb_bytes = 0;
  int nb_rounds = 0;
  std::vector<double> next;
  for (int step = 1; step <= nb_updates; ++step) {
    part.resolve(ring(finest, step), resolution);
    const PartitionStatistics update = part.statistics();
    updating += update.update_seconds;
    sharing += update.sharing_seconds;
    nb_bytes += update.nb_bytes;
    nb_rounds = std::max(nb_rounds, update.nb_rounds);
    double waiting = 0.0;
    const double begin = processor_seconds();
    substeps(part.owned(), next, [&] {
      const double before = processor_seconds();
      part.exchange(0, 1, GhostLayer::linked);
      waiting += processor_seconds() - before;
    });
    solving += largest(processor_seconds() - begin - waiting);
  }
  const PartitionStatistics last = part.statistics();
  if (part.rank() != 0) return;
  std::printf(
      "%d processes:   %9lld nodes   update %.4f s   ten substeps %.4f s\n"
      "               ghosts %.2f %%   imbalance %.3f   rounds %d   %.1f kB an update\n"
      "               ghosts, plan, data and check: %.1f %% of the update\n",
      part.nb_processes(), static_cast<long long>(last.nb_nodes), updating / nb_updates,
      solving / nb_updates,
      100.0 * static_cast<double>(last.nb_ghosts) / static_cast<double>(last.nb_nodes),
      last.imbalance, nb_rounds, 1e-3 * static_cast<double>(nb_bytes) / nb_updates,
      100.0 * sharing / updating);
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  const double finest = argc > 1 ? std::atof(argv[1]) : 0.001;
  const int nb_updates = argc > 2 ? std::atoi(argv[2]) : 10;
  const Grid grid{.nx = argc > 3 ? std::atoi(argv[3]) : 65, .subdiv_max = 20, .n_cell_data = 1};
  const Resolution resolution{.slope = argc > 4 ? std::atof(argv[4]) : 0.0};
  int nb_processes = 0;
  MPI_Comm_size(MPI_COMM_WORLD, &nb_processes);
  if (nb_processes == 1) run_mesh(grid, finest, nb_updates, resolution);
  run_partition(grid, finest, nb_updates, resolution);
  MPI_Finalize();
  return 0;
}
