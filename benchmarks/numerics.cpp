// What the parts for solvers cost, per node, on the mesh of a ring.
//
//   matrix        the matrix of fluxes of a mesh that is new to it, memory kept from the last one
//   first_matrix  the same with its memory, new from the system
//   values        its values anew, with a coefficient for each node
//   faces         the list of faces
//   product       matrix times vector
//   gradient      at all nodes
//   advection     fluxes of bounded values through all faces, and their divergence
//
// `per_node` is processor time.
#include <benchmark/benchmark.h>

#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "scenarios/scenarios.hpp"
#include "velmar_2D/velmar_2D_numerics.hpp"

namespace velmar_2d::benchmarks {
namespace {

using namespace velmar_2d::numerics;

const MeshArrays& arrays_of(const benchmark::State& state) {
  struct Kept {
    std::int64_t about = 0;
    std::optional<Mesh> mesh;
    std::optional<MeshArrays> arrays;
  };
  static Kept kept;
  if (kept.about != state.range(0)) {
    kept.about = state.range(0);
    const double finest = 80.0 / static_cast<double>(kept.about), coarsest = 1.0 / 32.0;
    const auto levels = static_cast<std::int32_t>(2.0 * std::ceil(std::log2(coarsest / finest)));
    kept.arrays.reset();
    kept.mesh.emplace(Rectangle{}, Grid{.nx = 33, .subdiv_max = levels + 1, .n_cell_data = 1});
    kept.mesh->resolve(
        scenarios::ring_spacing(scenarios::travelling_ring(0.0), 0.1, finest, coarsest));
    kept.arrays.emplace(*kept.mesh);
  }
  return *kept.arrays;
}

void count(benchmark::State& state, const MeshArrays& arrays) {
  const auto nodes = static_cast<double>(arrays.size());
  state.counters["nodes"] = nodes;
  state.counters["per_node"] = benchmark::Counter(
      nodes, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

std::vector<double> values_of(const MeshArrays& arrays) {
  std::vector<double> u(arrays.areas().size());
  for (std::size_t i = 0; i < u.size(); ++i) u[i] = 1.5 + std::sin(40.0 * arrays.x()[i]);
  return u;
}

void matrix(benchmark::State& state) {
  const MeshArrays& arrays = arrays_of(state);
  FluxMatrix flux;
  for (auto _ : state) {
    flux.matrix.pattern = 0;  // as if of another mesh
    update(flux, arrays, 2.0);
    benchmark::ClobberMemory();
  }
  count(state, arrays);
}

void first_matrix(benchmark::State& state) {
  const MeshArrays& arrays = arrays_of(state);
  for (auto _ : state) {
    FluxMatrix flux;
    update(flux, arrays, 2.0);
    benchmark::DoNotOptimize(flux.matrix.values.data());
  }
  count(state, arrays);
}

void values(benchmark::State& state) {
  const MeshArrays& arrays = arrays_of(state);
  const std::vector<double> coefficient = values_of(arrays);
  FluxMatrix flux;
  for (auto _ : state) {
    update(flux, arrays, coefficient);
    benchmark::ClobberMemory();
  }
  count(state, arrays);
}

void faces(benchmark::State& state) {
  const MeshArrays& arrays = arrays_of(state);
  for (auto _ : state) {
    const Faces all = faces_of(arrays);
    benchmark::DoNotOptimize(all.length.data());
  }
  count(state, arrays);
}

void product(benchmark::State& state) {
  const MeshArrays& arrays = arrays_of(state);
  const std::vector<double> u = values_of(arrays);
  std::vector<double> result(u.size());
  FluxMatrix flux;
  update(flux, arrays, 2.0);
  for (auto _ : state) {
    multiply(flux.matrix, u, result);
    benchmark::ClobberMemory();
  }
  count(state, arrays);
}

void gradients(benchmark::State& state) {
  const MeshArrays& arrays = arrays_of(state);
  const std::vector<double> u = values_of(arrays);
  std::vector<double> du_dx(u.size()), du_dy(u.size());
  for (auto _ : state) {
    gradient(arrays, u, du_dx, du_dy);
    benchmark::ClobberMemory();
  }
  count(state, arrays);
}

void advection(benchmark::State& state) {
  const MeshArrays& arrays = arrays_of(state);
  const std::vector<double> u = values_of(arrays);
  std::vector<double> rate(u.size());
  const Faces all = faces_of(arrays);
  const SidePieces pieces = side_pieces_of(arrays);
  const std::vector<double> side(pieces.size());
  std::vector<double> fluxes(all.size()), side_fluxes(pieces.size()), wind(all.size());
  for (std::size_t f = 0; f < all.size(); ++f) wind[f] = all.length[f];
  for (auto _ : state) {
    advection_fluxes(Upwind::bounded, arrays, all, pieces, wind, side, u, side, fluxes,
                     side_fluxes);
    divergence(all, fluxes, pieces, side_fluxes, arrays.areas(), rate);
    benchmark::ClobberMemory();
  }
  count(state, arrays);
}

const bool registered = [] {
  for (const std::int64_t about : {10'000, 100'000, 1'000'000}) {
    const auto add = [about](const char* name, void (*run)(benchmark::State&)) {
      benchmark::RegisterBenchmark((std::string("numerics/") + name).c_str(), run)
          ->Args({about})
          ->ArgNames({"about"})
          ->MeasureProcessCPUTime()
          ->Unit(benchmark::kMillisecond);
    };
    add("matrix", matrix);
    add("first_matrix", first_matrix);
    add("values", values);
    add("faces", faces);
    add("product", product);
    add("gradient", gradients);
    add("advection", advection);
  }
  return true;
}();

}  // namespace
}  // namespace velmar_2d::benchmarks
