// One mesh over several processes, held against one mesh of one process.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "velmar_2D/velmar_2D_mpi.hpp"

using namespace velmar_2d;

namespace {

/// What must be alike, wherever a node is kept.
struct Record {
  double x, y, area, data[2], grad, grad2;
  std::int32_t level, reserve, ipos, on_boundary;
  double links[16];
  bool operator==(const Record& other) const { return std::memcmp(this, &other, sizeof *this) == 0; }
};

Record record_of(Mesh& mesh, Cell& c) {
  Record r;
  std::memset(&r, 0, sizeof r);
  r.x = c.x;
  r.y = c.y;
  r.area = mesh.area(c);
  for (std::size_t i = 0; i < 2 && i < c.data.size(); ++i) r.data[i] = c.data[i];
  r.grad = c.grad_data;
  r.grad2 = c.grad2_data;
  r.level = c.level;
  r.reserve = c.reserve;
  r.ipos = c.ipos;
  r.on_boundary = c.on_boundary;
  for (const Direction d : directions) {
    const auto i = 2 * static_cast<std::size_t>(d);
    const NeighbourLink there = link(c, d);
    if (const Cell* linked = there.cell()) {
      r.links[i] = linked->x;
      r.links[i + 1] = linked->y;
    }
    if (const Boundary* side = there.boundary()) r.links[i] = 1000.0 + side->bc_type;
  }
  return r;
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int nb_wrong = 0;
  {
    const Rectangle whole{0.0, 1.0, 0.0, 1.0};
    const Grid grid{.nx = 25, .subdiv_max = 14, .n_cell_data = 2};
    Partition part(MPI_COMM_WORLD, whole, grid);
    Mesh mesh(whole, grid);
    for (int step = 0; step < 20; ++step) {
      const double t = 0.05 * step;
      const size_function size = [=](double x, double y, auto, double, double grad2) {
        const double ring = 0.002 + 0.2 * std::abs(std::hypot(x - t, y - 0.5) - 0.3);
        return step % 2 == 0 ? ring : std::max(0.004, 0.3 / (1.0 + std::sqrt(grad2)));
      };
      mesh.resolve(size);
      const double start = MPI_Wtime();
      part.resolve(size);
      const double time = MPI_Wtime() - start;
      part.compute_derivatives();
      mesh.compute_derivatives();
      if (!part.agrees()) ++nb_wrong;
      std::vector<Record> own, all;
      for (Cell* c : part.owned()) own.push_back(record_of(part.mesh(), *c));
      std::sort(own.begin(), own.end(), [](const Record& a, const Record& b) { return std::tie(a.x, a.y) < std::tie(b.x, b.y); });
      std::size_t found = 0;
      for (Cell& c : mesh.nodes()) {
        if (!part.owns(c)) continue;
        ++found;
        const Record expected = record_of(mesh, c);
        const auto at = std::lower_bound(own.begin(), own.end(), expected, [](const Record& a, const Record& b) { return std::tie(a.x, a.y) < std::tie(b.x, b.y); });
        if (at == own.end() || !(*at == expected)) ++nb_wrong;
      }
      if (found != own.size()) ++nb_wrong;
      const PartitionStatistics s = part.statistics();
      if (part.rank() == 0) std::printf("step %d: %ld nodes, %ld ghosts, %d rounds, imbalance %.2f, %.3f s, wrong %d\n", step, (long)s.nb_nodes, (long)s.nb_ghosts, s.nb_rounds, s.imbalance, time, nb_wrong);
      for (Mesh* m : {&mesh, &part.mesh()}) {
        for (Cell& c : m->nodes()) {
          c.data[0] = std::tanh(30.0 * (c.x - c.y * c.y - t));
          c.data[1] = c.x;
        }
      }
    }
  }
  MPI_Finalize();
  return nb_wrong == 0 ? 0 : 1;
}
