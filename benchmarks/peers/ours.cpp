#include "ours.hpp"

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace velmar_2d::peers {

double first_value(const Field& field, double x, double y) {
  return std::tanh(20.0 * field.ring.distance(x, y));
}

namespace ours {

namespace {
size_function size_of(const Field& field) {
  return
      [field](double x, double y, std::span<const double>, double, double) { return field(x, y); };
}
}  // namespace

void start(const Field& field, std::int32_t values) {
  message_handler = [](std::string_view) {};
  n_cell_data = values;
  const double halvings = std::ceil(std::log2(coarsest / field.finest));
  scenarios::init_unit_square(cells_along + 1, cells_along + 1,
                              2 * static_cast<std::int32_t>(halvings) + 1);
}

void set_values(const Field& field) {
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->data[0] = first_value(field, c->x, c->y);
}

void update(const Field& field) { update_mesh_no_init(size_of(field)); }

void resolve(const Field& field) { resolve_mesh_no_init(size_of(field)); }

void compute_derivatives() { compute_data_at_all_nodes(); }

void make(const Field& field, std::int32_t values, int nb_updates) {
  start(field, values);
  if (values > 0) set_values(field);
  for (int i = 0; i < nb_updates; ++i) update(field);
}

void make_resolved(const Field& field, std::int32_t values) {
  start(field, values);
  if (values > 0) set_values(field);
  resolve(field);
}

void TooCoarse::add(const TooCoarse& other) {
  count += other.count;
  levels = std::max(levels, other.levels);
}

TooCoarse too_coarse(const Field& field) {
  TooCoarse result;
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next) {
    const double lacking = 2.0 * std::log2(dist_0 / field(c->x, c->y)) - c->level;
    if (c->level < level_max && lacking > 1e-9) result.add({1, lacking});
  }
  return result;
}

std::uint64_t position_hash() {
  std::uint64_t hash = 0;
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next) {
    scenarios::Random mix{std::bit_cast<std::uint64_t>(c->x)};
    mix.state = mix.next() ^ std::bit_cast<std::uint64_t>(c->y);
    hash += mix.next();
  }
  return hash;
}

Updates updates_needed(const Field& field) {
  constexpr int enough = 40;
  // A node can stay a little coarser than wanted however often one updates: 9 % in spacing.
  constexpr double levels_left_over = 0.25;
  Updates needed;
  start(field, 0);
  std::uint64_t before = position_hash();
  for (int nb_updates = 1; nb_updates <= enough; ++nb_updates) {
    update(field);
    if (needed.to_resolve == 0 && too_coarse(field).levels <= levels_left_over) {
      needed.to_resolve = nb_updates;
    }
    const std::uint64_t now = position_hash();
    if (now == before) {
      end();
      needed.to_settle = nb_updates - 1;
      if (needed.to_resolve == 0) needed.to_resolve = needed.to_settle;
      return needed;
    }
    before = now;
  }
  std::fprintf(stderr, "%d updates do not settle the mesh\n", enough);
  std::exit(EXIT_FAILURE);
}

double walk() {
  double sum = 0.0;
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next) {
    for (const NeighbourLink link : {c->n, c->ne, c->e, c->se, c->s, c->sw, c->w, c->nw}) {
      if (const Cell* neighbour = link.cell()) sum += neighbour->data[0];
    }
  }
  return sum;
}

void end() { delete_mesh(); }

}  // namespace ours
}  // namespace velmar_2d::peers
