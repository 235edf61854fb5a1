// What one mesh over many processes would take, on machines that are not here.
//
//     velmar_2d_simulated_processes                           10 million nodes, 64 to 16384
//     processes velmar_2d_simulated_processes NODES NB_PROCESSES ...    others
//
// The mesh is real: made by one process, then cut into boxes as velmar_2d::Partition cuts it. The
// window of every process is made, one after the other, with the ghosts that it would hold; they
// are counted, and so are its neighbours and the bytes of its messages. The time of an update and
// ten substeps of an explicit solver is that of the slowest process, with what work on a node costs
// here and messages as assumed below. Prints tables for docs/processes.md.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <set>
#include <unordered_set>
#include <vector>

#include "benchmarks/large_meshes.hpp"
#include "mpi/boxes.hpp"
#include "velmar_2D/arrays.hpp"
#include "velmar_2D/piece.hpp"

namespace velmar_2d::benchmarks {
namespace {

// ---------------------------------------------------------------------------------------------
// Assumptions
// ---------------------------------------------------------------------------------------------

constexpr double latency = 2e-6;   // seconds until a message is there
constexpr double handling = 1e-6;  // of both processors, for each message
constexpr double bandwidth = 1e9;  // bytes a second and process
constexpr int substeps = 10;       // of the solver between two updates

/// What velmar_2d_mpi_bench tells of an update, of one that finds nothing to do and of one that
/// follows a front by two of the finest spacings.
struct Sharing {
  double seconds;  ///< a ghost: to place it, give it its data, plan its exchange and check it
  double listing;  ///< seconds a node: what an update of a piece takes beyond that of a Mesh
  double bytes;    ///< a ghost, with one value a node
  int messages;    ///< to each neighbour
  int meetings;    ///< of all processes
};
constexpr Sharing settled{4.0e-8, 0.0, 8.0, 1, 2};
constexpr int rounds = 3;  // until nothing more is wanted, of a front; the bench has one
constexpr Sharing creeping{2.3e-7, 2.6e-9, 15.0, rounds + 11, rounds + 4};

constexpr std::int32_t overlap = 3;

// ---------------------------------------------------------------------------------------------
// One process
// ---------------------------------------------------------------------------------------------

/// Of the processor: others may be at work here.
double seconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

/// Nodes by cell of the grid, those of a line with the cell beyond it.
class NodesOfCells {
 public:
  explicit NodesOfCells(Mesh& mesh, std::int32_t nx) : columns_(nx - 1), grid_(mesh.dist_0()) {
    west_ = mesh.x_min();
    south_ = mesh.y_min();
    const auto nb_cells = static_cast<std::size_t>(columns_) * static_cast<std::size_t>(columns_);
    first_.assign(nb_cells + 1, 0);
    for (const Cell& c : mesh.nodes()) ++first_[cell_of(c) + 1];
    for (std::size_t i = 0; i < nb_cells; ++i) first_[i + 1] += first_[i];
    nodes_.resize(first_.back());
    std::vector<std::size_t> next(first_.begin(), first_.end() - 1);
    for (const Cell& c : mesh.nodes()) nodes_[next[cell_of(c)]++] = &c;
  }
  std::span<const Cell* const> of(std::int32_t column, std::int32_t row) const {
    const std::size_t i = index(column, row);
    return std::span(nodes_).subspan(first_[i], first_[i + 1] - first_[i]);
  }
  std::vector<Place> places() const {
    std::vector<Place> places;
    places.reserve(nodes_.size());
    for (const Cell* c : nodes_) places.push_back(place_of(*c));
    return places;
  }
  std::size_t cell_of(const Cell& c) const {
    return index(column_of(c.x - west_), column_of(c.y - south_));
  }
  Place place_of(const Cell& c) const {
    const auto unit = static_cast<double>(places_per_cell) / grid_;
    return {std::llround((c.x - west_) * unit), std::llround((c.y - south_) * unit)};
  }

 private:
  /// Positions are those of the lattice up to rounding, which is far below the finest spacing.
  std::int32_t column_of(double offset) const {
    return std::min(static_cast<std::int32_t>(offset / grid_ + 1e-9), columns_ - 1);
  }
  std::size_t index(std::int32_t column, std::int32_t row) const {
    return static_cast<std::size_t>(row) * static_cast<std::size_t>(columns_) +
           static_cast<std::size_t>(column);
  }

