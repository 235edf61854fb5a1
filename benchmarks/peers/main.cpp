// One case of the comparison at one size. A line of comma-separated values for every measurement:
//
//     case,about,side,what,repetition,count,seconds
//
//     velmar_2d_peers CASE ABOUT [REPETITIONS [STEPS]]
//
// CASE is ring, half, steep, front, creep, steady, walk, derivatives, memory_ours or memory_p4est.
// ABOUT is the size: about so many nodes of ours. `count` is the number of nodes or cells that the
// seconds went into, over all steps of a front; for the memory cases, which belong into a process
// of their own, the last number is bytes. `front` and `creep` do their 50 steps in every
// repetition; with STEPS, repetition r does the steps from 1 + r STEPS on.
//
// The sides take turns within one process, on one core, each starting with an empty heap.
// `compare.py` runs the cases and makes the table.
#include <Eigen/Core>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>

#include "eigen_fits.hpp"
#include "machine.hpp"
#include "ours.hpp"
#include "quadtree.hpp"

namespace velmar_2d::peers {
namespace {

struct Run {
  std::string name;
  std::int64_t about = 0;
  int repetitions = 5;
  int steps = nb_front_steps;  ///< of a front, in one repetition
  bool is_large() const { return about >= 1'000'000; }
};

/// The growth of the spacing with the distance, and the finest spacing. Its values are round
/// figures that give about 10^4, 10^5, 10^6 and 10^7 nodes of ours; where the slope is 2, cells of
/// theirs.
Field field_for(const Run& run) {
  struct Finest {
    std::int64_t about;
    double gentle, half, steep;
  };
  constexpr Finest table[] = {{10'000, 8e-3, 2.5e-3, 1.9e-3},
                              {100'000, 1e-3, 2.4e-4, 1.2e-4},
                              {1'000'000, 1e-4, 2e-5, 8e-6},
                              {10'000'000, 1e-5, 2e-6, 1e-6}};
  Field field;
  for (const Finest& row : table) {
    if (row.about != run.about) continue;
    field.finest = run.name == "steep" ? row.steep : run.name == "half" ? row.half : row.gentle;
    field.grading = run.name == "steep" ? 2.0 : run.name == "half" ? 0.5 : 0.1;
    return field;
  }
  std::fprintf(stderr, "sizes are 1e4, 1e5, 1e6 and 1e7\n");
  std::exit(2);
}

/// `front` crosses the square in its steps; `creep` moves by two finest spacings in each, and turns
/// back at the end of that way.
Field front_at(const Run& run, int step) {
  Field field = field_for(run);
  double place = static_cast<double>(step) / nb_front_steps;
  if (run.name == "creep") {
    const double whole_way = scenarios::travelling_ring(1.0).x - scenarios::travelling_ring(0.0).x;
    const double way = step * 2.0 * field.finest / whole_way;
    place = 1.0 - std::abs(1.0 - std::fmod(way, 2.0));
  }
  field.ring = scenarios::travelling_ring(place);
  return field;
}

void prepare(const Run& run) {
  constexpr std::size_t gibibyte = std::size_t{1} << 30;
  // In pages of each of two kinds.
  prepare_memory(run.about >= 1e7 ? 4 * gibibyte : run.is_large() ? gibibyte : 0);
}

void report(const Run& run, int repetition, const char* side, const char* what, std::int64_t count,
            double seconds) {
  std::printf("%s,%lld,%s,%s,%d,%lld,%.9g\n", run.name.c_str(), static_cast<long long>(run.about),
              side, what, repetition, static_cast<long long>(count), seconds);
  std::fflush(stdout);
}

void report_phases(const Run& run, int repetition, std::int64_t count, const Phases& phases) {
  report(run, repetition, "p4est", "all", count, phases.sum());
  report(run, repetition, "p4est", "refine", count, phases.refine);
  if (phases.coarsen > 0.0) report(run, repetition, "p4est", "coarsen", count, phases.coarsen);
  report(run, repetition, "p4est", "balance", count, phases.balance);
  report(run, repetition, "p4est", "neighbours", count, phases.neighbours);
}

void expect(bool condition, const std::string& text) {
  if (condition) return;
  std::fprintf(stderr, "%s\n", text.c_str());
  std::exit(EXIT_FAILURE);
}

void expect_resolved(const Field& field) {
  expect(ours::too_coarse(field).count == 0, "nodes are too coarse");
}

/// Nodes that stay coarser than wanted, and by how many levels at most, in place of the seconds.
void report_left_over(const Run& run, const ours::TooCoarse& left_over) {
  report(run, 0, "ours", "too coarse", left_over.count, left_over.levels);
}

/// From the first grid until no cell is coarser than wanted: ours by one call that resolves, and by
/// updates; these also until one more would change no position.
void ring(const Run& run) {
  const Field field = field_for(run);
  const ours::Updates needed = ours::updates_needed(field);
  report(run, 0, "both", "finest", 0, field.finest);
  report(run, 0, "ours", "updates", needed.to_resolve, 0.0);
  const int nb_rounds = Quadtree::rounds_needed(field);
  report(run, 0, "p4est", "rounds", nb_rounds, 0.0);
  for (int r = 0; r < run.repetitions; ++r) {
    prepare(run);
    const Stopwatch resolving;
    ours::make_resolved(field, 0);
    report(run, r, "ours", "resolve", nb_nodes, resolving.seconds());
    if (r == 0) expect_resolved(field);
    ours::end();

    const auto time_ours = [&](const char* what, int nb_updates) {
      prepare(run);
      const Stopwatch watch;
      ours::make(field, 0, nb_updates);
      report(run, r, "ours", what, nb_nodes, watch.seconds());
      if (r == 0 && nb_updates == needed.to_resolve) {
        report_left_over(run, ours::too_coarse(field));
      }
      ours::end();
    };
    time_ours("no data", needed.to_resolve);
    if (needed.to_settle != needed.to_resolve) time_ours("until settled", needed.to_settle);

    prepare(run);
    const Stopwatch start;
    Quadtree tree(false);
    const double first = start.seconds();
    Phases phases = tree.adapt(field, false, nb_rounds);
    phases.refine += first;
    report_phases(run, r, tree.nb_cells(), phases);
    expect(tree.nb_too_coarse(field) == 0, "cells are too coarse");
  }
}

const char* what_of(bool resolving, int values) {
  if (resolving) return values == 0 ? "resolve" : "resolve with value and indicators";
  return values == 0 ? "no data" : "value and indicators";
}

/// One more call, after which nothing has changed.
void steady_resolved(const Run& run, const Field& field) {
  for (const int values : {0, 1}) {
    prepare(run);
    ours::make_resolved(field, values);
    const std::int64_t before = mesh_revision;
    for (int r = 0; r < run.repetitions; ++r) {
      const Stopwatch watch;
      ours::resolve(field);
      report(run, r, "ours", what_of(true, values), nb_nodes, watch.seconds());
      expect(mesh_revision == before, "the mesh still changes");
    }
    ours::end();
  }
}

/// One more update, after which every node is where it was.
void steady(const Run& run) {
  const Field field = field_for(run);
  steady_resolved(run, field);
  const int nb_updates = ours::updates_needed(field).to_settle;
  for (const int values : {0, 1}) {
    prepare(run);
    ours::make(field, values, nb_updates);
    const std::uint64_t before = ours::position_hash();
    for (int r = 0; r < run.repetitions; ++r) {
      const Stopwatch watch;
      ours::update(field);
      report(run, r, "ours", what_of(false, values), nb_nodes, watch.seconds());
      if (r == 0) report(run, r, "ours", "inserted and removed", update_statistics.inserted, 0.0);
      expect(ours::position_hash() == before, "the mesh still changes");
    }
    ours::end();
  }
  prepare(run);
  Quadtree tree(false);
  tree.adapt(field, true);
  for (int r = 0; r < run.repetitions; ++r) {
    const std::int64_t before = tree.nb_cells();
    const Phases phases = tree.adapt(field, true);
    report_phases(run, r, tree.nb_cells(), phases);
    expect(tree.nb_cells() == before, "the cells still change");
  }
}

/// Steps of a front on our side. The cost of carrying a value without its indicators cannot be
/// asked for: it is what an update takes less a pass of derivatives right before it.
void front_ours(const Run& run, int r, const char* what, std::int32_t values, bool split_indicators,
                ours::TooCoarse& left_over) {
  prepare(run);
  const int first = (r * run.steps) % nb_front_steps;
  ours::make(front_at(run, first), values, 3);
  double seconds = 0.0;
  std::int64_t count = 0;
  for (int step = first + 1; step <= first + run.steps; ++step) {
    const Field now = front_at(run, step);
    if (split_indicators) {
      const Stopwatch watch;
      ours::compute_derivatives();
      seconds -= watch.seconds();
    }
    const Stopwatch watch;
    ours::update(now);
    seconds += watch.seconds();
    count += nb_nodes;
    if (r == 0 && values == 0) left_over.add(ours::too_coarse(now));
  }
  report(run, r, "ours", what, count, seconds);
  ours::end();
}

void front_resolved(const Run& run, int r, std::int32_t values) {
  prepare(run);
  const int first = (r * run.steps) % nb_front_steps;
  ours::make_resolved(front_at(run, first), values);
  double seconds = 0.0;
  std::int64_t count = 0;
  for (int step = first + 1; step <= first + run.steps; ++step) {
    const Field now = front_at(run, step);
    const Stopwatch watch;
    ours::resolve(now);
    seconds += watch.seconds();
    count += nb_nodes;
    if (r == 0 && values == 0) expect_resolved(now);
  }
  report(run, r, "ours", what_of(true, values), count, seconds);
  ours::end();
}

void front_p4est(const Run& run, int r) {
  prepare(run);
  const int first = (r * run.steps) % nb_front_steps;
  Quadtree tree(true);
  tree.adapt(front_at(run, first), false);
  // A value that refining, coarsening and balancing hand down unchanged, if they lose none.
  const auto value_at = [](double x, double y) {
    return std::floor(x * cells_along) + cells_along * std::floor(y * cells_along);
  };
  tree.set_values(value_at);
  Phases sum;
  std::int64_t count = 0;
  for (int step = first + 1; step <= first + run.steps; ++step) {
    const Field now = front_at(run, step);
    const Phases phases = tree.adapt(now, true);
    sum.refine += phases.refine;
    sum.coarsen += phases.coarsen;
    sum.balance += phases.balance;
    sum.neighbours += phases.neighbours;
    count += tree.nb_cells();
  }
  report_phases(run, r, count, sum);
  expect(tree.largest_difference(value_at) == 0.0, "p4est: values were lost");
}

void front(const Run& run) {
  report(run, 0, "both", "steps", run.steps, 0.0);
  ours::TooCoarse left_over;
  for (int r = 0; r < run.repetitions; ++r) {
    front_resolved(run, r, 0);
    front_ours(run, r, what_of(false, 0), 0, false, left_over);
    front_p4est(run, r);
    front_resolved(run, r, 1);
    front_ours(run, r, what_of(false, 1), 1, false, left_over);
    if (!run.is_large() && run.name == "front") front_ours(run, r, "value", 1, true, left_over);
  }
  report_left_over(run, left_over);
}

/// The sum of the neighbours' values, over all nodes.
void walk(const Run& run) {
  const Field field = field_for(run);
  prepare(run);
  ours::make(field, 1, 3);
  Quadtree tree(true);
  tree.adapt(field, false);
  tree.set_values([&](double x, double y) { return first_value(field, x, y); });
  const std::vector<double> values = tree.values();
  double sum = 0.0;
  for (int r = 0; r < run.repetitions; ++r) {
    const Stopwatch watch;
    sum += ours::walk();
    report(run, r, "ours", "value", nb_nodes, watch.seconds());
    const Stopwatch other;
    sum += tree.walk(values);
    report(run, r, "p4est", "all", tree.nb_cells(), other.seconds());
  }
  expect(std::isfinite(sum), "a value is not finite");
  ours::end();
}

/// Gradient and Hessian norms of all nodes.
void derivatives(const Run& run) {
  const Field field = field_for(run);
  prepare(run);
  ours::make(field, 1, 3);
  ours::set_values(field);
  const std::vector<FitRows> rows = collect_rows();
  std::vector<FitResult> results(rows.size());
  for (int r = 0; r < run.repetitions; ++r) {
    const Stopwatch watch;
    ours::compute_derivatives();
    report(run, r, "ours", "value", nb_nodes, watch.seconds());
    const Stopwatch lu;
    expect(fit_by_lu(rows, results) > 1e-12, "Eigen: a system is singular");
    report(run, r, "eigen", "lu", nb_nodes, lu.seconds());
    const Stopwatch qr;
    expect(fit_by_qr(rows, results) == 6.0, "Eigen: a rank is below 6");
    report(run, r, "eigen", "qr", nb_nodes, qr.seconds());
  }
  // Both sides solve one problem: where seven and more rows leave no choice, their results agree.
  std::size_t i = 0;
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next, ++i) {
    if (rows[i].n < 7) continue;
    expect(std::abs(c->grad2_data - results[i].hessian) <= 1e-6 * (1.0 + results[i].hessian) &&
               std::abs(c->grad_data - results[i].gradient) <= 1e-6 * (1.0 + results[i].gradient),
           "ours and Eigen's derivatives differ");
  }
  ours::end();
}

void memory_ours(const Run& run) {
  const Field field = field_for(run);
  const int nb_updates = ours::updates_needed(field).to_settle;
  prepare_memory(0);
  const auto before = static_cast<double>(resident_bytes());
  reset_peak();
  ours::make(field, 1, nb_updates);
  const auto peak = static_cast<double>(peak_bytes());
  prepare_memory(0);
  report(run, 0, "ours", "at the end", nb_nodes, static_cast<double>(resident_bytes()) - before);
  report(run, 0, "ours", "peak", nb_nodes, peak - before);
  ours::end();
}

void memory_p4est(const Run& run) {
  const Field field = field_for(run);
  const auto before = static_cast<double>(resident_bytes());
  reset_peak();
  Quadtree tree(true);
  tree.adapt(field, false);
  const auto peak = static_cast<double>(peak_bytes());
  prepare_memory(0);
  report(run, 0, "p4est", "at the end", tree.nb_cells(),
         static_cast<double>(resident_bytes()) - before);
  report(run, 0, "p4est", "peak", tree.nb_cells(), peak - before);
}

/// What the measurements were made by and on, as a comment among them.
int print_machine() {
  std::ifstream file("/proc/cpuinfo");
  std::string line, processor = "unknown processor";
  while (std::getline(file, line)) {
    if (line.starts_with("model name")) {
      processor = line.substr(line.find(':') + 2);
      break;
    }
  }
  std::printf("# %s; g++ %s; p4est %s, Eigen %d.%d.%d\n", processor.c_str(), __VERSION__,
              P4EST_VERSION, EIGEN_WORLD_VERSION, EIGEN_MAJOR_VERSION, EIGEN_MINOR_VERSION);
  return 0;
}

int run(int argc, char** argv) {
  const std::map<std::string, std::function<void(const Run&)>> cases = {
      {"ring", ring},
      {"half", ring},
      {"steep", ring},
      {"front", front},
      {"creep", front},
      {"steady", steady},
      {"walk", walk},
      {"derivatives", derivatives},
      {"memory_ours", memory_ours},
      {"memory_p4est", memory_p4est}};
  if (argc == 2 && std::strcmp(argv[1], "machine") == 0) return print_machine();
  if (argc < 3 || cases.count(argv[1]) == 0) {
    std::fprintf(stderr, "usage: velmar_2d_peers CASE ABOUT [REPETITIONS [STEPS]]\n");
    return 2;
  }
  Run run{argv[1], static_cast<std::int64_t>(std::atof(argv[2]))};
  if (argc > 3) run.repetitions = std::atoi(argv[3]);
  if (argc > 4) run.steps = std::atoi(argv[4]);
  cases.at(run.name)(run);
  return 0;
}

}  // namespace
}  // namespace velmar_2d::peers

int main(int argc, char** argv) {
  setenv("OMPI_MCA_btl", "self", 0);  // one process needs no network
  if (sc_MPI_Init(&argc, &argv) != sc_MPI_SUCCESS) return 1;
  sc_init(sc_MPI_COMM_SELF, 0, 0, nullptr, SC_LP_ERROR);
  p4est_init(nullptr, SC_LP_ERROR);
  velmar_2d::peers::pin_one_core();
  const int status = velmar_2d::peers::run(argc, argv);
  sc_finalize();
  sc_MPI_Finalize();
  return status;
}
