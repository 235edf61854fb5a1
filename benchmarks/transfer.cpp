// What it costs to hand four values on: a step of resolve() for a front that moves by a number of
// the finest spacings, per node, with each kind of transfer (first 0, all 1, conservative 2, remap 3).
#include <benchmark/benchmark.h>

#include <cmath>

#include "scenarios/scenarios.hpp"
#include "velmar_2D/mesh.hpp"

namespace velmar_2d::benchmarks {
namespace {

void handing_on(benchmark::State& state) {
  const double finest = 80.0 / static_cast<double>(state.range(0));
  const double step = static_cast<double>(state.range(1)) * finest;
  constexpr std::int32_t nodes_along = 33, nb_values = 4;
  constexpr double coarsest = 1.0 / (nodes_along - 1);
  const auto levels = static_cast<std::int32_t>(2.0 * std::ceil(std::log2(coarsest / finest)));
  Mesh mesh({}, {.nx = nodes_along, .subdiv_max = levels + 1, .n_cell_data = nb_values});
  mesh.set_transfer(static_cast<Transfer>(state.range(2)));
  double centre = 0.3;
  const auto resolve = [&] {
    mesh.resolve(scenarios::ring_spacing({centre, 0.5, 0.2}, 0.1, finest, coarsest));
  };
  resolve();
  for (Cell& c : mesh.nodes()) {
    for (std::size_t k = 0; k < nb_values; ++k) c.data[k] = std::sin(5.0 * c.x + c.y);
  }
  std::int64_t nodes = 0;
  for (auto _ : state) {
    centre = centre + step > 0.7 ? 0.3 : centre + step;
    resolve();
    nodes += mesh.size();
  }
  state.counters["nodes"] = static_cast<double>(mesh.size());
  state.counters["per_node"] = benchmark::Counter(
      static_cast<double>(nodes), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(handing_on)
    ->ArgsProduct({{100'000, 1'000'000}, {100, 2}, {0, 1, 2, 3}})
    ->ArgNames({"about", "spacings", "transfer"})
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velmar_2d::benchmarks
