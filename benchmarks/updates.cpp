// What adaptation costs per node, at 10^4 to 10^6 nodes:
//
//   ring    from the first grid until a ring front is resolved (three updates)
//   steady  one more update, which leaves every position as it is
//   front   a step of 1/50 of the way of the travelling ring
//   resolve_ring, resolve_steady, resolve_front
//           the same three with resolve_mesh_*(), which needs one call where the others need three
//   threads_steady, threads_creep, threads_front
//           resolve_mesh_*() by one and two threads; `creep` moves by two of the finest spacings
//   walk    the sum over all nodes of their neighbours' values, as a solver's stencil forms it;
//   also
//           after 25 steps of the front, and of copies that lie in memory in the order of the list
//   check   check_mesh()
//
// Each with none and with one value per node. `ns_per_node` counts nodes at the end of the step;
// `bytes_per_node` is the growth of the resident memory.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>

#include "scenarios/scenarios.hpp"

namespace velmar_2d::benchmarks {
namespace {

constexpr std::int32_t nodes_along = 33;
constexpr double coarsest = 1.0 / (nodes_along - 1);

double resident_bytes() {
  long total = 0, resident = 0;
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (file == nullptr) return 0.0;
  if (std::fscanf(file, "%ld %ld", &total, &resident) != 2) resident = 0;
  std::fclose(file);
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

/// delete_mesh() reports on standard output, which belongs to the benchmark's table.
void delete_quietly() {
  std::fflush(stdout);
  const int kept = dup(1);
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return;
  delete_mesh();
  std::fflush(stdout);
  dup2(kept, 1);
  close(kept);
}

/// Finest spacing with which the ring takes about this many nodes.
double finest_for(std::int64_t nodes) { return 80.0 / static_cast<double>(nodes); }

void start(std::int64_t nodes, std::int32_t values) {
  n_cell_data = values;
  const auto levels = 2 * std::ceil(std::log2(coarsest / finest_for(nodes)));
  scenarios::init_unit_square(nodes_along, nodes_along, static_cast<std::int32_t>(levels) + 1);
}

size_function spacing_at(double time, std::int64_t nodes) {
  return scenarios::ring_spacing(scenarios::travelling_ring(time), 0.1, finest_for(nodes),
                                 coarsest);
}

void update(double time, std::int64_t nodes) {
  const size_function size = spacing_at(time, nodes);
  if (n_cell_data == 0) {
    update_mesh_no_init(size);
  } else {
    const scenarios::Ring ring = scenarios::travelling_ring(time);
    update_mesh_init(size,
                     [=](double x, double y) { return std::tanh(20.0 * ring.distance(x, y)); });
  }
}

void resolve_by(int threads, double time, std::int64_t nodes) {
  const size_function size = spacing_at(time, nodes);
  const Resolution resolution{.threads = threads};
  if (n_cell_data == 0) {
    resolve_mesh_no_init(size, resolution);
  } else {
    const scenarios::Ring ring = scenarios::travelling_ring(time);
    const auto value = [=](double x, double y) { return std::tanh(20.0 * ring.distance(x, y)); };
    resolve_mesh_init(size, value, resolution);
  }
}
void resolve(double time, std::int64_t nodes) { resolve_by(1, time, nodes); }

/// Time and nodes of all iterations of a benchmark.
class Cost {
 public:
  explicit Cost(benchmark::State& state) : state_(state) {}

  template <typename Work>
  void time(const Work& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    state_.SetIterationTime(elapsed.count());
    seconds_ += elapsed.count();
    nodes_ += nb_nodes;
    state_.counters["nodes"] = nb_nodes;
    state_.counters["ns_per_node"] = 1e9 * seconds_ / nodes_;
  }

 private:
  benchmark::State& state_;
  double seconds_ = 0.0, nodes_ = 0.0;
};

using Adaptation = void(double time, std::int64_t nodes);

void make_ring(benchmark::State& state, double time, Adaptation* adapt = update) {
  start(state.range(0), static_cast<std::int32_t>(state.range(1)));
  const int calls = adapt == update ? 3 : 1;
  for (int i = 0; i < calls; ++i) adapt(time, state.range(0));
}

void time_ring(benchmark::State& state, Adaptation* adapt) {
  Cost cost(state);
  for (auto _ : state) {
    const double before = resident_bytes();
    cost.time([&] { make_ring(state, 0.5, adapt); });
    state.counters["bytes_per_node"] = (resident_bytes() - before) / nb_nodes;
    delete_quietly();
  }
}
void ring(benchmark::State& state) { time_ring(state, update); }
void resolve_ring(benchmark::State& state) { time_ring(state, resolve); }

void time_steady(benchmark::State& state, Adaptation* adapt) {
  make_ring(state, 0.5, adapt);
  Cost cost(state);
  for (auto _ : state) {
    cost.time([&] { adapt(0.5, state.range(0)); });
  }
  delete_quietly();
}
void steady(benchmark::State& state) { time_steady(state, update); }
void resolve_steady(benchmark::State& state) { time_steady(state, resolve); }

/// Steps of the travelling ring, each so much of its way. The first ones, in which the memory grows
/// to what a step needs, are not timed.
template <typename Adapt>
void time_steps(benchmark::State& state, double step, const Adapt& adapt) {
  constexpr int nb_growing = 2;
  Cost cost(state);
  double way = 0.0;
  const auto go_on = [&] {
    way += step;
    adapt(std::abs(std::remainder(way, 2.0)), state.range(0));
  };
  for (int i = 0; i < nb_growing; ++i) go_on();
  for (auto _ : state) cost.time(go_on);
  delete_quietly();
}

void time_front(benchmark::State& state, Adaptation* adapt) {
  make_ring(state, 0.0, adapt);
  time_steps(state, 1.0 / 50.0, adapt);
}
void front(benchmark::State& state) { time_front(state, update); }
void resolve_front(benchmark::State& state) { time_front(state, resolve); }

void time_threads(benchmark::State& state, double step) {
  const auto threads = static_cast<int>(state.range(2));
  make_ring(state, 0.0, resolve);
  time_steps(state, step,
             [threads](double time, std::int64_t nodes) { resolve_by(threads, time, nodes); });
}
void threads_steady(benchmark::State& state) { time_threads(state, 0.0); }
void threads_creep(benchmark::State& state) {
  constexpr double length_of_way = 0.4;
  time_threads(state, 2.0 * finest_for(state.range(0)) / length_of_way);
}
void threads_front(benchmark::State& state) { time_threads(state, 1.0 / 50.0); }

constexpr NeighbourLink Cell::*links[] = {&Cell::n, &Cell::ne, &Cell::e, &Cell::se,
                                          &Cell::s, &Cell::sw, &Cell::w, &Cell::nw};

void time_walks(benchmark::State& state, const Cell* first) {
  Cost cost(state);
  for (auto _ : state) {
    cost.time([first] {
      double sum = 0.0;
      for (const Cell* c = first; c != nullptr; c = c->next) {
        for (const auto link : links) {
          if (const Cell* neighbour = (c->*link).cell()) sum += neighbour->data[0];
        }
      }
      benchmark::DoNotOptimize(sum);
    });
  }
}

void walk(benchmark::State& state) {
  make_ring(state, 0.5);
  time_walks(state, mesh_beg);
  delete_quietly();
}

void walk_after_front(benchmark::State& state) {
  make_ring(state, 0.0);
  for (int step = 1; step <= 25; ++step) update(step / 50.0, state.range(0));
  time_walks(state, mesh_beg);
  delete_quietly();
}

/// What a walk could gain from yet another order in memory: one node behind the other.
void walk_in_order(benchmark::State& state) {
  make_ring(state, 0.5);
  std::vector<Cell> copies;
  copies.reserve(static_cast<std::size_t>(nb_nodes));
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
    c->used = static_cast<std::int32_t>(copies.size());
    copies.push_back(*c);
  }
  for (Cell& c : copies) {
    const auto copy_of = [&](const Cell* there) {
      return &copies[static_cast<std::size_t>(there->used)];
    };
    if (c.next != nullptr) c.next = copy_of(c.next);
    for (const auto link : links) {
      if (const Cell* neighbour = (c.*link).cell()) c.*link = copy_of(neighbour);
    }
  }
  time_walks(state, copies.data());
  delete_quietly();
}

void check(benchmark::State& state) {
  make_ring(state, 0.5);
  Cost cost(state);
  std::vector<Finding> findings;
  for (auto _ : state) {
    cost.time([&] { check_mesh(findings); });
    if (!findings.empty()) state.SkipWithError("the mesh is broken");
  }
  delete_quietly();
}

void sizes(benchmark::internal::Benchmark* b) {
  b->ArgsProduct({{10'000, 100'000, 1'000'000}, {0, 1}})->ArgNames({"about", "values"});
  b->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(0.3);
}
BENCHMARK(ring)->Apply(sizes);
BENCHMARK(steady)->Apply(sizes);
BENCHMARK(front)->Apply(sizes);
BENCHMARK(resolve_ring)->Apply(sizes);
BENCHMARK(resolve_steady)->Apply(sizes);
BENCHMARK(resolve_front)->Apply(sizes);

void sizes_and_threads(benchmark::internal::Benchmark* b) {
  b->ArgsProduct({{100'000, 1'000'000}, {0, 1}, {1, 2}})->ArgNames({"about", "values", "threads"});
  b->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
}
BENCHMARK(threads_steady)->Apply(sizes_and_threads);
BENCHMARK(threads_creep)->Apply(sizes_and_threads);
BENCHMARK(threads_front)->Apply(sizes_and_threads);

/// The size function of the ring alone, called for every node in list order.
void asking(benchmark::State& state) {
  make_ring(state, 0.5, resolve);
  const size_function size = spacing_at(0.5, state.range(0));
  Cost cost(state);
  for (auto _ : state) {
    cost.time([&] {
      for (const Cell* c = mesh_beg; c != nullptr; c = c->next) {
        benchmark::DoNotOptimize(size(c->x, c->y, {}, 0.0, 0.0));
      }
    });
  }
  delete_quietly();
}
BENCHMARK(asking)->Apply(sizes);

void whole_mesh(benchmark::internal::Benchmark* b, int values) {
  b->ArgsProduct({{10'000, 100'000, 1'000'000}, {values}})->ArgNames({"about", "values"});
  b->UseManualTime()->Unit(benchmark::kMillisecond);
}
void with_values(benchmark::internal::Benchmark* b) { whole_mesh(b, 1); }
void without_values(benchmark::internal::Benchmark* b) { whole_mesh(b, 0); }
BENCHMARK(walk)->Apply(with_values);
BENCHMARK(walk_after_front)->Apply(with_values);
BENCHMARK(walk_in_order)->Apply(with_values);
BENCHMARK(check)->Apply(without_values);

}  // namespace
}  // namespace velmar_2d::benchmarks
