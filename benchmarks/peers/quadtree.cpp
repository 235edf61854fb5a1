#include "quadtree.hpp"

#include <bit>
#include <cmath>

#include "machine.hpp"

namespace velmar_2d::peers {

namespace {

constexpr double unit = 1.0 / P4EST_ROOT_LEN;

double wanted_at_centre(const Field& field, const p4est_quadrant_t& cell, double side) {
  return field(cell.x * unit + 0.5 * side, cell.y * unit + 0.5 * side);
}

const Field& field_of(const p4est_t* forest) {
  return *static_cast<const Field*>(forest->user_pointer);
}

int too_coarse(p4est_t* forest, p4est_topidx_t, p4est_quadrant_t* cell) {
  const double side = P4EST_QUADRANT_LEN(cell->level) * unit;
  return side > wanted_at_centre(field_of(forest), *cell, side);
}

int too_fine(p4est_t* forest, p4est_topidx_t, p4est_quadrant_t* family[]) {
  if (family[0]->level <= first_level) return 0;
  const double side = P4EST_QUADRANT_LEN(family[0]->level - 1) * unit;
  return side <= wanted_at_centre(field_of(forest), *family[0], side);
}

void transfer(p4est_t*, p4est_topidx_t, int, p4est_quadrant_t* outgoing[], int nb_incoming,
              p4est_quadrant_t* incoming[]) {
  if (nb_incoming == 1) {
    double sum = 0.0;
    for (int i = 0; i < 4; ++i) sum += Quadtree::get(*outgoing[i]);
    Quadtree::set(*incoming[0], 0.25 * sum);
  } else {
    for (int i = 0; i < 4; ++i) incoming[i]->p = outgoing[0]->p;
  }
}

}  // namespace

static_assert(sizeof(long) == sizeof(double), "a value has to fit into p.user_long");
double Quadtree::get(const p4est_quadrant_t& cell) {
  return std::bit_cast<double>(cell.p.user_long);
}
void Quadtree::set(p4est_quadrant_t& cell, double value) {
  cell.p.user_long = std::bit_cast<long>(value);
}

Quadtree::Quadtree(bool with_values)
    : with_values_(with_values),
      connectivity_(p4est_connectivity_new_unitsquare()),
      forest_(
          p4est_new_ext(sc_MPI_COMM_SELF, connectivity_, 0, first_level, 1, 0, nullptr, nullptr)) {}

Quadtree::~Quadtree() {
  forget_neighbours();
  p4est_destroy(forest_);
  p4est_connectivity_destroy(connectivity_);
}

void Quadtree::refine(const Field& field) {
  forest_->user_pointer = const_cast<Field*>(&field);
  p4est_refine_ext(forest_, 1, -1, too_coarse, nullptr, with_values_ ? transfer : nullptr);
}

void Quadtree::coarsen(const Field& field) {
  forest_->user_pointer = const_cast<Field*>(&field);
  p4est_coarsen_ext(forest_, 1, 0, too_fine, nullptr, with_values_ ? transfer : nullptr);
}

void Quadtree::balance() {
  p4est_balance_ext(forest_, P4EST_CONNECT_FULL, nullptr, with_values_ ? transfer : nullptr);
}

void Quadtree::find_neighbours() {
  revision_ = p4est_revision(forest_);
  forget_neighbours();
  ghost_ = p4est_ghost_new(forest_, P4EST_CONNECT_FULL);
  mesh_ = p4est_mesh_new_ext(forest_, ghost_, 0, 0, P4EST_CONNECT_FULL);
}

void Quadtree::forget_neighbours() {
  if (mesh_ == nullptr) return;
  p4est_mesh_destroy(mesh_);
  p4est_ghost_destroy(ghost_);
  mesh_ = nullptr;
  ghost_ = nullptr;
}

Phases Quadtree::adapt(const Field& field, bool coarsening, int rounds) {
  Phases phases;
  const auto timed = [](double& seconds, auto&& work) {
    const Stopwatch watch;
    work();
    seconds += watch.seconds();
  };
  for (int round = 0; round < rounds; ++round) {
    timed(phases.refine, [&] { refine(field); });
    if (coarsening && round == 0) timed(phases.coarsen, [&] { coarsen(field); });
    timed(phases.balance, [&] { balance(); });
  }
  if (p4est_revision(forest_) != revision_) {
    timed(phases.neighbours, [&] { find_neighbours(); });
  }
  return phases;
}

int Quadtree::rounds_needed(const Field& field) {
  Quadtree tree(false);
  int rounds = 0;
  do {
    tree.refine(field);
    tree.balance();
    ++rounds;
  } while (tree.nb_too_coarse(field) > 0);
  return rounds;
}

std::int64_t Quadtree::nb_too_coarse(const Field& field) const {
  std::int64_t count = 0;
  for_all([&](const p4est_quadrant_t& cell, double x, double y) {
    if (P4EST_QUADRANT_LEN(cell.level) * unit > field(x, y)) ++count;
  });
  return count;
}

std::vector<double> Quadtree::values() const {
  std::vector<double> values;
  values.reserve(static_cast<std::size_t>(nb_cells()));
  for_all([&](const p4est_quadrant_t& cell, double, double) { values.push_back(get(cell)); });
  return values;
}

double Quadtree::walk(const std::vector<double>& values) const {
  const auto value = [&](p4est_locidx_t cell) { return values[static_cast<std::size_t>(cell)]; };
  const auto* halves = reinterpret_cast<const p4est_locidx_t*>(mesh_->quad_to_half->array);
  const p4est_locidx_t n = mesh_->local_num_quadrants;
  double sum = 0.0;
  for (p4est_locidx_t cell = 0; cell < n; ++cell) {
    for (int face = 0; face < P4EST_FACES; ++face) {
      const p4est_locidx_t neighbour = mesh_->quad_to_quad[P4EST_FACES * cell + face];
      if (mesh_->quad_to_face[P4EST_FACES * cell + face] < 0) {
        sum += value(halves[2 * neighbour]) + value(halves[2 * neighbour + 1]);
      } else if (neighbour != cell) {
        sum += value(neighbour);
      }
    }
    for (int corner = 0; corner < P4EST_CHILDREN; ++corner) {
      const p4est_locidx_t neighbour = mesh_->quad_to_corner[P4EST_CHILDREN * cell + corner];
      if (neighbour >= 0 && neighbour < n) sum += value(neighbour);
    }
  }
  return sum;
}

}  // namespace velmar_2d::peers
