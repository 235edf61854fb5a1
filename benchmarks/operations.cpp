// Every operation by itself, at about 10^3 to 10^6 nodes of a mesh that follows a ring, with the
// order of its cost: O(N) for what goes over the whole mesh, O(1) for single nodes and for the
// lists.
//
// `ns_per_node` counts nodes of the mesh at the end of the operation; for insert_one and remove_one
// it is the time of one node.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <vector>

#include "scenarios/scenarios.hpp"

namespace velmar_2d::benchmarks {
namespace {

constexpr std::int32_t nodes_along = 17;
constexpr double coarsest = 1.0 / (nodes_along - 1);

double finest_for(std::int64_t nodes) { return std::min(100.0 / static_cast<double>(nodes), 0.03); }

std::int32_t limit_for(std::int64_t nodes) {
  return 2 * static_cast<std::int32_t>(std::ceil(std::log2(coarsest / finest_for(nodes)))) + 2;
}

void update(double time, std::int64_t nodes) {
  update_mesh_no_init(
      scenarios::ring_spacing(scenarios::travelling_ring(time), 0.1, finest_for(nodes), coarsest));
}

void start(std::int64_t nodes, std::int32_t values) {
  message_handler = [](std::string_view) {};
  n_cell_data = values;
  scenarios::init_unit_square(nodes_along, nodes_along, limit_for(nodes));
}

/// A settled mesh; with values, those of a smooth field.
void make_mesh(std::int64_t nodes, std::int32_t values) {
  start(nodes, values);
  for (int i = 0; i < 3; ++i) update(0.5, nodes);
  if (values == 0) return;
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
    c->data[0] = std::sin(7.0 * c->x) * std::cos(5.0 * c->y);
  }
}

/// Times the iterations of a benchmark and counts what they worked on.
class Cost {
 public:
  explicit Cost(benchmark::State& state) : state_(state) {}

  /// `count` is called after the work.
  template <typename Work, typename Count>
  void time(const Work& work, const Count& count) {
    nodes_ = std::max(nodes_, nb_nodes);
    const auto begin = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
    state_.SetIterationTime(elapsed.count());
    seconds_ += elapsed.count();
    count_ += static_cast<double>(count());
    state_.counters["ns_per_node"] = 1e9 * seconds_ / count_;
    nodes_ = std::max(nodes_, nb_nodes);
  }
  template <typename Work>
  void time(const Work& work) {
    time(work, [] { return nb_nodes; });
  }

  ~Cost() {
    state_.counters["nodes"] = nodes_;
    state_.SetComplexityN(nodes_);
    if (nb_nodes > 0) delete_mesh();
  }
  Cost(const Cost&) = delete;
  Cost& operator=(const Cost&) = delete;

 private:
  benchmark::State& state_;
  double seconds_ = 0.0, count_ = 0.0;
  std::int32_t nodes_ = 0;
};

void init_grid(benchmark::State& state) {
  Cost cost(state);
  const auto along = static_cast<std::int32_t>(std::sqrt(static_cast<double>(state.range(0))));
  message_handler = [](std::string_view) {};
  n_cell_data = 0;
  for (auto _ : state) {
    cost.time([&] { scenarios::init_unit_square(along, along, 4); });
    delete_mesh();
  }
}

void delete_whole(benchmark::State& state) {
  Cost cost(state);
  for (auto _ : state) {
    make_mesh(state.range(0), 0);
    const std::int32_t nodes = nb_nodes;
    cost.time([] { delete_mesh(); }, [=] { return nodes; });
  }
}

void update_from_scratch(benchmark::State& state) {
  Cost cost(state);
  for (auto _ : state) {
    start(state.range(0), 0);
    cost.time([&] { update(0.5, state.range(0)); });
    delete_mesh();
  }
}

/// An update after which every node is where it was.
template <int values>
void update_steady(benchmark::State& state) {
  Cost cost(state);
  make_mesh(state.range(0), values);
  for (auto _ : state) {
    cost.time([&] { update(0.5, state.range(0)); });
  }
}

/// The front goes to and fro by 1/50 of its way.
template <int values>
void update_front(benchmark::State& state) {
  Cost cost(state);
  make_mesh(state.range(0), values);
  int step = 0;
  for (auto _ : state) {
    cost.time([&] { update(++step % 2 == 1 ? 0.52 : 0.5, state.range(0)); });
  }
}

void split_and_join(benchmark::State& state) {
  Cost cost(state);
  make_mesh(state.range(0), 0);
  for (auto _ : state) {
    cost.time([] {
      split_sublists();
      join_sublists();
    });
  }
}

/// The two finest levels are taken away, which are most of the nodes.
void lower_limit(benchmark::State& state) {
  Cost cost(state);
  make_mesh(state.range(0), 0);
  const std::int32_t limit = level_range[1];
  for (auto _ : state) {
    const std::int32_t before = nb_nodes;
    cost.time([&] { set_subdiv_max(limit - 2); }, [=] { return before; });
    set_subdiv_max(limit_for(state.range(0)));
    update(0.5, state.range(0));
    update(0.5, state.range(0));
  }
}

/// Places for new nodes, none of them next to another: each keeps its parents to itself.
std::vector<Vertex> free_places() {
  constexpr std::size_t enough = 100;
  set_subdiv_max(level_max + 2);
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->used = 0;
  std::vector<Vertex> places;
  std::array<Vertex, 4> proposals;
  for (Cell* c = mesh_beg; c != nullptr && places.size() < enough; c = c->next) {
    std::int32_t n = 0;
    build_vertex(c, proposals, n);
    if (n == 0) continue;
    const Vertex& v = proposals[0];
    const std::array parents = {v.p1, v.p2, v.p3, v.p4};
    const auto is_free = [](const Cell* p) { return p != nullptr && p->used == 0; };
    if (!std::all_of(parents.begin(), parents.end(), is_free)) continue;
    for (Cell* p : parents) p->used = 1;
    places.push_back(v);
  }
  return places;
}

void insert_all(const std::vector<Vertex>& places) {
  for (const Vertex& v : places) {
    v.level % 2 == 1 ? insert_node_odd_level(v) : insert_node_even_level(v);
  }
}

std::vector<Cell*> nodes_at(const std::vector<Vertex>& places) {
  std::vector<Cell*> nodes;
  for (const Vertex& v : places) {
    const Cell& p = *v.p1;
    for (const NeighbourLink link : {p.n, p.ne, p.e, p.se, p.s, p.sw, p.w, p.nw}) {
      Cell* c = link.cell();
      if (c != nullptr && c->x == v.x && c->y == v.y) nodes.push_back(c);
    }
  }
  return nodes;
}

void remove_all(std::vector<Cell*> nodes) {
  for (Cell*& c : nodes) c->n.empty() ? remove_node_odd_level(c) : remove_node_even_level(c);
}

void insert_one(benchmark::State& state) {
  Cost cost(state);
  make_mesh(state.range(0), 0);
  const std::vector<Vertex> places = free_places();
  for (auto _ : state) {
    cost.time([&] { insert_all(places); }, [&] { return places.size(); });
    remove_all(nodes_at(places));
  }
}

void remove_one(benchmark::State& state) {
  Cost cost(state);
  make_mesh(state.range(0), 0);
  const std::vector<Vertex> places = free_places();
  for (auto _ : state) {
    insert_all(places);
    const std::vector<Cell*> nodes = nodes_at(places);
    const std::int32_t before = nb_nodes;
    cost.time([&] { remove_all(nodes); }, [&] { return before - nb_nodes; });
  }
}

/// A pass over all nodes of a settled mesh with a value per node.
template <typename Visit>
void pass(benchmark::State& state, const Visit& visit) {
  Cost cost(state);
  make_mesh(state.range(0), 1);
  double sum = 0.0;
  for (auto _ : state) {
    cost.time([&] {
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) sum += visit(c);
      benchmark::DoNotOptimize(sum);
    });
  }
}

