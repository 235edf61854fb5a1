// resolve() and update() by turns on several processes, held against one mesh of one process: run
// by mpirun with any number of processes. The exit status tells whether all is alike.
#include <algorithm>
#include <cmath>

#include "compare.hpp"

using namespace velmar_2d;

namespace {

const Rectangle whole{0.1, 1.3, -0.7, 0.2};
Grid grid_with(int n_cell_data) {
  return {.nx = 17,
          .subdiv_max = 9,
          .n_cell_data = n_cell_data,
          .bc_type = [](double, double, std::string_view side) {
            return side == "North" ? bc_type_neu : bc_type_dir;
          }};
}

double front(double x, double y, double t) { return std::tanh(8.0 * (x - 0.3 * y - 0.3 - t)); }

void advance(Cell& c, double t) {
  if (c.data.empty()) return;
  c.data[0] = front(c.x, c.y, t);
  c.data[1] += c.x;
}

/// As steep as can be, so that plain updates leave nodes whose parents have gone.
size_function chance_at(double t) {
  return [=](double x, double y, auto...) {
    const double number = 43758.5453 * std::sin(12.9898 * x + 78.233 * y + 1.7 * (t + 5.0));
    const bool is_fine = number - std::floor(number) < 0.4 && std::abs(x - 0.7) < 0.12;
    return is_fine ? 0.008 : 0.05;
  };
}
size_function ring_at(double t, double steepness) {
  return [=](double x, double y, auto...) {
    return 0.02 + steepness * std::abs(std::hypot(x - 0.1 - t, y + 0.3) - 0.2);
  };
}
size_function curved_at(double t) {
  return [=](double x, double y, auto, double, double grad2) {
    return std::min(0.3 / std::sqrt(1.0 + grad2), 0.015 + 0.25 * std::abs(x - 0.3 * y - 0.3 - t));
  };
}

/// Both forms, on a Mesh and on a Partition.
void adapt(Mesh& mesh, Partition& part, bool resolves, int step) {
  const double t = 0.05 * step;
  const size_function size = mesh.n_cell_data() > 0 ? curved_at(t) : ring_at(t, 0.4);
  if (resolves) {
    mesh.resolve(size);
    part.resolve(size);
  } else {
    mesh.update(size);
    part.update(size);
  }
  mesh.compute_derivatives();
  part.compute_derivatives();
  compare(part, mesh, step);
  for (Cell& c : mesh.nodes()) advance(c, t);
  for (Cell* c : part.owned()) advance(*c, t);
  part.exchange();
}

/// A mesh that was resolved, with its nodes in the order in which gather() hands them out.
Mesh gathered(const Mesh& mesh, const Grid& grid) {
  return std::move(*Partition(MPI_COMM_SELF, &mesh, grid.bc_type).gather());
}

void update(Mesh& mesh, Partition& part) {
  for (int step = 0; step < 4; ++step) {
    const double t = 0.05 * step;
    const size_function size = step % 2 == 0 ? ring_at(t, 0.0) : chance_at(t);
    mesh.update(size);
    part.update(size);
    compare(part, mesh, step);
    for (Cell& c : mesh.nodes()) advance(c, t);
    for (Cell* c : part.owned()) advance(*c, t);
    part.exchange();
  }
  if (const std::unique_ptr<Mesh> all = part.gather()) {
    all->resolve([](double, double, auto...) { return -1.0; });  // keeps what is there
    expect(all->statistics().inserted > 20, "nodes rest on others that have gone", 4);
  }
}

void resolve(Mesh& mesh, Partition& part) {
  const bool has_data = mesh.n_cell_data() > 0;
  for (int step = 4; step < 7; ++step) {
    const double t = 0.05 * step;
    const size_function follows = has_data ? curved_at(t) : ring_at(t, 0.4);
    const size_function size = [&](double x, double y, auto data, double grad, double grad2) {
      const double wanted = follows(x, y, data, grad, grad2);
      // At step 5 those near a cut go, so that others become ghosts.
      const bool keeps = step == 4 || (step == 5 && std::abs(x - 0.7) > 0.04);
      return keeps ? std::min(wanted, chance_at(0.15)(x, y, data, grad, grad2)) : wanted;
    };
    const Resolution resolution{.slope = step == 6 ? 0.3 : 0.0};
    if (step == 4 && has_data) {
      const auto init_data = [](double x, double y) { return front(x, y, 0.15); };
      mesh.resolve(size, init_data, resolution);
      part.resolve(size, init_data, resolution);
    } else {
      mesh.resolve(size, resolution);
      part.resolve(size, resolution);
    }
    const PartitionStatistics did = part.statistics();
    const UpdateStatistics of_mesh = mesh.statistics();
    expect(did.inserted == of_mesh.inserted && did.removed == of_mesh.removed &&
               did.visited == of_mesh.visited,
           "statistics", step);
    compare(part, mesh, step);
    for (Cell& c : mesh.nodes()) advance(c, t);
    for (Cell* c : part.owned()) advance(*c, t);
    part.exchange();
  }
}

void run(int n_cell_data) {
  const Grid grid = grid_with(n_cell_data);
  Partition part(MPI_COMM_WORLD, whole, grid, {.overlap = 6});
  Mesh mesh(whole, grid);
  mesh.set_transfer(Transfer::all);
  part.mesh().set_transfer(Transfer::all);
  update(mesh, part);
  for (Cell* c : part.owned()) c->used = c->ipos == 0 ? 17 : 0;
  const auto has_marks = [&] {
    return std::all_of(part.owned().begin(), part.owned().end(),
                       [](const Cell* c) { return (c->ipos == 0) == (c->used == 17); });
  };
  resolve(mesh, part);
  expect(has_marks(), "marks of the caller stay", 6);
  for (const int step : {7, 8, 9, 10}) {
    // Nodes that were resolved count as having come by place.
    if (step == 7 || step == 10) mesh = gathered(mesh, grid);
    adapt(mesh, part, step == 9, step);
    if (step == 8) expect(has_marks(), "marks of the caller stay", 8);
    if (step == 9) part.rebalance(1.0);
  }
  expect(part.statistics().nb_repairs == 0, "repairs", 10);
}

/// The limit changes after both forms.
void change_limits(int n_cell_data, Transfer transfer) {
  const Grid grid = grid_with(n_cell_data);
  Partition part(MPI_COMM_WORLD, whole, grid, {.overlap = 6});
  Mesh mesh(whole, grid);
  mesh.set_transfer(transfer);
  part.mesh().set_transfer(transfer);
  // A few nodes want to stay fine. What they rest on goes with those that are too fine.
  const size_function here_and_there = [](double x, double y, auto...) {
    const double number = 43758.5453 * std::sin(12.9898 * x + 78.233 * y);
    return number - std::floor(number) < 0.03 ? 0.008 : 1.0;
  };
  for (const int limit : {9, 3, 6}) {
    mesh.resolve(limit == 9 ? ring_at(0.1, 0.4) : here_and_there);
    part.resolve(limit == 9 ? ring_at(0.1, 0.4) : here_and_there);
    mesh.set_limit(limit);
    part.set_limit(limit);
    compare(part, mesh, limit);
    mesh.resolve(here_and_there);
    part.resolve(here_and_there);
    compare(part, mesh, limit);
  }
  struct Turn {
    bool resolves;
    int limit;
  };
  constexpr Turn turns[] = {{true, 3}, {true, 0}, {true, 9}, {false, 3}, {false, 8}, {true, 2}};
  for (int step = 1; const auto& [resolves, limit] : turns) {
    if (step == 4) mesh = gathered(mesh, grid);
    adapt(mesh, part, resolves, step);
    const std::int64_t before = mesh.size();
    mesh.set_limit(limit);
    part.set_limit(limit);
    expect(limit > 5 || mesh.size() < before, "nodes go", step);
    compare(part, mesh, step);
    if (step == 2) part.rebalance(1.0);
    ++step;
  }
  expect(part.statistics().nb_repairs == 0, "repairs", 6);
  std::string told;
  try {
    part.set_limit(part.rank() == part.nb_processes() - 1 ? -1 : 3);
  } catch (const Error& error) {
    told = error.what();
  }
  expect(told.find("on process " + std::to_string(part.nb_processes() - 1)) != std::string::npos,
         "a fault is told to all", 7);
}

/// A mesh that plain updates and single steps of one process have made goes on as a Partition.
void share_out(bool is_steep) {
  const Grid grid = grid_with(2);
  Mesh mesh(whole, grid);
  mesh.set_transfer(Transfer::all);
  for (int step = 0; step < 4; ++step) {
    const double t = 0.05 * step;
    mesh.update(!is_steep ? curved_at(t) : step % 2 == 0 ? ring_at(t, 0.0) : chance_at(t));
    for (Cell& c : mesh.nodes()) advance(c, t);
  }
  if (is_steep) {
    mesh.resolve([](double, double, auto...) { return 0.0192; });
    bool has_gone = false;  // by a single step, from among finer ones
    for (Cell& c : mesh.nodes()) {
      if (c.ipos != 1 || c.on_boundary != 0) continue;
      has_gone = mesh.remove_node_even_level(c);
      if (has_gone) break;
    }
    expect(has_gone, "a node has gone from among finer ones", 20);
  }
  int rank = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  Partition part(MPI_COMM_WORLD, rank == 0 ? &mesh : nullptr, grid.bc_type, {.overlap = 6});
  compare(part, mesh, 20);
  for (const int step : {4, 5, 6}) adapt(mesh, part, step == 6, step);
  expect(part.statistics().nb_repairs == 0, "repairs", 20);
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  run(0);
  run(2);
  change_limits(0, Transfer::first);
  change_limits(2, Transfer::all);
  change_limits(2, Transfer::remap);
  share_out(false);
  share_out(true);
  MPI_Finalize();
  return nb_wrong == 0 ? 0 : 1;
}
