// Derivatives of the data: whole passes over adapted meshes, by where the domain lies, and by
// several threads; the nodes of each path by themselves; one node with eight neighbours, fitted
// over nine rows.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "scenarios/scenarios.hpp"

namespace {

using namespace velmar_2d;

double wave(double x, double y) { return std::sin(7.0 * x) * std::cos(5.0 * y) + x * y; }

/// A square whose lower left corner is (origin, origin), refined along a ring that has moved on a
/// little with every update, so that the mesh has a past; it sticks out of the domain to the west.
/// An existing mesh is used again where it is the one that is asked for.
void make_mesh(double origin, double size, int nodes_per_side, int limit, double grading) {
  struct Plan {
    double origin, size;
    int nodes_per_side, limit;
    double grading;
    bool operator==(const Plan&) const = default;
  };
  static Plan current;
  const Plan plan{origin, size, nodes_per_side, limit, grading};
  if (plan == current) return;
  if (nb_nodes > 0) delete_mesh();
  current = plan;

  n_cell_data = 1;
  scenarios::set_domain(origin, origin + size, origin, origin + size);
  double y_max = 0.0;
  init_mesh(scenarios::all_dirichlet, nodes_per_side, nodes_per_side, limit, y_max);
  const auto value = [=](double x, double y) {
    return wave((x - origin) / size, (y - origin) / size);
  };
  const int nb_updates = limit + 6;
  for (int i = 0; i < nb_updates; ++i) {
    const scenarios::Ring ring{origin + (0.2 + 0.01 * i) * size, origin + 0.5 * size, 0.3 * size};
    const double finest = dist_0 / std::exp2((limit - 1) / 2.0);
    update_mesh_init(scenarios::ring_spacing(ring, grading, finest, dist_0), value);
  }
}

enum class Path { square, side, fit, few };

bool has_cell(NeighbourLink link) { return link.cell() != nullptr; }

/// How the derivatives of a node are found: differences on a regular square, a fit of a square at a
/// side, a fit over the neighbours, a fit for which the neighbours are too few.
Path path_of(const Cell& c) {
  const std::array links = {c.n, c.ne, c.e, c.se, c.s, c.sw, c.w, c.nw};
  const auto nb_neighbours = std::count_if(links.begin(), links.end(), has_cell);
  if (c.reserve == 4 && nb_neighbours == 4) return Path::square;
  if (nb_neighbours >= 5) return Path::fit;
  return c.on_boundary == 1 && c.reserve == 2 && nb_neighbours == 3 ? Path::side : Path::few;
}

void report(benchmark::State& state, std::size_t nb_per_pass) {
  const auto nodes = static_cast<double>(nb_per_pass);
  state.counters["nodes"] = nodes;
  state.counters["per_node"] =
      benchmark::Counter(nodes * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

/// Every node in list order, as an update does it.
void pass(benchmark::State& state, double origin, double size, int nodes_per_side, int limit,
          double grading) {
  make_mesh(origin, size, nodes_per_side, limit, grading);
  for (auto _ : state) {
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) compute_data_at_node(c);
  }
  report(state, static_cast<std::size_t>(nb_nodes));
}

/// Every node at once, as an update does it, by a number of threads.
void all_nodes(benchmark::State& state, int threads) {
  make_mesh(0.0, 1.0, 129, 11, 0.035);
  for (auto _ : state) compute_data_at_all_nodes(threads);
  report(state, static_cast<std::size_t>(nb_nodes));
}

/// The nodes of one path in list order. Nodes with few neighbours are retried near the origin and
/// searched for a second time far from it.
void nodes_of_path(benchmark::State& state, Path path, double origin) {
  make_mesh(origin, 1.0, 33, 14, 0.3);
  std::vector<Cell*> nodes;
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
    if (path_of(*c) == path) nodes.push_back(c);
  }
  for (auto _ : state) {
    for (Cell* c : nodes) compute_data_at_node(c);
  }
  report(state, nodes.size());
}

/// The largest stencil: a node and its eight neighbours at one spacing.
void nine_rows(benchmark::State& state) {
  dist_0 = 1.0 / 64.0;
  Cell c;
  c.x = 0.4;
  c.y = 0.3;
  std::array<Cell, 8> neighbours;
  const std::array<double, 8> away_x = {0, 1, 1, 1, 0, -1, -1, -1};
  const std::array<double, 8> away_y = {1, 1, 0, -1, -1, -1, 0, 1};
  for (std::size_t i = 0; i < 8; ++i) {
    Cell& other = neighbours[i];
    other.id = static_cast<std::int32_t>(i) + 1;
    other.x = c.x + away_x[i] * dist_0;
    other.y = c.y + away_y[i] * dist_0;
    other.data.resize(1);
    other.data[0] = wave(other.x, other.y);
  }
  c.data = neighbours[0].data;
  const std::array links = {&Cell::n, &Cell::ne, &Cell::e, &Cell::se,
                            &Cell::s, &Cell::sw, &Cell::w, &Cell::nw};
  for (std::size_t i = 0; i < 8; ++i) c.*links[i] = &neighbours[i];
  for (auto _ : state) {
    compute_data_at_node(&c);
    benchmark::DoNotOptimize(c.grad2_data);
  }
}

/// A square by its lower left corner (origin, origin).
struct Square {
  double origin, size;
};

void register_all() {
  const auto add = [](const std::string& name, auto&& code) {
    return benchmark::RegisterBenchmark(("derivatives/" + name).c_str(), code);
  };
  add("nine_rows", nine_rows);

  const std::pair<const char*, Square> domains[] = {{"unit_square", {0.0, 1.0}},
                                                    {"origin_5", {5.0, 1.0}},
                                                    {"origin_10", {10.0, 1.0}},
                                                    {"size_1000", {0.0, 1000.0}}};
  for (const auto& [name, domain] : domains) {
    // A coarse first grid has the largest share of nodes with few neighbours.
    add(std::string("pass_coarse/") + name,
        [d = domain](benchmark::State& state) { pass(state, d.origin, d.size, 3, 9, 0.3); });
  }
  for (const auto& [name, domain] : domains) {
    add(std::string("pass_1e6/") + name, [d = domain](benchmark::State& state) {
      pass(state, d.origin, d.size, 129, 11, 0.035);
    })->Unit(benchmark::kMillisecond);
  }

  for (const int threads : {1, 2}) {
    add("all_1e6/threads:" + std::to_string(threads),
        [threads](benchmark::State& state) { all_nodes(state, threads); })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }

  // Nodes with few neighbours: at the origin a stencil is found by retrying; far from it the search
  // is skipped, since it must fail, and the second one finds a stencil; in between the first search
  // runs to its end.
  struct {
    const char* name;
    Path path;
    double origin;
  } const paths[] = {{"square", Path::square, 0.0},
                     {"side", Path::side, 0.0},
                     {"fit", Path::fit, 0.0},
                     {"retry", Path::few, 0.0},
                     {"second_search", Path::few, 10.0},
                     {"both_searches", Path::few, 4.0}};
  for (const auto& one : paths) {
    add(std::string("path/") + one.name,
        [one](benchmark::State& state) { nodes_of_path(state, one.path, one.origin); });
  }
}

const bool registered = (register_all(), true);

}  // namespace
