// A front that grows from a drop, on one mesh over as many processes as there are.
//
//     du/dt = D div grad u + k u (1 - u) (u - a)        no side lets anything through
//
// Explicit finite volumes on the control cells, as one would write them for one process. What is
// more for many: values of ghosts are asked from their owners before each step, the largest of all
// rates decides about the step, and where the front has made the work uneven, the boxes are cut
// anew.
//
//     mpirun -n 4 09_front_mpi                   files go to the folder pictures/
//     mpirun -n 4 09_front_mpi my/folder         files go to my/folder/
//     mpirun -n 4 09_front_mpi my/folder 12      12 updates instead of 40
//
// front.pvd is for ParaView. Process 0 prints a table and ends with the lines
//
//     40 updates: (nodes at the end) nodes, the front has burnt (share of the square)
//     fingerprint of all nodes and values: (16 digits, the same on any number of processes)
//
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "pictures.hpp"
#include "velmar_2D/velmar_2D_mpi_io.hpp"

namespace {

using velmar_2d::Cell, velmar_2d::GhostLayer, velmar_2d::Partition;

constexpr double diffusion = 2e-4, rate = 20.0, threshold = 0.2;
constexpr double time_between_updates = 0.1;
constexpr int updates_per_file = 10;

/// Width of a front at rest, in which u falls from 1 to 0.
const double width = std::sqrt(8.0 * diffusion / rate);

double drop(double x, double y) {
  return 0.5 - 0.5 * std::tanh((std::hypot(x - 0.2, y - 0.3) - 0.1) / width);
}

/// The spacing across which u changes by about 0.07.
double spacing(double /*x*/, double /*y*/, std::span<const double> /*data*/, double gradient,
               double /*second_derivative*/) {
  return 0.07 / std::max(gradient, 1.0);
}

// ---------------------------------------------------------------------------------------------
// Explicit finite volumes on the nodes of this process
// ---------------------------------------------------------------------------------------------

class Solver {
 public:
  /// Reads the mesh as it stands. Numbers the nodes by their `used`: owned ones, then ghosts.
  explicit Solver(Partition& part) : part_(part) {
    std::int32_t number = 0;
    for (Cell* c : part.owned()) c->used = number++;
    for (Cell* c : part.ghosts()) c->used = number++;
    u_.resize(static_cast<std::size_t>(number));
    double fastest = 0.0;
    for (Cell* c : part.owned()) {
      u_[index(*c)] = c->data[0];
      const velmar_2d::CellFaces faces = part.mesh().faces(*c);
      Row row{};
      double leaving = 0.0;
      for (std::size_t d = 0; d < 8; ++d) {
        const Cell* there = faces.neighbour[d];
        row.neighbour[d] = index(there == nullptr ? *c : *there);
        if (there == nullptr) continue;
        row.weight[d] = diffusion * faces.length[d] / faces.distance[d] / part.mesh().area(*c);
        leaving += row.weight[d];
      }
      fastest = std::max(fastest, leaving);
      rows_.push_back(row);
    }
    MPI_Allreduce(&fastest, &fastest_, 1, MPI_DOUBLE, MPI_MAX, part.communicator());
  }

  /// Advances by a time, in as many steps as stability wants.
  void advance(double time) {
    constexpr double margin = 0.9;
    const double steps = std::ceil(time * (fastest_ + rate) / margin);
    for (double done = 0.0; done < steps; ++done) make_step(time / steps);
    for (Cell* c : part_.owned()) c->data[0] = u_[index(*c)];
    part_.exchange();
  }

 private:
  struct Row {
    std::size_t neighbour[8];
    double weight[8];
  };

  static std::size_t index(const Cell& c) { return static_cast<std::size_t>(c.used); }

  // Sums go round a node from north, clockwise, on whichever process it is: so they have the same
  // bits on any.
  void make_step(double step) {
    part_.exchange(u_, 1, GhostLayer::linked);
    before_ = u_;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      const double u = before_[i];
      double inflow = 0.0;
      for (std::size_t d = 0; d < 8; ++d) {
        inflow += rows_[i].weight[d] * (before_[rows_[i].neighbour[d]] - u);
      }
      u_[i] = u + step * (inflow + rate * u * (1.0 - u) * (u - threshold));
    }
  }