  std::int32_t columns_;
  double grid_, west_ = 0.0, south_ = 0.0;
  std::vector<std::size_t> first_;
  std::vector<const Cell*> nodes_;
};

/// What a process holds.
struct Load {
  double owned = 0.0, ghosts = 0.0, linked = 0.0, neighbours = 0.0;
  double linked_neighbours = 0.0;  ///< those with ghosts that are linked to own nodes
};

class Machine {
 public:
  Machine(Mesh& mesh, const Grid& grid, const size_function& size, int nb_processes)
      : mesh_(mesh),
        grid_(grid),
        size_(size),
        nodes_(mesh, grid.nx),
        boxes_(cut_by_places({0, grid.nx - 1, 0, grid.nx - 1}, nodes_.places(), nb_processes,
                             places_per_cell >> (grid.subdiv_max + 1) / 2,
                             [](std::vector<std::int64_t> of_all) { return of_all; })),
        owners_(boxes_) {}
  std::size_t nb_processes() const { return boxes_.size(); }

  Load load_of(std::size_t rank) const {
    const Window box = boxes_[rank].cells();
    std::vector<Place> places;
    std::unordered_set<const Cell*> linked;
    const auto is_own = [&](const Cell& c) { return owner_of(c) == rank; };
    const auto add_linked = [&](const Cell& c, std::unordered_set<const Cell*>& to) {
      for (const Direction d : directions) {
        const Cell* there = link(c, d).cell();
        if (there != nullptr && !is_own(*there) && linked.count(there) == 0) to.insert(there);
      }
    };
    for (std::int32_t j = box.south; j < box.north; ++j) {
      for (std::int32_t i = box.west; i < box.east; ++i) {
        for (const Cell* c : nodes_.of(i, j)) {
          if (!is_own(*c)) continue;
          if (c->ipos > 0) places.push_back(nodes_.place_of(*c));
          add_linked(*c, linked);
        }
      }
    }
    Piece piece(mesh_.rectangle(), grid_, boxes_[rank], overlap);
    piece.hold_all(places);
    piece.begin(size_);
    piece.ask();  // makes what own nodes need elsewhere
    places.clear();
    for (const Cell* c : border_of(rank, linked)) places.push_back(nodes_.place_of(*c));
    piece.hold_ghosts(places);
    Load load;
    for (const Cell& c : piece.mesh().nodes()) ++(piece.owns(c) ? load.owned : load.ghosts);
    load.linked = static_cast<double>(linked.size());
    std::set<std::size_t> owners;
    for (const Cell* c : linked) owners.insert(owner_of(*c));
    load.linked_neighbours = static_cast<double>(owners.size());
    for (const PlaceBox& other : boxes_) {
      const bool is_other = &other != &boxes_[rank];
      if (is_other && (reaches(box, other) || reaches(other.cells(), boxes_[rank]))) {
        ++load.neighbours;
      }
    }
    return load;
  }

