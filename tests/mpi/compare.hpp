// One mesh over several processes, held against one mesh of one process.
#pragma once

#include <cmath>
#include <cstdio>
#include <set>
#include <vector>

#include "velmar_2D/velmar_2D_mpi.hpp"

namespace velmar_2d {

/// A rectangle away from the origin, and a first grid of it with two kinds of sides.
inline const Rectangle tested_whole{0.1, 1.3, -0.7, 0.2};
inline Grid tested_grid(std::int32_t subdiv_max) {
  return {.nx = 17,
          .subdiv_max = subdiv_max,
          .n_cell_data = 2,
          .bc_type = [](double, double, std::string_view side) {
            return side == "North" ? bc_type_neu : bc_type_dir;
          }};
}

inline int nb_wrong = 0;

inline void expect(bool is_so, const char* what, int step) {
  if (is_so) return;
  ++nb_wrong;
  int rank = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  std::printf("process %d, step %d: not so: %s\n", rank, step, what);
  std::fflush(stdout);
}

/// What must be alike, wherever a node is kept.
inline std::vector<double> record_of(Mesh& mesh, Cell& c) {
  std::vector<double> record = {c.x, c.y, mesh.area(c), c.grad_data, c.grad2_data};
  for (const int number : {c.level, c.reserve, c.ipos, c.on_boundary}) record.push_back(number);
  record.insert(record.end(), c.data.begin(), c.data.end());
  for (const Direction d : directions) {
    const NeighbourLink there = link(c, d);
    const Cell* linked = there.cell();
    const Boundary* side = there.boundary();
    record.push_back(linked != nullptr ? linked->x : side != nullptr ? 1000.0 + side->bc_type : 0);
    record.push_back(linked != nullptr ? linked->y : 0.0);
  }
  return record;
}

using Records = std::set<std::vector<double>>;

/// Owned nodes against those of the mesh that this process would own.
inline void compare(Partition& part, Mesh& mesh, int step) {
  Records expected, owned;
  for (Cell& c : mesh.nodes()) {
    if (part.owns(c)) expected.insert(record_of(mesh, c));
  }
  for (Cell* c : part.owned()) owned.insert(record_of(part.mesh(), *c));
  expect(owned.size() == part.owned().size(), "each node is owned once", step);
  std::size_t row = 0;
  bool are_in_order = true;
  for (Cell& c : part.mesh().nodes()) {
    if (part.owns(c)) are_in_order = are_in_order && part.owned()[row++] == &c;
  }
  expect(are_in_order, "owned nodes come in the order of the list", step);
  expect(owned == expected, "owned nodes are those of one process", step);
  expect(part.size() == mesh.size(), "number of nodes", step);
  expect(part.agrees(), "agrees", step);
}

/// A ghost that is not what its owner has, which is told after the next update.
inline void spoil_a_ghost(Partition& part) {
  for (Cell* c : part.linked_ghosts()) {
    if (c->ipos != 0 || c->x == 0.0) continue;
    c->x = std::nextafter(c->x, 2.0 * c->x);
    return;
  }
}

}  // namespace velmar_2d
