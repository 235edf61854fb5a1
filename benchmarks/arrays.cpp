// What the mesh costs as arrays, per node, on the mesh of a ring: as it was made (steps 0), and
// when it has followed the ring for 100 steps of 1/50 of its way, as updates.cpp has them.
//
//   made        MeshArrays of a mesh, the memory for them included
//   updated     the same arrays, after a resolve() for a ring that has moved by two of the finest
//               spacings; that resolve() is `changed`
//   current     update() where nothing has changed
//   records     a walk over the records of the nodes: the sum of all neighbours' values
//   walk        the same in the arrays
//   flux        the two-point fluxes of all nodes, with weights and areas
//   pull, push  one value of all nodes
//
// `per_node` is processor time, of all threads; with two threads look at the time of the clock.
#include "velmar_2D/arrays.hpp"

#include <benchmark/benchmark.h>

#include <cmath>
#include <optional>
#include <vector>

#include "scenarios/scenarios.hpp"

namespace velmar_2d::benchmarks {
namespace {

constexpr std::int32_t nodes_along = 33;
constexpr double coarsest = 1.0 / (nodes_along - 1);

/// The mesh that was asked for last is kept: a hundred steps take their time.
class KeptMesh {
 public:
  Mesh& with(std::int64_t about, std::int64_t steps) {
    if (!mesh_ || about != about_ || steps != steps_) make(about, steps);
    return *mesh_;
  }
  /// Moves the ring by a number of the finest spacings, to and fro.
  void creep(double spacings) {
    const double way = spacings * finest_ / 0.4;
    time_ += time_ + way > 1.0 ? -0.2 : way;
    resolve();
  }

 private:
  void make(std::int64_t about, std::int64_t steps) {
    mesh_.reset();
    about_ = about;
    steps_ = steps;
    finest_ = 80.0 / static_cast<double>(about);
    const auto levels = static_cast<std::int32_t>(2.0 * std::ceil(std::log2(coarsest / finest_)));
    mesh_.emplace(Rectangle{}, Grid{.nx = nodes_along, .subdiv_max = levels + 1, .n_cell_data = 1});
    for (std::int64_t step = 0; step <= steps; ++step) {
      time_ = std::abs(std::remainder(static_cast<double>(step) / 50.0, 2.0));
      resolve();
    }
    for (Cell& c : mesh_->nodes()) c.data[0] = c.x;
  }
  void resolve() {
    mesh_->resolve(
        scenarios::ring_spacing(scenarios::travelling_ring(time_), 0.1, finest_, coarsest));
  }

  std::optional<Mesh> mesh_;
  std::int64_t about_ = 0, steps_ = 0;
  double finest_ = 0.0, time_ = 0.0;
};

KeptMesh& kept() {
  static KeptMesh mesh;
  return mesh;
}

Mesh& mesh_of(const benchmark::State& state) { return kept().with(state.range(0), state.range(1)); }

void count(benchmark::State& state, std::int64_t nodes) {
  state.counters["nodes"] = static_cast<double>(nodes);
  state.counters["per_node"] =
      benchmark::Counter(static_cast<double>(nodes), benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
}

void made(benchmark::State& state) {
  Mesh& mesh = mesh_of(state);
  for (auto _ : state) {
    const MeshArrays arrays(mesh, static_cast<int>(state.range(2)));
    benchmark::DoNotOptimize(arrays.links().data());
  }
  count(state, mesh.size());
}

void change(benchmark::State& state, bool time_resolve) {
  Mesh& mesh = mesh_of(state);
  MeshArrays arrays(mesh, static_cast<int>(state.range(2)));
  for (auto _ : state) {
    if (!time_resolve) state.PauseTiming();
    kept().creep(2.0);
    if (!time_resolve) {
      state.ResumeTiming();
      arrays.update();
    }
  }
  count(state, mesh.size());
}
void changed(benchmark::State& state) { change(state, true); }
void updated(benchmark::State& state) { change(state, false); }

void current(benchmark::State& state) {
  MeshArrays arrays(mesh_of(state));
  for (auto _ : state) benchmark::DoNotOptimize(arrays.update());
}

void records(benchmark::State& state) {
  const Mesh& mesh = mesh_of(state);
  for (auto _ : state) {
    double sum = 0.0;
    for (const Cell& c : mesh.nodes()) {
      for (const Direction d : directions) {
        if (const Cell* there = link(c, d).cell()) sum += there->data[0];
      }
    }
    benchmark::DoNotOptimize(sum);
  }
  count(state, mesh.size());
}

void walk(benchmark::State& state) {
  MeshArrays arrays(mesh_of(state));
  arrays.pull();
  const std::span<const double> u = arrays.values(0);
  const std::span<const std::int32_t> links = arrays.links();
  for (auto _ : state) {
    double sum = 0.0;
    for (const std::int32_t there : links) {
      if (there >= 0) sum += u[static_cast<std::size_t>(there)];
    }
    benchmark::DoNotOptimize(sum);
  }
  count(state, arrays.size());
}

void flux(benchmark::State& state) {
  MeshArrays arrays(mesh_of(state));
  arrays.pull();
  const std::span<const double> u = arrays.values(0), areas = arrays.areas();
  std::vector<double> rate(u.size());
  for (auto _ : state) {
    for (std::int32_t i = 0; i < arrays.size(); ++i) {
      const auto here = static_cast<std::size_t>(i);
      const auto links = arrays.links(i);
      const std::array<double, 8>& weights = arrays.weights(i);
      double sum = 0.0;
      for (std::size_t d = 0; d < 8; ++d) {
        const std::size_t there = links[d] >= 0 ? static_cast<std::size_t>(links[d]) : here;
        sum += weights[d] * (u[there] - u[here]);
      }
      rate[here] = sum / areas[here];
    }
    benchmark::ClobberMemory();
  }
  count(state, arrays.size());
}

void move(benchmark::State& state, bool to_arrays) {
  MeshArrays arrays(mesh_of(state), static_cast<int>(state.range(2)));
  std::vector<double> u(static_cast<std::size_t>(arrays.size()));
  arrays.pull(0, u);
  for (auto _ : state) {
    if (to_arrays) {
      arrays.pull(0, u);
    } else {
      arrays.push(0, u);
    }
    benchmark::ClobberMemory();
  }
  count(state, arrays.size());
}
void pull(benchmark::State& state) { move(state, true); }
void push(benchmark::State& state) { move(state, false); }

/// All cases of one mesh follow one another.
const bool registered = [] {
  const auto add = [](const char* name, void (*run)(benchmark::State&), std::int64_t about,
                      std::int64_t steps, std::initializer_list<std::int64_t> threads) {
    for (const std::int64_t t : threads) {
      benchmark::RegisterBenchmark((std::string("arrays/") + name).c_str(), run)
          ->Args({about, steps, t})
          ->ArgNames({"about", "steps", "threads"})
          ->MeasureProcessCPUTime()
          ->Unit(benchmark::kMillisecond);
    }
  };
  for (const std::int64_t about : {10'000, 100'000, 1'000'000}) {
    for (const std::int64_t steps : {0, 100}) {
      add("made", made, about, steps, {1, 2});
      add("current", current, about, steps, {1});
      add("records", records, about, steps, {1});
      add("walk", walk, about, steps, {1});
      add("flux", flux, about, steps, {1});
      add("pull", pull, about, steps, {1, 2});
      add("push", push, about, steps, {1, 2});
      add("changed", changed, about, steps, {1});
      add("updated", updated, about, steps, {1, 2});
    }
  }
  return true;
}();

}  // namespace
}  // namespace velmar_2d::benchmarks