 private:
  /// Whether the window around these cells reaches a box, or touches it.
  static bool reaches(const Window& cells, const PlaceBox& box) {
    const PlaceBox window(cells.west - overlap, cells.east + overlap, cells.south - overlap,
                          cells.north + overlap);
    return window.low.x <= box.high.x && box.low.x <= window.high.x && window.low.y <= box.high.y &&
           box.low.y <= window.high.y;
  }
  std::size_t owner_of(const Cell& c) const {
    return static_cast<std::size_t>(owners_.of(nodes_.place_of(c)));
  }
  /// What owners tell a process: nodes that are linked to its own ones, and those that are linked
  /// to such; where these belong to a third process, to such that may be linked, as their levels
  /// tell.
  std::vector<const Cell*> border_of(std::size_t rank,
                                     const std::unordered_set<const Cell*>& linked) const {
    const Window box = boxes_[rank].cells();
    const double dist_0 = mesh_.dist_0();
    const auto offset = [&](std::int64_t at) {
      return static_cast<double>(at) / static_cast<double>(places_per_cell) * dist_0;
    };
    const auto& [low, high] = boxes_[rank];
    const double west = mesh_.x_min() + offset(low.x), east = mesh_.x_min() + offset(high.x);
    const double south = mesh_.y_min() + offset(low.y), north = mesh_.y_min() + offset(high.y);
    const auto may_be_linked = [&](const Cell& c) {
      const double reach = 1.001 * std::ldexp(dist_0, -(c.level / 2));
      return std::max({west - c.x, c.x - east, south - c.y, c.y - north}) <= reach;
    };
    std::vector<const Cell*> border;
    const std::int32_t last = grid_.nx - 1;
    for (std::int32_t j = std::max(box.south - overlap, 0); j < std::min(box.north + overlap, last);
         ++j) {
      for (std::int32_t i = std::max(box.west - overlap, 0); i < std::min(box.east + overlap, last);
           ++i) {
        for (const Cell* c : nodes_.of(i, j)) {
          if (owner_of(*c) == rank) continue;
          bool is_needed = linked.count(c) > 0;
          for (std::size_t d = 0; d < directions.size() && !is_needed; ++d) {
            const Cell* there = link(*c, directions[d]).cell();
            if (there == nullptr || !may_be_linked(*there)) continue;
            is_needed = linked.count(there) > 0 ||
                        (owner_of(*there) != rank && owner_of(*there) != owner_of(*c));
          }
          if (is_needed) border.push_back(c);
        }
      }
    }
    return border;
  }

