// The side of p4est: a forest of quadtrees with values at the centres of the cells, two-point
// fluxes through their faces, refined and coarsened by the differences between neighbours.
#include <p4est_bits.h>
#include <p4est_extended.h>
#include <p4est_mesh.h>

#include <algorithm>
#include <array>

#include "stepping.hpp"

namespace {

using namespace velmar_2d::solvers;

/// What a cell carries while the forest changes.
struct Payload {
  double value = 0.0;
  float slope_x = 0.0F, slope_y = 0.0F;  ///< of the value, times the cell's side
  float wanted = 0.0F;                   ///< level
};

struct Place {
  double x = 0.0, y = 0.0, side = 0.0;
};

struct Forest {
  const Case& run;
  p4est_connectivity_t* connectivity = nullptr;
  p4est_t* forest = nullptr;
  p4est_ghost_t* ghost = nullptr;
  p4est_mesh_t* mesh = nullptr;
  long revision = -1;  ///< of the forest, when its neighbours were looked up
  std::vector<Place> places = {};

  std::size_t size() const { return static_cast<std::size_t>(forest->local_num_quadrants); }
  double tree_side() const { return 1.0 / run.coarsest(1); }
};

Payload& payload(const p4est_quadrant_t& cell) { return *static_cast<Payload*>(cell.p.user_data); }
const Forest& of(p4est_t* forest) { return *static_cast<Forest*>(forest->user_pointer); }

Place place_of(const Forest& at, p4est_topidx_t tree, const p4est_quadrant_t& cell) {
  const double* corner = at.connectivity->vertices + 3 * at.connectivity->tree_to_vertex[4 * tree];
  const double unit = 1.0 / P4EST_ROOT_LEN, side = P4EST_QUADRANT_LEN(cell.level) * unit;
  return {(corner[0] + cell.x * unit + 0.5 * side) * at.tree_side(),
          (corner[1] + cell.y * unit + 0.5 * side) * at.tree_side(), side * at.tree_side()};
}

template <typename Use>
void for_all(const Forest& at, const Use& use) {
  std::size_t number = 0;
  for (p4est_topidx_t t = 0; t < at.connectivity->num_trees; ++t) {
    const auto* tree = reinterpret_cast<const p4est_tree_t*>(at.forest->trees->array) + t;
    const auto* cells = reinterpret_cast<const p4est_quadrant_t*>(tree->quadrants.array);
    for (std::size_t i = 0; i < tree->quadrants.elem_count; ++i) use(number++, t, cells[i]);
  }
}

// ---------------------------------------------------------------------------------------------
// How the forest changes
// ---------------------------------------------------------------------------------------------

int too_coarse(p4est_t* /*forest*/, p4est_topidx_t /*tree*/, p4est_quadrant_t* cell) {
  return static_cast<int>(static_cast<float>(cell->level) < payload(*cell).wanted);
}

int too_coarse_at_first(p4est_t* forest, p4est_topidx_t tree, p4est_quadrant_t* cell) {
  const Forest& at = of(forest);
  const Place place = place_of(at, tree, *cell);
  return static_cast<int>(place.side > at.run.first_spacing(place.x, place.y) * (1.0 + 1e-9));
}

/// Some way below what would be refined again soon.
int too_fine(p4est_t* /*forest*/, p4est_topidx_t /*tree*/, p4est_quadrant_t* family[]) {
  return static_cast<int>(std::all_of(family, family + P4EST_CHILDREN, [](const auto* cell) {
    return payload(*cell).wanted < static_cast<float>(cell->level) - 1.25F;
  }));
}

/// New cells get the value and the slopes of the old one, or the mean of four.
void hand_on(p4est_t* /*forest*/, p4est_topidx_t /*tree*/, int nb_outgoing,
             p4est_quadrant_t* outgoing[], int nb_incoming, p4est_quadrant_t* incoming[]) {
  const Payload& from = payload(*outgoing[0]);
  for (int i = 0; i < nb_incoming; ++i) {
    Payload& to = payload(*incoming[i]);
    to = from;
    to.slope_x *= 0.5F;
    to.slope_y *= 0.5F;
    if (nb_incoming > 1) {
      to.value += 0.25 * ((i & 1) != 0 ? from.slope_x : -from.slope_x);
      to.value += 0.25 * ((i & 2) != 0 ? from.slope_y : -from.slope_y);
    }
  }
  for (int i = 1; i < nb_outgoing; ++i) {
    payload(*incoming[0]).value += (payload(*outgoing[i]).value - from.value) / nb_outgoing;
  }
}

void find_neighbours(Forest& at) {
  if (at.mesh != nullptr) {
    p4est_mesh_destroy(at.mesh);
    p4est_ghost_destroy(at.ghost);
  }
  at.revision = p4est_revision(at.forest);
  at.ghost = p4est_ghost_new(at.forest, P4EST_CONNECT_FACE);
  at.mesh = p4est_mesh_new_ext(at.forest, at.ghost, 0, 0, P4EST_CONNECT_FACE);
  at.places.resize(at.size());
  for_all(at, [&at](std::size_t i, p4est_topidx_t tree, const p4est_quadrant_t& cell) {
    at.places[i] = place_of(at, tree, cell);
  });
}

// ---------------------------------------------------------------------------------------------
// Neighbours and fluxes
// ---------------------------------------------------------------------------------------------

/// What lies beyond a face: 0: the side of the domain, 1: a cell, 2: two cells of half the size.
struct Beyond {
  int n = 0;
  std::array<std::int32_t, 2> cells{};
  double distance = 0.0;  ///< of the centres, across the face
};

Beyond beyond(const Forest& at, std::size_t cell, std::size_t face) {
  const std::size_t place = P4EST_FACES * cell + face;
  const auto neighbour = at.mesh->quad_to_quad[place];
  const std::int8_t kind = at.mesh->quad_to_face[place];
  const double side = at.places[cell].side;
  if (kind < 0) {
    const auto* halves = reinterpret_cast<const p4est_locidx_t*>(at.mesh->quad_to_half->array);
    return {2, {halves[2 * neighbour], halves[2 * neighbour + 1]}, 0.75 * side};
  }
  if (static_cast<std::size_t>(neighbour) == cell) return {0, {}, 0.5 * side};
  return {1, {neighbour}, kind < 8 ? side : 1.5 * side};
}

/// A slope at a cell, along x (axis 0) or y (1), from what lies beyond its two faces there: calls
/// use(cell, coefficient) for each value that it takes. On a side it is that of the other face.
template <typename Use>
void slope_of(const Forest& at, std::size_t cell, std::size_t axis, const Use& use) {
  const Beyond low = beyond(at, cell, 2 * axis), high = beyond(at, cell, 2 * axis + 1);
  const double distance = (low.n > 0 ? low.distance : 0.0) + (high.n > 0 ? high.distance : 0.0);
  if (distance == 0.0) return;
  const auto side = [&](const Beyond& one, double sign) {
    for (int i = 0; i < one.n; ++i) {
      use(static_cast<std::size_t>(one.cells[static_cast<std::size_t>(i)]),
          sign / (distance * one.n));
    }
    if (one.n == 0) use(cell, sign / distance);
  };
  side(low, -1.0);
  side(high, 1.0);
}

double slope_of(const Forest& at, const std::vector<double>& u, std::size_t cell,
                std::size_t axis) {
  double slope = 0.0;
  slope_of(at, cell, axis, [&](std::size_t i, double share) { slope += share * u[i]; });
  return slope;
}

/// The side of the domain, whose value is that of the wave in the face's middle.
void add_side(const Forest& at, std::size_t cell, std::size_t face, FluxRows& rows) {
  const Place& here = at.places[cell];
  const double out = (face & 1) != 0 ? 0.5 * here.side : -0.5 * here.side;
  const auto number = static_cast<std::int32_t>(at.size() + rows.known.size());
  rows.add(number, 2.0 * at.run.front.D / (here.side * here.side));
  rows.known.push_back({number, here.x + (face < 2 ? out : 0.0), here.y + (face < 2 ? 0.0 : out)});
}

/// The flux to a larger cell is taken along the normal: from the value that the larger cell has
/// beside its centre, by its slope along the face.
void add_face(const Forest& at, std::size_t cell, std::size_t face, FluxRows& rows) {
  const Beyond there = beyond(at, cell, face);
  if (there.n == 0) {
    add_side(at, cell, face, rows);
    return;
  }
  const Place& here = at.places[cell];
  const double weight = at.run.front.D / (here.side * there.distance);
  for (int i = 0; i < there.n; ++i) {
    rows.add(there.cells[static_cast<std::size_t>(i)], weight / there.n);
  }
  const auto other = static_cast<std::size_t>(there.cells[0]);
  if (at.places[other].side < 1.5 * here.side) return;
  const std::size_t along = face < 2 ? 1 : 0;
  const double aside = along == 0 ? here.x - at.places[other].x : here.y - at.places[other].y;
  slope_of(at, other, along, [&](std::size_t i, double share) {
    rows.add(static_cast<std::int32_t>(i), weight * aside * share);
  });
}

void assemble(const Forest& at, FluxRows& rows) {
  rows.clear();
  for (std::size_t cell = 0; cell < at.size(); ++cell) {
    for (std::size_t face = 0; face < P4EST_FACES; ++face) add_face(at, cell, face, rows);
    rows.end_row();
  }
  rows.end();
}

/// Refines and coarsens once, by the gradients of u; u is then that of the new cells.
bool adapt(Forest& at, std::vector<double>& u) {
  for_all(at, [&](std::size_t i, p4est_topidx_t, const p4est_quadrant_t& cell) {
    const double slope_x = slope_of(at, u, i, 0), slope_y = slope_of(at, u, i, 1);
    const double gradient = std::hypot(slope_x, slope_y), side = at.places[i].side;
    const double spacing = at.run.spacing(gradient, gradient / at.run.front.length);
    payload(cell) = {u[i], static_cast<float>(slope_x * side), static_cast<float>(slope_y * side),
                     static_cast<float>(std::log2(at.tree_side() / spacing) - 1e-6)};
  });
  p4est_refine_ext(at.forest, 0, -1, too_coarse, nullptr, hand_on);
  p4est_coarsen_ext(at.forest, 0, 0, too_fine, nullptr, hand_on);
  p4est_balance_ext(at.forest, P4EST_CONNECT_FACE, nullptr, hand_on);
  if (p4est_revision(at.forest) == at.revision) return false;
  find_neighbours(at);
  u.resize(at.size());
  for_all(at, [&u](std::size_t i, p4est_topidx_t, const p4est_quadrant_t& cell) {
    u[i] = payload(cell).value;
  });
  return true;
}

void set_wave(const Forest& at, std::vector<double>& u) {
  u.resize(at.size());
  for (std::size_t i = 0; i < u.size(); ++i) {
    u[i] = at.run.front.wave(at.places[i].x, at.places[i].y, 0.0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Case run = case_of_arguments(argc, argv);
  const Front& front = run.front;
  sc_MPI_Init(&argc, &argv);
  sc_set_log_defaults(nullptr, nullptr, SC_LP_ERROR);
  Forest at{.run = run};
  at.connectivity = p4est_connectivity_new_brick(
      run.coarsest(1), static_cast<int>(std::lround(run.coarsest(1) * front.height)), 0, 0);
  at.forest =
      p4est_new_ext(sc_MPI_COMM_SELF, at.connectivity, 0, 0, 1, sizeof(Payload), nullptr, &at);
  p4est_refine_ext(at.forest, 1, -1, too_coarse_at_first, nullptr, nullptr);
  p4est_balance_ext(at.forest, P4EST_CONNECT_FACE, nullptr, nullptr);
  find_neighbours(at);
  std::vector<double> u;
  set_wave(at, u);
  for (int i = 0; i < 2; ++i) {
    adapt(at, u);
    set_wave(at, u);
  }

  const Clock clock;
  Outcome outcome;
  FluxRows rows;
  const Loops loops = loops_over(rows, front);
  StageValues room;
  double sum_of_cells = 0.0;
  for (int i = 0; i < run.steps(); ++i) {
    if (i % run.steps_between() == 0) {
      const Clock adapting;
      u.resize(at.size());
      if ((i > 0 && adapt(at, u)) || i == 0) {
        assemble(at, rows);
      }
      u.resize(at.size() + rows.known.size());
      set_known(rows, front, i * run.time_step(), u);
      outcome.adapting += adapting.processor_seconds();
    }
    chebyshev_step(loops, rows.radius + front.k, i * run.time_step(), run.time_step(), u, room);
    sum_of_cells += static_cast<double>(at.size());
  }
  outcome.seconds = clock.seconds();
  outcome.processor_seconds = clock.processor_seconds();
  outcome.cells = static_cast<std::int64_t>(sum_of_cells / run.steps());
  for (std::size_t i = 0; i < at.size(); ++i) {
    const Place& place = at.places[i];
    outcome.errors.add(place.side * place.side,
                       u[i] - front.wave(place.x, place.y, Front::duration));
  }
  print(run, outcome);
  if (!run.picture.empty()) {
    Picture picture(run);
    for (std::size_t i = 0; i < at.size(); ++i) {
      picture.add_square(u[i], at.places[i].x, at.places[i].y, at.places[i].side);
    }
  }
  p4est_mesh_destroy(at.mesh);
  p4est_ghost_destroy(at.ghost);
  p4est_destroy(at.forest);
  p4est_connectivity_destroy(at.connectivity);
  sc_MPI_Finalize();
  return 0;
}
