// The ghosts that processes hold, to be compared with those of simulated ones.
//
//     mpirun -n 4 velmar_2d_count_ghosts [nodes]
//     velmar_2d_simulated_processes [nodes] 4
#include <cstdio>
#include <cstdlib>

#include "benchmarks/large_meshes.hpp"
#include "velmar_2D/velmar_2D_mpi.hpp"

namespace {

using namespace velmar_2d;

void count_ghosts(const benchmarks::LargeMesh& of, double nb_nodes) {
  const double finest = of.finest_for(nb_nodes);
  const size_function size = of.spacing(finest);
  Partition part(MPI_COMM_WORLD, {0.0, 1.0, 0.0, 1.0}, of.grid(finest));
  part.resolve(size);
  part.rebalance(1.0);
  part.resolve(size);
  const PartitionStatistics all = part.statistics();
  if (part.rank() != 0) return;
  std::printf("%s: %lld nodes, %lld at most with one of %d processes, %lld ghosts (%.1f %%)\n",
              of.name, static_cast<long long>(all.nb_nodes),
              static_cast<long long>(all.most_nodes_owned), part.nb_processes(),
              static_cast<long long>(all.nb_ghosts),
              100.0 * static_cast<double>(all.nb_ghosts) / static_cast<double>(all.nb_nodes));
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  const double nb_nodes = argc > 1 ? std::atof(argv[1]) : 1e7;
  for (const auto& of : velmar_2d::benchmarks::large_meshes()) count_ghosts(of, nb_nodes);
  MPI_Finalize();
  return 0;
}
