// What the control cells cost per node, on a mesh of a ring with about a million nodes. Each pass
// includes the walk over the node list, which is measured by itself as `nodes`.
//
//   nodes       the walk alone
//   area_cold   classified and looked up, after the caches were cleared
//   area_warm   read from the cache
//   faces       neighbours, lengths and distances
//   polygon     the corners
#include <benchmark/benchmark.h>

#include "scenarios/scenarios.hpp"

namespace velmar_2d::benchmarks {
namespace {

void make_mesh() {
  constexpr std::int32_t nodes_along = 33;
  constexpr double coarsest = 1.0 / (nodes_along - 1), finest = 8e-5;
  if (nb_nodes > 0) delete_mesh();
  n_cell_data = 0;
  scenarios::init_unit_square(nodes_along, nodes_along, 19);
  for (int i = 0; i < 3; ++i) {
    update_mesh_no_init(scenarios::ring_spacing({}, 0.1, finest, coarsest));
  }
}

/// Times passes of `measure` over all nodes; it returns a number, so that its work is needed.
template <typename Measure>
void pass(benchmark::State& state, const Measure& measure) {
  make_mesh();
  for (auto _ : state) {
    double sum = 0.0;
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) sum += measure(c);
    benchmark::DoNotOptimize(sum);
  }
  using benchmark::Counter;
  state.counters["nodes"] = nb_nodes;
  state.counters["per_node"] =
      Counter(nb_nodes, Counter::kIsIterationInvariantRate | Counter::kInvert);
  delete_mesh();
}

void nodes(benchmark::State& state) {
  pass(state, [](const Cell* c) { return c->x; });
}

void area_cold(benchmark::State& state) {
  pass(state, [](Cell* c) {
    c->area = -1.0;
    c->signature_set = false;
    return cell_area(c);
  });
}

void area_warm(benchmark::State& state) {
  pass(state, [](Cell* c) { return cell_area(c); });
}

void faces(benchmark::State& state) {
  CellFaces faces;
  pass(state, [&](const Cell* c) {
    cell_faces(c, faces);
    return faces.length[0] + faces.side[0];
  });
}

void polygon(benchmark::State& state) {
  std::array<Point, max_cell_corners> corners;
  std::int32_t n = 0;
  pass(state, [&](const Cell* c) {
    cell_polygon(c, corners, n);
    return corners[0].x;
  });
}

BENCHMARK(nodes)->Unit(benchmark::kMillisecond);
BENCHMARK(area_cold)->Unit(benchmark::kMillisecond);
BENCHMARK(area_warm)->Unit(benchmark::kMillisecond);
BENCHMARK(faces)->Unit(benchmark::kMillisecond);
BENCHMARK(polygon)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velmar_2d::benchmarks
