// What nodes, values and lines at places cost, and values from one mesh to another, on meshes of
// about a million nodes: the ring of cell_geometry.cpp (argument 0), and an even one (1). Times a
// point, a piece of a line, or a node that gets values.
//
//   locate_walk     a million points along a curve that winds around the ring, each from the last
//   locate_rows     a thousand rows of a thousand pixels, in one call
//   locate_random   a million points in no order, in one call
//   locate_alone    points in no order, each without a start
//   values_*        values_at() for the points of locate_walk
//   line_cut        lines between points in no order
//   transfer_*      to a mesh of the ring, moved by a thousandth
#include <benchmark/benchmark.h>

#include <cmath>

#include "scenarios/scenarios.hpp"
#include "velmar_2D/mesh.hpp"

namespace velmar_2d::benchmarks {
namespace {

constexpr std::size_t nb_points = 1'000'000;

size_function ring_size(double x) {
  return scenarios::ring_spacing({x, 0.5, 0.3}, 0.1, 8e-5, 1.0 / 32);
}

Mesh make_mesh(const size_function& size) {
  Mesh mesh({}, {.nx = 33, .subdiv_max = 19, .n_cell_data = 1});
  for (int i = 0; i < 3; ++i) mesh.update(size, [](double x, double y) { return x * x + y; });
  return mesh;
}

Mesh make_mesh(const benchmark::State& state) {
  return make_mesh(state.range(0) == 0 ? ring_size(0.5) : scenarios::even_spacing(1.0 / 1024));
}

std::vector<Point> curve() {
  std::vector<Point> points;
  for (std::size_t i = 0; i < nb_points; ++i) {
    const double angle = 6.283185307179586 * static_cast<double>(i) / nb_points;
    const double radius = 0.3 + 0.01 * std::sin(200.0 * angle);
    points.push_back({0.5 + radius * std::cos(angle), 0.5 + radius * std::sin(angle)});
  }
  return points;
}

std::vector<Point> rows() {
  std::vector<Point> points;
  for (int j = 0; j < 1000; ++j) {
    for (int i = 0; i < 1000; ++i) points.push_back({(i + 0.5) / 1000.0, (j + 0.5) / 1000.0});
  }
  return points;
}

std::vector<Point> in_no_order() {
  scenarios::Random random{1};
  std::vector<Point> points;
  for (std::size_t i = 0; i < nb_points; ++i) {
    const double x = random.uniform();
    points.push_back({x, random.uniform()});
  }
  return points;
}

void count(benchmark::State& state, std::size_t number, const Mesh& mesh) {
  using benchmark::Counter;
  state.counters["nodes"] = static_cast<double>(mesh.size());
  state.counters["each"] =
      Counter(static_cast<double>(number), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void locate_walk(benchmark::State& state) {
  const Mesh mesh = make_mesh(state);
  const std::vector<Point> points = curve();
  for (auto _ : state) {
    const Cell* last = nullptr;
    for (const Point& p : points) last = mesh.locate(p.x, p.y, last);
    benchmark::DoNotOptimize(last);
  }
  count(state, points.size(), mesh);
}

void locate_together(benchmark::State& state, const std::vector<Point>& points) {
  const Mesh mesh = make_mesh(state);
  for (auto _ : state) benchmark::DoNotOptimize(mesh.locate(points));
  count(state, points.size(), mesh);
}
void locate_rows(benchmark::State& state) { locate_together(state, rows()); }
void locate_random(benchmark::State& state) { locate_together(state, in_no_order()); }

void locate_alone(benchmark::State& state) {
  constexpr std::size_t few = 100'000;
  const Mesh mesh = make_mesh(state);
  const std::vector<Point> points = in_no_order();
  for (auto _ : state) {
    for (std::size_t i = 0; i < few; ++i) {
      benchmark::DoNotOptimize(mesh.locate(points[i].x, points[i].y));
    }
  }
  count(state, few, mesh);
}

void values(benchmark::State& state, Interpolation how) {
  const Mesh mesh = make_mesh(state);
  const std::vector<Point> points = curve();
  for (auto _ : state) benchmark::DoNotOptimize(mesh.values_at(points, how));
  count(state, points.size(), mesh);
}
void values_constant(benchmark::State& state) { values(state, Interpolation::constant); }
void values_linear(benchmark::State& state) { values(state, Interpolation::linear); }
void values_gradient(benchmark::State& state) { values(state, Interpolation::gradient); }

void line_cut(benchmark::State& state) {
  const Mesh mesh = make_mesh(state);
  const std::vector<Point> points = in_no_order();
  std::size_t nb_pieces = 0;
  for (auto _ : state) {
    nb_pieces = 0;
    for (std::size_t i = 0; i < 200; i += 2) {
      nb_pieces += mesh.line_cut(points[i], points[i + 1]).size();
    }
  }
  count(state, nb_pieces, mesh);
}

void transfer_plain(benchmark::State& state) {
  const Mesh from = make_mesh(state);
  Mesh to = make_mesh(ring_size(0.501));
  for (auto _ : state) transfer(from, to);
  count(state, static_cast<std::size_t>(to.size()), from);
}

void transfer_by_areas(benchmark::State& state) {
  const Mesh from = make_mesh(state);
  Mesh to = make_mesh(ring_size(0.501));
  for (auto _ : state) transfer_conservative(from, to);
  count(state, static_cast<std::size_t>(to.size()), from);
}

BENCHMARK(locate_walk)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(locate_rows)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(locate_random)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(locate_alone)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(values_constant)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(values_linear)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(values_gradient)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(line_cut)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(transfer_plain)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(transfer_by_areas)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velmar_2d::benchmarks
