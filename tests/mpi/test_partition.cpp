// One mesh over several processes, held against one mesh of one process: run by mpirun with any
// number of processes. The exit status tells whether all is alike.
//
//   test_partition ring OVERLAP      the moving ring, with new boxes on the way
//   test_partition updates OVERLAP   plain updates
//   test_partition narrow            too little overlap for them, without repairs: an Error
//   test_partition fault R           functions that throw on process R
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "compare.hpp"

using namespace velmar_2d;

namespace {

/// Numbers of ghosts are those that their owners give: told by sending positions with both.
void check_numbers(Partition& part, int step) {
  const std::size_t n = part.owned().size() + part.ghosts().size();
  std::vector<double> rows(2 * n, -1.0);
  for (std::size_t i = 0; i < part.owned().size(); ++i) {
    const Cell& c = *part.owned()[i];
    rows[2 * i] = static_cast<double>(part.global_number(c));
    rows[2 * i + 1] = c.x + 10.0 * c.y;
    expect(part.global_number(c) == part.first_global_number() + static_cast<std::int64_t>(i),
           "owned nodes are numbered in order", step);
  }
  part.exchange(rows, 2);
  bool are_right = true;
  for (std::size_t k = 0; k < part.ghosts().size(); ++k) {
    const Cell& c = *part.ghosts()[k];
    const double* row = rows.data() + 2 * (part.owned().size() + k);
    are_right = are_right && row[0] == static_cast<double>(part.global_number(c)) &&
                row[1] == c.x + 10.0 * c.y;
  }
  expect(are_right, "numbers of ghosts", step);
}

/// Ghosts that own nodes have no use for: more than two links away from them, and nothing rests on
/// them here.
std::int64_t nb_useless_ghosts(Partition& part) {
  std::set<const Cell*> useful(part.owned().begin(), part.owned().end());
  for (int layer = 0; layer < 2; ++layer) {
    for (const Cell* c : std::set(useful)) {
      for (const Direction d : directions) {
        if (const Cell* there = link(*c, d).cell()) useful.insert(there);
      }
    }
  }
  return std::count_if(part.ghosts().begin(), part.ghosts().end(), [&](const Cell* c) {
    return !useful.contains(c) &&
           std::none_of(directions.begin(), directions.end(), [&](Direction d) {
             const Cell* there = link(*c, d).cell();
             return there != nullptr && (there->ipos > c->ipos || c->ipos == 0);
           });
  });
}

/// With an overlap of 1 links of ghosts are missing at the first grid already.
void run_ring(std::int32_t overlap) {
  const Rectangle& whole = tested_whole;
  const Grid grid = tested_grid(11);
  Partition part(MPI_COMM_WORLD, whole, grid, {.overlap = overlap});
  Mesh mesh(whole, grid);
  mesh.set_transfer(Transfer::all);
  part.mesh().set_transfer(Transfer::all);
  int nb_moves = 0;
  for (int step = 0; step < 12; ++step) {
    const double t = 0.1 * step;
    const size_function size = [=](double x, double y, auto, double grad, double grad2) {
      const double ring = 0.004 + 0.25 * std::abs(std::hypot(x - 0.1 - t, y + 0.3) - 0.2);
      const double curved = std::max(0.01, 0.3 / (1.0 + std::sqrt(grad2) + 0.1 * grad));
      return step % 3 == 1 ? curved : ring;
    };
    const batch_size_function sizes = [&](std::span<const Cell* const> nodes,
                                          std::span<double> of) {
      for (std::size_t i = 0; i < nodes.size(); ++i) {
        const Cell& c = *nodes[i];
        of[i] = size(c.x, c.y, {}, c.grad_data, c.grad2_data);
      }
    };
    const init_data_function init_data = [=](double x, double y) { return std::sin(9.0 * x * y); };
    const Resolution resolution{.margin = step % 4 == 0 ? 1.0 : 0.0};
    if (step == 6) {
      for (Cell* c : part.owned()) c->used = c->ipos == 0 ? 17 : 0;
      if (part.rank() == 0) spoil_a_ghost(part);
    }
    if (step % 5 == 3) {
      mesh.resolve(size, init_data, resolution);
      part.resolve_batched(sizes, init_data, resolution);
    } else {
      mesh.resolve(size, resolution);
      part.resolve(size, resolution);
    }
    compare(part, mesh, step);
    expect(
        step != 6 || std::all_of(part.owned().begin(), part.owned().end(),
                                 [](const Cell* c) { return (c->ipos == 0) == (c->used == 17); }),
        "marks of the caller stay", step);
    mesh.compute_derivatives();
    part.compute_derivatives();
    compare(part, mesh, step);
    if (step % 2 == 1 && part.rebalance()) {
      ++nb_moves;
      compare(part, mesh, step);
    }
    check_numbers(part, step);
    // Owners do not know for certain what ghosts are linked to in third boxes.
    const auto most_useless = std::ssize(part.ghosts()) * (part.nb_processes() > 2 ? 1 : 0) / 50;
    expect(nb_useless_ghosts(part) <= most_useless, "ghosts are of use", step);
    for (const int limit : {2, 12}) {
      if (step != 6) break;
      mesh.set_limit(limit);  // takes nodes away, on both sides of cuts, and others come
      part.mesh().set_limit(limit);
      const size_function other = [=](double x, double y, auto...) {
        return 0.004 + 0.25 * std::abs(y + 0.25 - 0.04 * limit * (x - 0.7));
      };
      mesh.resolve(other, resolution);
      part.resolve(other, resolution);
      compare(part, mesh, step);
      if (part.rebalance(1.0)) compare(part, mesh, step);  // windows are made under the low limit
    }
    for (Cell& c : mesh.nodes()) {
      c.data[0] = std::tanh(20.0 * (c.x - 0.3 * c.y - t));
      c.data[1] += c.x;
    }
    for (Cell* c : part.owned()) {
      c->data[0] = std::tanh(20.0 * (c->x - 0.3 * c->y - t));
      c->data[1] += c->x;
    }
    part.exchange(0, 1);
    part.exchange(1);
  }
  expect(nb_moves > 0 || part.nb_processes() == 1, "the boxes moved", 12);
  const PartitionStatistics statistics = part.statistics();
  expect(statistics.inserted == mesh.statistics().inserted &&
             statistics.removed == mesh.statistics().removed,
         "statistics", 12);
  const bool is_cut = part.nb_processes() > 1;
  expect(statistics.nb_repairs == (is_cut ? 1 + (overlap == 1 ? 1 : 0) : 0) &&
             statistics.overlap == (is_cut ? 2 * std::max(overlap, 2) : overlap),
         "repairs", 12);
  if (part.rank() == 0) {
    std::printf("%lld nodes, %lld ghosts, %d moves, imbalance %.2f, %d repairs, overlap %d\n",
                static_cast<long long>(statistics.nb_nodes),
                static_cast<long long>(statistics.nb_ghosts), nb_moves, statistics.imbalance,
                statistics.nb_repairs, statistics.overlap);
  }

  const std::unique_ptr<Mesh> all = part.gather();
  Partition again(MPI_COMM_WORLD, all.get(), grid.bc_type, {.overlap = overlap});
  compare(again, mesh, 13);
  expect((all != nullptr) == (part.rank() == 0), "process 0 has the whole", 12);
  if (all == nullptr) return;
  Records gathered, expected;
  for (Cell& c : all->nodes()) gathered.insert(record_of(*all, c));
  for (Cell& c : mesh.nodes()) expected.insert(record_of(mesh, c));
  expect(gathered == expected, "the whole is that of one process", 12);
  expect(all->check().empty(), "the whole is in order", 12);
  expect(all->limit() == mesh.limit(), "the limit is the last one", 12);
  gathered.clear();
  expected.clear();
  for (Mesh* one : {all.get(), &mesh}) {
    one->resolve([](double x, double, auto...) { return 0.02 + 0.1 * x; });
    for (Cell& c : one->nodes()) (one == &mesh ? expected : gathered).insert(record_of(*one, c));
  }
  expect(gathered == expected, "the whole goes on as that of one process", 13);
}

/// The text of the Error that a call ends with; empty: none.
template <typename Call>
std::string error_of(const Call& call) {
  try {
    call();
  } catch (const Error& error) {
    return error.what();
  }
  return {};
}

/// Plain updates: without data and with sizes that are told by place, or with a front and sizes
/// that follow its second derivatives.
/// @return steps that were made before an Error; -1: all
int run_updates(bool follows_data, std::int32_t overlap, bool repairs = true) {
  const Rectangle whole{0.1, 1.3, -0.7, 0.2};
  const Grid grid{.nx = 33,
                  .subdiv_max = follows_data ? 11 : 6,  // the latter refuses some
                  .n_cell_data = follows_data ? 2 : 0,
                  .bc_type = [](double, double, std::string_view side) {
                    return side == "North" ? bc_type_neu : bc_type_dir;
                  }};
  Partition part(MPI_COMM_WORLD, whole, grid, {.overlap = overlap, .repairs = repairs});
  Mesh mesh(whole, grid);
  mesh.set_transfer(Transfer::all);
  part.mesh().set_transfer(Transfer::all);
  const int nb_steps = follows_data ? 13 : 5;
  for (int step = 0; step < nb_steps; ++step) {
    const double t = (follows_data ? 0.01 : 0.05) * step;
    const auto front = [=](double x, double y) { return std::tanh(8.0 * (x - 0.3 * y - 0.3 - t)); };
    const size_function size = [=](double x, double y, auto, double, double grad2) {
      if (!follows_data) return 0.004 + 0.25 * std::abs(std::hypot(x - 0.1 - t, y + 0.3) - 0.2);
      if (step < 4) return 0.006 + 0.25 * std::abs(x - 0.3 * y - 0.3 - t);
      return std::max(0.006, 0.1 / std::sqrt(1.0 + grad2));
    };
    const batch_size_function sizes = [&](std::span<const Cell* const> nodes,
                                          std::span<double> of) {
      for (std::size_t i = 0; i < nodes.size(); ++i) {
        const Cell& c = *nodes[i];
        of[i] = size(c.x, c.y, {}, c.grad_data, c.grad2_data);
      }
    };
    try {
      if (step % 4 == 2) {
        mesh.update(size);
        part.update_batched(sizes);
      } else if (step % 4 == 3) {
        mesh.update(size, front);
        part.update(size, front);
      } else {
        mesh.update(size);
        part.update(size);
      }
    } catch (const Error& error) {
      expect(std::strstr(error.what(), "more overlap") != nullptr, error.what(), step);
      return step;
    }
    mesh.compute_derivatives();
    part.compute_derivatives();
    compare(part, mesh, step);
    check_numbers(part, step);
    const PartitionStatistics statistics = part.statistics();
    const UpdateStatistics of_mesh = mesh.statistics();
    expect(statistics.inserted == of_mesh.inserted && statistics.removed == of_mesh.removed &&
               statistics.visited == of_mesh.visited && statistics.refused == of_mesh.refused,
           "statistics", step);
    if (step % 4 == 3) {
      part.rebalance(1.05);  // not where nodes rest on others that have gone, at step 11
      compare(part, mesh, step);
      check_numbers(part, step);
    }
    const auto advance = [&](Cell& c) {
      if (c.data.empty()) return;
      c.data[0] = front(c.x, c.y);
      c.data[1] += c.x;
    };
    for (Cell& c : mesh.nodes()) advance(c);
    for (Cell* c : part.owned()) advance(*c);
    part.exchange();
  }
  const PartitionStatistics statistics = part.statistics();
  if (part.rank() == 0) {
    std::printf("%lld nodes, %d repairs, overlap %d\n", static_cast<long long>(statistics.nb_nodes),
                statistics.nb_repairs, statistics.overlap);
  }
  if (const std::unique_ptr<Mesh> all = part.gather()) {
    // Too little overlap may cost the order in which nodes came, which later updates depend on.
    const bool knows_order = overlap >= 6;
    for (const double size : {0.0, 0.01, 0.03}) {
      Records gathered, expected;
      for (Mesh* one : {all.get(), &mesh}) {
        if (size > 0.0) {
          one->update(
              [=](double x, double y, auto...) { return size + 0.1 * std::abs(x - y - 1.0); });
        }
        for (Cell& c : one->nodes())
          (one == &mesh ? expected : gathered).insert(record_of(*one, c));
      }
      expect(gathered == expected, "the whole is that of one process", nb_steps);
      expect(all->check().empty(), "the whole is in order", nb_steps);
      if (!knows_order) break;
    }
  }
  return -1;
}

/// Updates that find nothing to do send data and one number to each neighbour; and a ghost that is
/// not what its owner has is found by those that change something.
void run_settled() {
  const Grid grid{.nx = 17, .subdiv_max = 8, .n_cell_data = 1};
  Partition part(MPI_COMM_WORLD, {0.0, 1.0, 0.0, 1.0}, grid, {.repairs = false});
  const auto size_at = [](double x0) {
    return [x0](double x, double y, auto...) { return 0.02 + 0.3 * std::abs(x - x0 - 0.2 * y); };
  };
  const std::int64_t nb_pairs = std::int64_t{part.nb_processes()} * (part.nb_processes() - 1);
  for (int step = 0; step < 6; ++step) {
    part.resolve(size_at(0.4));
    const PartitionStatistics settled = part.statistics();
    if (step < 4)
      continue;  // the first ones make the mesh, and let go ghosts that it does not need
    expect(settled.nb_bytes <= 8 * settled.nb_ghosts + 16 * nb_pairs, "little is sent", step);
  }
  part.resolve(size_at(0.42));
  expect(part.statistics().inserted > 0, "the update changes something", 1);
  if (part.nb_processes() == 1) return;
  if (part.rank() == 0) part.linked_ghosts()[0]->reserve += 1;
  expect(!part.agrees(), "a ghost that was changed is found", 1);
  std::string text = error_of([&] { part.resolve(size_at(0.44)); });
  expect(text.find("ghosts differ") != std::string::npos, "it ends the update on all", 1);
}

/// A front as thin as a line on a grid of few cells: boxes that balance it cut cells, where nodes
/// come that are finer than those were when the cells were cut.
void run_line() {
  const Rectangle& whole = tested_whole;
  const Grid grid{.nx = 5, .subdiv_max = 6, .n_cell_data = 1};
  Partition part(MPI_COMM_WORLD, whole, grid);
  Mesh mesh(whole, grid);
  for (int step = 0; step < 3; ++step) {
    const size_function size = [=](double x, double y, auto...) {
      return 0.008 + 0.3 * std::abs(y + 0.5 - 0.1 * step - 0.2 * x);
    };
    if (step == 1) {
      mesh.set_limit(13);
      part.mesh().set_limit(13);
    }
    const Resolution resolution{.slope = step == 2 ? 0.5 : 0.0};
    mesh.resolve(size, resolution);
    part.resolve(size, resolution);
    compare(part, mesh, step);
    part.rebalance(1.0);
    compare(part, mesh, step);
    check_numbers(part, step);
  }
  const PartitionStatistics statistics = part.statistics();
  expect(statistics.imbalance <= 1.1, "boxes are balanced", 3);
  if (part.rank() == 0) {
    std::printf("line: %lld nodes, imbalance %.3f, %d repairs\n",
                static_cast<long long>(statistics.nb_nodes), statistics.imbalance,
                statistics.nb_repairs);
  }
}

void run_fault(int culprit) {
  const std::string named = "on process " + std::to_string(culprit) + " of ";
  const Rectangle whole{0.0, 1.0, 0.0, 1.0};
  const Grid grid{.nx = 17, .subdiv_max = 8, .n_cell_data = 1};
  for (int kind = 0; kind < 7; ++kind) {
    Partition part(MPI_COMM_WORLD, whole, grid);
    const bool is_here = part.rank() == culprit;
    int nb_calls = 0;
    const size_function size = [&](double x, double y, auto...) -> double {
      if (is_here && (kind == 0 || kind == 5) && ++nb_calls == 50)
        throw std::runtime_error("size is ill");
      if (is_here && kind == 4 && ++nb_calls == 50) part.mesh().set_limit(3);
      return (kind == 6 ? 0.004 : 0.02) + 0.3 * std::abs(x - y);
    };
    const init_data_function init_data = [&](double, double) -> double {
      if (is_here && kind == 1 && ++nb_calls == 3) throw std::bad_alloc();
      return 1.0;
    };
    if (kind == 2) {
      part.mesh().set_node_hooks({.inserted =
                                      [&](Cell&, auto) {
                                        if (is_here && ++nb_calls == 5) throw 17;
                                      },
                                  .removing = {}});
    }
    if (kind == 6) {  // looks up now and then
      part.mesh().set_progress_handler(
          [&](const Progress& progress) {
            if (is_here && progress.phase == "refining") throw std::runtime_error("left by hand");
          },
          0.0);
    }
    const Resolution resolution{.most_nodes = kind == 3 && is_here ? part.mesh().size() + 1 : 0};
    const std::string text = error_of([&] {
      if (kind == 5) {
        part.update(size, init_data);
      } else {
        part.resolve(size, init_data, resolution);
      }
    });
    const char* const reasons[] = {
        "size is ill",           "memory is exhausted", "an exception that is no std::exception",
        "nodes would be needed", "the mesh is in use",  "size is ill",
        "left by hand"};
    expect(text.find(named) != std::string::npos, "the process is named", kind);
    expect(text.find(reasons[kind]) != std::string::npos, reasons[kind], kind);
    expect(part.mesh().check().empty(), "the mesh of the process is whole", kind);
    expect(part.owned().empty() && part.linked_ghosts().empty(), "no node that has gone", kind);
    for (const std::string& later :
         {error_of([&] { part.resolve(size); }), error_of([&] { part.exchange(); }),
          error_of([&] { part.rebalance(); })}) {
      expect(later.find("make another Partition") != std::string::npos, "told to be unusable",
             kind);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  const bool has_argument = argc > 1;
  if (has_argument && std::strcmp(argv[1], "updates") == 0) {
    const int overlap = std::atoi(argv[2]);
    expect(run_updates(false, overlap) < 0, "sizes by place", 20);
    expect(run_updates(true, overlap) < 0, "sizes that follow data", 20);
  } else if (has_argument && std::strcmp(argv[1], "narrow") == 0) {
    // What is wrong near the cuts comes in, and is found before it does harm.
    expect(run_updates(true, 2, false) > 0, "too little overlap is told", 20);
  } else if (has_argument && std::strcmp(argv[1], "ring") == 0) {
    run_ring(std::atoi(argv[2]));
    run_line();
    run_settled();
  } else if (argc > 2) {
    run_fault(std::atoi(argv[2]));
  }
  MPI_Finalize();
  return nb_wrong == 0 ? 0 : 1;
}