void derivatives(benchmark::State& state) {
  pass(state, [](Cell* c) {
    compute_data_at_node(c);
    return c->grad2_data;
  });
}

void area(benchmark::State& state) {
  pass(state, [](Cell* c) {
    c->area = -1.0;
    c->signature_set = false;
    return cell_area(c);
  });
}

void faces(benchmark::State& state) {
  CellFaces faces;
  pass(state, [&](const Cell* c) {
    cell_faces(c, faces);
    return faces.length[0];
  });
}

void walk(benchmark::State& state) {
  pass(state, [](const Cell* c) {
    double sum = 0.0;
    for (const NeighbourLink link : {c->n, c->ne, c->e, c->se, c->s, c->sw, c->w, c->nw}) {
      if (const Cell* neighbour = link.cell()) sum += neighbour->data[0];
    }
    return sum;
  });
}

void check(benchmark::State& state) {
  Cost cost(state);
  make_mesh(state.range(0), 1);
  std::vector<Finding> findings;
  for (auto _ : state) {
    cost.time([&] { benchmark::DoNotOptimize(check_mesh(findings)); });
  }
  if (!findings.empty()) state.SkipWithError("the mesh is not whole");
}

void sizes(benchmark::internal::Benchmark* b) {
  b->RangeMultiplier(10)->Range(1'000, 1'000'000);
  b->UseManualTime()->Unit(benchmark::kMicrosecond);
}

void whole_mesh(benchmark::internal::Benchmark* b) {
  b->Apply(sizes)->MinTime(0.1)->Complexity(benchmark::oN);
}
void one_node(benchmark::internal::Benchmark* b) {
  b->Apply(sizes)->MinTime(0.01)->Complexity(benchmark::o1);
}
/// What has to be set up anew for each measurement takes long to measure.
void set_up_anew(benchmark::internal::Benchmark* b) {
  b->Apply(sizes)->Iterations(3)->Complexity(benchmark::oN);
}

BENCHMARK(init_grid)->Apply(whole_mesh);
BENCHMARK(delete_whole)->Apply(set_up_anew);
BENCHMARK(update_from_scratch)->Apply(whole_mesh);
BENCHMARK(update_steady<0>)->Apply(whole_mesh);
BENCHMARK(update_steady<1>)->Apply(whole_mesh);
BENCHMARK(update_front<0>)->Apply(whole_mesh);
BENCHMARK(update_front<1>)->Apply(whole_mesh);
BENCHMARK(split_and_join)->Apply(one_node);
BENCHMARK(lower_limit)->Apply(set_up_anew);
BENCHMARK(insert_one)->Apply(one_node);
BENCHMARK(remove_one)->Apply(one_node);
BENCHMARK(derivatives)->Apply(whole_mesh);
BENCHMARK(area)->Apply(whole_mesh);
BENCHMARK(faces)->Apply(whole_mesh);
BENCHMARK(walk)->Apply(whole_mesh);
BENCHMARK(check)->Apply(whole_mesh);

}  // namespace
}  // namespace velmar_2d::benchmarks
