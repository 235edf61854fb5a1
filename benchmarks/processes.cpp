// What it costs to keep one mesh over several processes: a ring that moves by two of the finest
// spacings, resolved with data, and ten explicit substeps with an exchange each; then updates that
// find nothing to do.
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

int nb_messages = 0, nb_meetings = 0;  // that came to this process, and that all have had

}  // namespace

// MPI lets a program count calls by procedures of the same names.
extern "C" {
int MPI_Mprobe(int source, int tag, MPI_Comm communicator, MPI_Message* message,
               MPI_Status* status) {
  ++nb_messages;
  return PMPI_Mprobe(source, tag, communicator, message, status);
}
int MPI_Allreduce(const void* from, void* to, int count, MPI_Datatype type, MPI_Op operation,
                  MPI_Comm communicator) {
  ++nb_meetings;
  return PMPI_Allreduce(from, to, count, type, operation, communicator);
}
int MPI_Allgather(const void* from, int nb_sent, MPI_Datatype sent, void* to, int nb_received,
                  MPI_Datatype received, MPI_Comm communicator) {
  ++nb_meetings;
  return PMPI_Allgather(from, nb_sent, sent, to, nb_received, received, communicator);
}
}

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
  std::printf("a Mesh:        %9lld nodes   update %.5f s   ten substeps %.5f s\n",
              static_cast<long long>(mesh.size()), updating / nb_updates, solving / nb_updates);
}

/// Of some updates.
class SharingCost {
 public:
  void update(Partition& part, const size_function& size, const Resolution& resolution) {
    const int messages_before = nb_messages, meetings_before = nb_meetings;
    part.resolve(size, resolution);
    messages_ += nb_messages - messages_before;
    meetings_ += nb_meetings - meetings_before;
    const PartitionStatistics of = part.statistics();
    const auto nb_ghosts = static_cast<std::int64_t>(part.ghosts().size());
    std::int64_t most = 0;
    MPI_Allreduce(&nb_ghosts, &most, 1, MPI_INT64_T, MPI_MAX, MPI_COMM_WORLD);
    seconds_ += of.sharing_seconds;
    ghosts_ += static_cast<double>(std::max<std::int64_t>(most, 1));
    bytes_ += static_cast<double>(of.nb_bytes) /
              static_cast<double>(std::max<std::int64_t>(of.nb_ghosts, 1));
    updates_ += of.update_seconds;
    changes_ += static_cast<double>(of.inserted + of.removed) / static_cast<double>(of.nb_nodes);
    ++n_;
  }
  void print(const char* which) const {
    std::printf(
        "               %s: %.0f ns a ghost, %.1f %% of the update (%.4f s), %.1f bytes a ghost,\n"
        "               %.1f messages come, %.1f meetings; %.2f %% of nodes came or "
        "went\n",
        which, 1e9 * seconds_ / ghosts_, 100.0 * seconds_ / updates_, updates_ / n_, bytes_ / n_,
        1.0 * messages_ / n_, 1.0 * meetings_ / n_, 100.0 * changes_ / n_);
  }
  double update_seconds() const { return updates_ / n_; }

 private:
  double seconds_ = 0.0, ghosts_ = 0.0, bytes_ = 0.0, updates_ = 0.0, changes_ = 0.0;
  int messages_ = 0, meetings_ = 0, n_ = 0;
};

void run_partition(const Grid& grid, double finest, int nb_updates, const Resolution& resolution) {
  Partition part(MPI_COMM_WORLD, {0.0, 1.0, 0.0, 1.0}, grid);
  part.resolve(ring(finest, 0), resolution);
  part.rebalance(1.02);
  part.resolve(ring(finest, 0), resolution);
  double solving = 0.0;
  int nb_rounds = 0;
  SharingCost moving, settled;
  std::vector<double> next;
  for (int step = 1; step <= nb_updates; ++step) {
    moving.update(part, ring(finest, step), resolution);
    nb_rounds = std::max(nb_rounds, part.statistics().nb_rounds);
    double waiting = 0.0;
    const double begin = processor_seconds();
    substeps(part.owned(), next, [&] {
      const double before = processor_seconds();
      part.exchange(0, 1, GhostLayer::linked);
      waiting += processor_seconds() - before;
    });
    solving += largest(processor_seconds() - begin - waiting);
  }
  // The first ones still let ghosts go that the last move left.
  for (int step = 0; step < 3; ++step) part.resolve(ring(finest, nb_updates), resolution);
  for (int step = 0; step < nb_updates; ++step)
    settled.update(part, ring(finest, nb_updates), resolution);
  const PartitionStatistics last = part.statistics();
  if (part.rank() != 0) return;
  std::printf(
      "%d processes:   %9lld nodes   update %.5f s   ten substeps %.5f s\n"
      "               ghosts %.2f %%   imbalance %.3f   rounds %d\n",
      part.nb_processes(), static_cast<long long>(last.nb_nodes), moving.update_seconds(),
      solving / nb_updates,
      100.0 * static_cast<double>(last.nb_ghosts) / static_cast<double>(last.nb_nodes),
      last.imbalance, nb_rounds);
  moving.print("moving");
  settled.print("settled");
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
