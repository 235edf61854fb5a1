// Sizes graded over several processes, held against those of one mesh of one process: run by mpirun
// with any number of processes. The exit status tells whether all is alike.
#include <array>
#include <cmath>
#include <limits>

#include "compare.hpp"

using namespace velmar_2d;

namespace {

constexpr double as_coarse_as_can_be = std::numeric_limits<double>::infinity();
constexpr double none = -1.0;

enum class Demand { points, step, chance, curvature };

/// Wanted at this time by nodes of a grid with this spacing. Where the demand is a matter of
/// points, nodes beside them do not see it.
double wanted(Demand demand, int time, double spacing, double x, double y, double grad2) {
  const double t = 0.11 * time;
  switch (demand) {
    case Demand::points: {
      const auto is_at = [=](double column, double row) {
        return std::abs(x - column * spacing) + std::abs(y - row * spacing) < 1e-9;
      };
      if (is_at(3 + time, 5)) return 0.004 * (1 + time % 2);
      return is_at(11, 2 + 2 * time) ? 0.02 : as_coarse_as_can_be;
    }
    case Demand::step: return std::hypot(x - t, y - 0.3) < 0.12 ? 0.02 : x > 0.8 ? 0.1 : 1.0;
    // Numbers for which a grading takes several rounds of nodes that go, and for which nodes
    // without a size keep some that came on the other side of a cut.
    case Demand::chance: {
      const auto chance = [=](double seed) {
        const double number = 43758.5453 * std::sin(12.9898 * x + 78.233 * y + 1.7 * time + seed);
        return number - std::floor(number);
      };
      if (chance(10.0) < 0.259) return none;
      return chance(11.0) < 0.77 ? 0.02 + 0.3 * chance(12.0) : 0.0287 * (1.0 + 3.0 * chance(13.0));
    }
    case Demand::curvature: break;
  }
  return grad2 > 4.0 ? std::max(0.06 / std::sqrt(grad2), 0.02) : x > 0.9 ? none : 1.0;
}

void check(Demand demand, double slope) {
  const Rectangle whole{0.0, 1.2, 0.0, 0.9};
  const bool has_data = demand == Demand::curvature;
  const bool is_coarse = demand == Demand::chance;
  const Grid grid{
      .nx = is_coarse ? 9 : 17, .subdiv_max = is_coarse ? 6 : 7, .n_cell_data = has_data ? 2 : 0};
  Partition part(MPI_COMM_WORLD, whole, grid);
  Mesh mesh(whole, grid);
  mesh.set_transfer(Transfer::all);
  part.mesh().set_transfer(Transfer::all);
  for (int time = 0; time < 5; ++time) {
    const auto advance = [=](Cell& c) {
      if (!has_data) return;
      c.data[0] = std::tanh(20.0 * (c.x - 0.4 * c.y - 0.1 - 0.15 * time));
      c.data[1] += c.x;
    };
    for (Cell& c : mesh.nodes()) advance(c);
    for (Cell* c : part.owned()) advance(*c);
    part.exchange();
    const double spacing = mesh.dist_0();
    const bool is_graded = time != 3;  // once without, in between
    const size_function size = [=](double x, double y, auto, double, double grad2) {
      return wanted(demand, time, spacing, x, y, grad2);
    };
    const batch_size_function sizes = [&](std::span<const Cell* const> nodes,
                                          std::span<double> of) {
      for (std::size_t i = 0; i < nodes.size(); ++i) {
        of[i] = size(nodes[i]->x, nodes[i]->y, {}, 0.0, nodes[i]->grad2_data);
      }
    };
    const Resolution resolution{.margin = time == 2 ? 1.0 : 0.0, .slope = is_graded ? slope : 0.0};
    mesh.resolve(size, resolution);
    if (time == 2 && part.rank() == 0) spoil_a_ghost(part);  // the update is repaired
    if (time % 2 == 1) {
      part.resolve_batched(sizes, resolution);
    } else {
      part.resolve(size, resolution);
    }
    const PartitionStatistics of_part = part.statistics();
    const UpdateStatistics of_mesh = mesh.statistics();
    const std::array<std::int64_t, 4> did = {of_part.visited, of_part.inserted, of_part.removed,
                                             of_part.refused};
    expect(did == std::array{of_mesh.visited, of_mesh.inserted, of_mesh.removed, of_mesh.refused},
           "statistics", time);
    mesh.compute_derivatives();
    part.compute_derivatives();
    compare(part, mesh, time);
    if (part.rank() == 0) {
      std::printf("demand %d, slope %.2f, time %d: %lld nodes, %lld in, %lld out, %d rounds\n",
                  static_cast<int>(demand), slope, time, static_cast<long long>(part.size()),
                  static_cast<long long>(did[1]), static_cast<long long>(did[2]),
                  of_part.nb_rounds);
    }
    if (time == 1) part.rebalance(1.05);
  }
  expect(part.statistics().nb_repairs == (part.nb_processes() > 1 ? 1 : 0), "repairs", 5);
}

/// A fault of one process ends the others too, wherever they are.
void check_faults() {
  const Grid grid{.nx = 17, .subdiv_max = 8};
  int nb_processes = 1;
  MPI_Comm_size(MPI_COMM_WORLD, &nb_processes);
  for (const int culprit : {0, nb_processes - 1}) {
    for (const int nb_calls_before : {0, 100}) {
      Partition part(MPI_COMM_WORLD, {}, grid);
      int nb_calls = 0;
      const size_function size = [&](double x, double y, auto...) {
        if (part.rank() == culprit && nb_calls++ == nb_calls_before) {
          throw std::runtime_error("size is ill");
        }
        return std::abs(x - y) < 0.02 ? 0.01 : 0.03;
      };
      std::string told;
      try {
        part.resolve(size, {.slope = 0.1});
      } catch (const Error& error) {
        told = error.what();
      }
      expect(told.find("on process " + std::to_string(culprit)) != std::string::npos &&
                 told.find("size is ill") != std::string::npos,
             "a fault is told to all", nb_calls_before);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  for (const double slope : {0.05, 0.3, 2.0}) check(Demand::points, slope);
  check(Demand::step, 0.3);
  check(Demand::curvature, 2.0);
  for (const double slope : {0.592, 0.0}) check(Demand::chance, slope);
  check_faults();
  MPI_Finalize();
  return nb_wrong == 0 ? 0 : 1;
}