  Partition& part_;
  std::vector<Row> rows_;
  std::vector<double> u_, before_;
  double fastest_ = 0.0;  // largest sum of weights
};

// ---------------------------------------------------------------------------------------------
// The run
// ---------------------------------------------------------------------------------------------

double sum(const Partition& part, double own) {
  double all = 0.0;
  MPI_Allreduce(&own, &all, 1, MPI_DOUBLE, MPI_SUM, part.communicator());
  return all;
}

double burnt(const Partition& part) {
  double own = 0.0;
  for (Cell* c : part.owned()) own += part.mesh().area(*c) * c->data[0];
  return sum(part, own);
}

/// Differs where any bit of any place, level or value does, whoever owns the node.
std::uint64_t fingerprint(const Partition& part) {
  std::uint64_t own = 0, all = 0;
  for (const Cell* c : part.owned()) {
    auto hash = static_cast<std::uint64_t>(c->level);
    for (const double number : {c->x, c->y, c->data[0]}) {
      constexpr std::uint64_t odd = 0x9e3779b97f4a7c15;
      hash = std::rotl((hash ^ std::bit_cast<std::uint64_t>(number)) * odd, 29);
    }
    own += hash;
  }
  MPI_Allreduce(&own, &all, 1, MPI_UINT64_T, MPI_SUM, part.communicator());
  return all;
}

void run(const std::filesystem::path& folder, int nb_updates) {
  Partition part(MPI_COMM_WORLD, {0.0, 1.0, 0.0, 1.0},
                 {.nx = 33,
                  .subdiv_max = 8,
                  .n_cell_data = 1,
                  .bc_type = velmar_2d::same_kind(velmar_2d::bc_type_neu)});
  for (int i = 0; i < 8; ++i) {  // until the mesh has found the drop
    for (Cell* c : part.owned()) c->data[0] = drop(c->x, c->y);
    part.exchange();
    part.resolve(spacing, drop);
  }

  const bool tells = part.rank() == 0;
  if (tells) std::printf("update   nodes  ghosts  imbalance\n");
  std::vector<velmar_2d::io::TimeStep> series;
  for (int update = 0; update <= nb_updates; ++update) {
    if (update > 0) {
      part.resolve(spacing, {.margin = 0.5});
      Solver(part).advance(time_between_updates);
    }
    const double imbalance = part.statistics().imbalance;
    const bool has_moved = part.rebalance();
    if (update % updates_per_file != 0 && update != nb_updates) continue;
    const velmar_2d::PartitionStatistics statistics = part.statistics();
    if (tells) {
      std::printf("%6d %7lld %5.1f %% %10.2f%s\n", update,
                  static_cast<long long>(statistics.nb_nodes),
                  100.0 * static_cast<double>(statistics.nb_ghosts) /
                      static_cast<double>(statistics.nb_nodes),
                  imbalance, has_moved ? ", cut anew" : "");
    }
    const double time = update * time_between_updates;
    series.push_back({time, (folder / ("front_" + std::to_string(update) + ".pvtu")).string()});
    require(
        velmar_2d::io::write_pvtu(part, series.back().file, {.data_names = {"u"}, .time = time}));
    if (tells) require(velmar_2d::io::write_pvd((folder / "front.pvd").string(), series));
  }
  const double share = burnt(part);
  const std::uint64_t mark = fingerprint(part);
  if (!tells) return;
  std::printf("%d updates: %lld nodes, the front has burnt %.6f of the square\n", nb_updates,
              static_cast<long long>(part.size()), share);
  std::printf("fingerprint of all nodes and values: %016llx\n",
              static_cast<unsigned long long>(mark));
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int status = 0;
  try {
    run(picture_folder(argc, argv), argc > 2 ? std::atoi(argv[2]) : 40);
  } catch (const velmar_2d::Error& error) {  // the same on all processes
    int rank = 0;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    if (rank == 0) std::fprintf(stderr, "%s\n", error.what());
    status = 2;
  }
  MPI_Finalize();
  return status;
}
