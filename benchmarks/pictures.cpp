// What it costs to draw a mesh of a ring, and to write it for ParaView, with about 10^4, 10^5 and
// 10^6 nodes:
//
//   draw/png, draw/svg   links and nodes
//   draw/cells           control cells in the colours of their levels, as a .png file
//   paraview             a .vtu file
//
// The files lie in the folder of TMPDIR, or in /tmp.
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>

#include "scenarios/scenarios.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d::benchmarks {
namespace {

Mesh make_ring(std::int64_t about) {
  constexpr double coarsest = 1.0 / 32.0;
  const double finest = 122.0 / static_cast<double>(about);
  const auto limit = 2 * static_cast<std::int32_t>(std::ceil(std::log2(coarsest / finest))) + 1;
  Mesh mesh({0.0, 1.0, 0.0, 1.0}, {.nx = 33, .subdiv_max = limit});
  mesh.resolve(scenarios::ring_spacing({}, 0.1, finest, coarsest));
  return mesh;
}

/// Times writing a file: `write` is handed the mesh and the path, and returns what went wrong.
template <typename Write>
void time_file(benchmark::State& state, const char* name, const Write& write) {
  const Mesh mesh = make_ring(state.range(0));
  const std::string path = (std::filesystem::temp_directory_path() / name).string();
  for (auto _ : state) {
    const std::string fault = write(mesh, path);
    if (!fault.empty()) state.SkipWithError(fault.c_str());
  }
  using benchmark::Counter;
  const auto nodes = static_cast<double>(mesh.size());
  state.counters["nodes"] = nodes;
  state.counters["per_node"] =
      Counter(nodes, Counter::kIsIterationInvariantRate | Counter::kInvert);
  std::filesystem::remove(path);
}

void draw(benchmark::State& state, const char* name, const io::PictureOptions& options) {
  time_file(state, name, [&](const Mesh& mesh, const std::string& path) {
    return io::draw_mesh(mesh, path, options);
  });
}

void paraview(benchmark::State& state) {
  time_file(state, "velmar_2d_bench.vtu",
            [](const Mesh& mesh, const std::string& path) { return io::write_vtu(mesh, path); });
}

void sizes(benchmark::internal::Benchmark* b) {
  b->Arg(10'000)->Arg(100'000)->Arg(1'000'000)->ArgName("about");
  b->Unit(benchmark::kMillisecond);
}

BENCHMARK_CAPTURE(draw, png, "velmar_2d_bench.png", {})->Apply(sizes);
BENCHMARK_CAPTURE(draw, svg, "velmar_2d_bench.svg", {})->Apply(sizes);
BENCHMARK_CAPTURE(draw, cells, "velmar_2d_bench.png",
                  {.links = false, .cells = io::CellColour::level})
    ->Apply(sizes);
BENCHMARK(paraview)->Apply(sizes);

}  // namespace
}  // namespace velmar_2d::benchmarks