  Mesh& mesh_;
  Grid grid_;
  size_function size_;
  NodesOfCells nodes_;
  std::vector<PlaceBox> boxes_;
  Owners owners_;
};

// ---------------------------------------------------------------------------------------------
// Time
// ---------------------------------------------------------------------------------------------

/// Seconds a node, on one process here: of an update with data that finds nothing to do, where
/// ghosts and messages weigh most, of one after which all that is fine has moved by two of the
/// finest spacings, and of a substep.
struct Work {
  double update = 0.0, creeping = 0.0, substep = 0.0;
  double changes = 0.0;  ///< nodes that the creeping one makes or removes, for each that is there
};

Work measure(Mesh& mesh, const size_function& size, const size_function& moved) {
  Work work;
  const auto n = static_cast<double>(mesh.size());
  double start = seconds();
  mesh.resolve(size);
  work.update = (seconds() - start) / n;
  start = seconds();
  for (const size_function* next : {&moved, &size}) {
    mesh.resolve(*next);
    const UpdateStatistics done = mesh.statistics();
    work.changes += 0.5 * static_cast<double>(done.inserted + done.removed) / n;
  }
  work.creeping = (seconds() - start) / (2.0 * n);
  const MeshArrays arrays(mesh);
  const auto nb_nodes = static_cast<std::size_t>(arrays.size());
  std::vector<double> u(nb_nodes, 1.0), rate(nb_nodes);
  start = seconds();
  for (int step = 0; step < substeps; ++step) {
    for (std::int32_t i = 0; i < arrays.size(); ++i) {
      const auto here = static_cast<std::size_t>(i);
      const auto links = arrays.links(i);
      const std::array<double, 8>& weights = arrays.weights(i);
      double inflow = 0.0;
      for (std::size_t d = 0; d < 8; ++d) {
        inflow +=
            weights[d] * (u[links[d] >= 0 ? static_cast<std::size_t>(links[d]) : here] - u[here]);
      }
      rate[here] = inflow / arrays.areas()[here];
    }
    for (std::size_t i = 0; i < nb_nodes; ++i) u[i] += 1e-12 * rate[i];
  }
  work.substep = (seconds() - start) / (substeps * n);
  return work;
}

double time_of(const Load& load, const Work& work, std::size_t nb_processes, bool is_creeping,
               bool with_sharing = true) {
  const Sharing& sharing = is_creeping ? creeping : settled;
  const double meeting = latency * std::ceil(std::log2(static_cast<double>(nb_processes)));
  // One to each, one from each.
  const auto messages = [](double nb_neighbours) { return latency + handling * nb_neighbours; };
  double update = (is_creeping ? work.creeping : work.update) * load.owned +
                  sharing.messages * messages(load.neighbours) +
                  sharing.bytes * load.ghosts / bandwidth + sharing.meetings * meeting;
  if (with_sharing) update += sharing.seconds * load.ghosts + sharing.listing * load.owned;
  const double substep =
      work.substep * load.owned + messages(load.linked_neighbours) + 8.0 * load.linked / bandwidth;
  return update + substeps * substep;
}

// ---------------------------------------------------------------------------------------------
// Tables
// ---------------------------------------------------------------------------------------------

void simulate(Mesh& mesh, const Grid& grid, const size_function& size, int nb_processes,
              const Work& work) {
  const Machine machine(mesh, grid, size, nb_processes);
  Load sum, most;
  double slowest = 0.0, slowest_without = 0.0, slowest_creeping = 0.0;
  for (std::size_t rank = 0; rank < machine.nb_processes(); ++rank) {
    const Load load = machine.load_of(rank);
    for (double Load::*number : {&Load::owned, &Load::ghosts, &Load::linked, &Load::neighbours}) {
      sum.*number += load.*number;
      most.*number = std::max(most.*number, load.*number);
    }
    const std::size_t n = machine.nb_processes();
    slowest = std::max(slowest, time_of(load, work, n, false));
    slowest_without = std::max(slowest_without, time_of(load, work, n, false, false));
    slowest_creeping = std::max(slowest_creeping, time_of(load, work, n, true));
  }
  const auto n = static_cast<double>(mesh.size());
  const auto p = static_cast<double>(machine.nb_processes());
  if (sum.owned != n) {
    std::fprintf(stderr, "%.0f nodes are owned, of %.0f\n", sum.owned, n);
    std::exit(EXIT_FAILURE);
  }
  const double alone = n * (work.update + substeps * work.substep);
  const double alone_creeping = n * (work.creeping + substeps * work.substep);
  std::printf(
      "| %d | %.0f | %.2f | %.0f (%.1f %%) | %.1f (%.0f) | %.2f (%.2f) ms | **%.2f** (%.2f) | "
      "%.2f (%.2f) ms | **%.2f** |\n",
      nb_processes, n / p, most.owned * p / n, sum.ghosts, 100.0 * sum.ghosts / n,
      sum.neighbours / p, most.neighbours, slowest * 1e3, alone / p * 1e3, alone / p / slowest,
      alone / p / slowest_without, slowest_creeping * 1e3, alone_creeping / p * 1e3,
      alone_creeping / p / slowest_creeping);
  std::fflush(stdout);
}

void run(const LargeMesh& of, double nb_nodes, std::span<const int> processes) {
  const double finest = of.finest_for(nb_nodes);
  const size_function size = of.spacing(finest);
  const Grid grid = of.grid(finest);
  Mesh mesh({0.0, 1.0, 0.0, 1.0}, grid);
  mesh.resolve(size);
  const size_function moved = [&size, finest](double x, double y, auto... rest) {
    return size(x - 2.0 * finest, y, rest...);
  };
  const Work work = measure(mesh, size, moved);
  std::printf(
      "\n%s: %lld nodes on a grid of %d x %d cells; here an update takes %.0f ns a node, one that "
      "moves %.0f (%.1f %% of nodes come or go), a substep %.0f\n\n",
      of.name, static_cast<long long>(mesh.size()), of.nx - 1, of.nx - 1, work.update * 1e9,
      work.creeping * 1e9, 100.0 * work.changes, work.substep * 1e9);
  std::printf(
      "| processes | nodes each | imbalance | ghosts | neighbours (most) | nothing to do: time "
      "(ideal) | efficiency (where sharing takes nothing) | moving: time (ideal) | efficiency "
      "|\n|---|---|---|---|---|---|---|---|---|\n");
  for (const int nb_processes : processes) simulate(mesh, grid, size, nb_processes, work);
}

}  // namespace
}  // namespace velmar_2d::benchmarks

int main(int argc, char** argv) {
  using namespace velmar_2d::benchmarks;
  const double nb_nodes = argc > 1 ? std::atof(argv[1]) : 1e7;
  std::vector<int> processes;
  for (int i = 2; i < argc; ++i) processes.push_back(std::atoi(argv[i]));
  if (processes.empty()) processes = {64, 1024, 16384};
  for (const LargeMesh& of : large_meshes()) {
    run(of, nb_nodes, processes);
  }
}
