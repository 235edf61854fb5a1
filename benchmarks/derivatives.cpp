// Derivatives of the data: whole passes over adapted meshes, by where the domain lies; the nodes of
// each path by themselves; one fit.
//
// Of the private headers only the fits are used, for the benchmark of a single one.
#include "velmar_2D/derivatives.hpp"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

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

Path path_of(const Cell& c) {
  detail::Stencil list;
  int n_list = 1, quick_hessian_case = 0;
  detail::extract_neighbors(&c, list, n_list);
  if (c.reserve == 4 && n_list == 5) {
    detail::extract_neighbor_square(&c, list, n_list, quick_hessian_case);
    if (quick_hessian_case != 0) return Path::square;
  }
  if (n_list >= 6) return Path::fit;
  if (c.on_boundary == 1 && c.reserve == 2) {
    detail::extract_neighbors_square_boundary(&c, list, n_list);
  }
  return n_list >= 6 ? Path::side : Path::few;
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

/// A node and its eight neighbours at one spacing.
void fit_of_nine(benchmark::State& state, bool by_absolute_coordinates) {
  dist_0 = 1.0 / 64.0;
  Cell c;
  c.x = 0.4;
  c.y = 0.3;
  detail::Stencil list{};
  int n_list = 0;
  for (const int i : {0, 1, -1}) {
    for (const int j : {0, 1, -1}) {
      list.x[n_list] = c.x + i * dist_0;
      list.y[n_list] = c.y + j * dist_0;
      list.value[n_list] = wave(list.x[n_list], list.y[n_list]);
      ++n_list;
    }
  }
  auto* fit = by_absolute_coordinates ? detail::fit_hessian_6pts : detail::fit_hessian_centred;
  double dx2 = 0.0, dy2 = 0.0, dxdy = 0.0, dx = 0.0, dy = 0.0;
  bool succ = false;
  for (auto _ : state) {
    benchmark::DoNotOptimize(list);
    fit(&c, list, n_list, dx2, dy2, dxdy, dx, dy, succ);
    benchmark::DoNotOptimize(dx2);
  }
  if (!succ) state.SkipWithError("the fit was refused");
}

}  // namespace

BENCHMARK_CAPTURE(fit_of_nine, derivatives / fit_9 / centred, false);
BENCHMARK_CAPTURE(fit_of_nine, derivatives / fit_9 / absolute, true);

BENCHMARK_CAPTURE(pass, derivatives / pass_1e6 / unit_square, 0.0, 1.0, 129, 11, 0.05)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(pass, derivatives / pass_1e6 / origin_10, 10.0, 1.0, 129, 11, 0.05)
    ->Unit(benchmark::kMillisecond);

BENCHMARK_CAPTURE(nodes_of_path, derivatives / path / square, Path::square, 0.0);
BENCHMARK_CAPTURE(nodes_of_path, derivatives / path / side, Path::side, 0.0);
BENCHMARK_CAPTURE(nodes_of_path, derivatives / path / fit, Path::fit, 0.0);
BENCHMARK_CAPTURE(nodes_of_path, derivatives / path / retry, Path::few, 0.0);
BENCHMARK_CAPTURE(nodes_of_path, derivatives / path / second_search, Path::few, 10.0);
BENCHMARK_CAPTURE(nodes_of_path, derivatives / path / second_search_unproven, Path::few, 5.0);

// A coarse grid has the largest share of nodes with few neighbours.
BENCHMARK_CAPTURE(pass, derivatives / pass_coarse / unit_square, 0.0, 1.0, 3, 9, 0.3);
BENCHMARK_CAPTURE(pass, derivatives / pass_coarse / origin_5, 5.0, 1.0, 3, 9, 0.3);
BENCHMARK_CAPTURE(pass, derivatives / pass_coarse / origin_10, 10.0, 1.0, 3, 9, 0.3);
BENCHMARK_CAPTURE(pass, derivatives / pass_coarse / size_1000, 0.0, 1000.0, 3, 9, 0.3);
