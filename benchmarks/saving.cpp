// What it costs to save and to load a mesh of about 10^6 nodes with two values, which a front has
// moved through:
//
//   save         to a file, flushed to the disk; `bytes_per_node` of the file
//   save_memory  the same without a disk
//   load         from the file, checked
//   unchecked    the same without check_mesh()
//
// The files lie in the folder of TMPDIR, or in /tmp.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>

#include "scenarios/scenarios.hpp"
#include "velmar_2D/velmar_2D_hdf5.hpp"

namespace velmar_2d::benchmarks {
namespace {

constexpr std::int64_t wanted_nodes = 1'000'000;
constexpr double coarsest = 1.0 / 32.0, finest = 122.0 / wanted_nodes;

/// A ring that moved by ten steps; the second value is a smooth field.
const Mesh& moved_ring() {
  static const Mesh made = [] {
    const auto limit = 2 * static_cast<std::int32_t>(std::ceil(std::log2(coarsest / finest))) + 1;
    Mesh mesh({0.0, 1.0, 0.0, 1.0}, {.nx = 33, .subdiv_max = limit, .n_cell_data = 2});
    for (int step = 0; step < 13; ++step) {
      const scenarios::Ring ring = scenarios::travelling_ring(0.3 + 0.002 * std::max(0, step - 2));
      mesh.update(scenarios::ring_spacing(ring, 0.1, finest, coarsest),
                  [=](double x, double y) { return std::tanh(20.0 * ring.distance(x, y)); });
    }
    for (Cell& c : mesh.nodes()) c.data[1] = std::sin(7.0 * c.x) * std::cos(5.0 * c.y);
    return mesh;
  }();
  return made;
}

std::string file() {
  return (std::filesystem::temp_directory_path() / "velmar_2d_saving.h5").string();
}

void note(benchmark::State& state, std::uintmax_t bytes) {
  const auto nodes = static_cast<double>(moved_ring().size());
  state.counters["nodes"] = nodes;
  state.counters["bytes_per_node"] = static_cast<double>(bytes) / nodes;
}

void save(benchmark::State& state) {
  const Mesh& mesh = moved_ring();
  for (auto _ : state) velmar_2d::save(mesh, file());
  note(state, std::filesystem::file_size(file()));
}

void save_memory(benchmark::State& state) {
  const Mesh& mesh = moved_ring();
  std::size_t bytes = 0;
  for (auto _ : state) bytes = save_to_memory(mesh).size();
  note(state, bytes);
}

void load_file(benchmark::State& state, bool check) {
  velmar_2d::save(moved_ring(), file());
  for (auto _ : state) {
    std::optional<Mesh> mesh = velmar_2d::load(file(), {.check = check});
    state.PauseTiming();
    mesh.reset();
    state.ResumeTiming();
  }
  note(state, std::filesystem::file_size(file()));
  std::filesystem::remove(file());
}
void load(benchmark::State& state) { load_file(state, true); }
void unchecked(benchmark::State& state) { load_file(state, false); }

BENCHMARK(save)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(save_memory)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(load)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(unchecked)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velmar_2d::benchmarks
