// Fits by shape.
//
// Nodes lie on a lattice, so that the same few stencils come again and again, in other sizes and
// with other values:
//
//     o . . . o          offsets of the neighbours in quarters of the node's spacing (halves of the
//     . .   . .          side of its square, at an odd level):
//     .   c   .
//     . .   . .              ne (2, 2), se (2, -2), sw (-2, -2), nw (-2, 2), and e (4, 0)
//     o . . . o . o
//
// Derivatives are linear in the values, so that each stencil is a table of weights. It is computed
// from the offsets alone, by the fit itself, the first time that the stencil comes, and kept as
// long as there is room: a fit becomes a product of a 5 x 8 matrix and a vector. What was kept or
// forgotten never shows in a result.
#include <cmath>
#include <limits>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

/// A stencil, packed: the offset of the neighbour in each of the eight directions, 4 bits each, 0
/// where there is none; then those of up to three rows that are no neighbours, x and y with 5 bits
/// each, 0 where there is none. Rows come in this order.
using Key = std::uint64_t;
constexpr int bits_of_neighbour = 4, bits_of_component = 5;
constexpr int bits_of_neighbours = nb_directions * bits_of_neighbour;
constexpr double largest_offset = 15.0;
constexpr int component_bias = 16, most_other_rows = 3;

constexpr int component(Key bits) {
  return static_cast<int>(bits & ((1U << bits_of_component) - 1)) - component_bias;
}

bool is_close(double a, double b) { return std::abs(a - b) <= offset_tolerance; }

/// Units of length per coordinate unit.
double inverse_unit(const Domain& domain, std::int32_t level) {
  return exact_power_of_2((level + 4) >> 1) / domain.dist_0;
}

/// The nearest whole number to one between -16 and 16.
double nearest(double offset) {
  constexpr int bias = 32;
  return static_cast<int>(offset + (bias + 0.5)) - bias;
}

/// The key of a stencil; 0 where a row does not lie on the lattice or too far away, or a neighbour
/// at the node itself.
Key key_of(const Domain& domain, const Cell& c, const Stencil& list, int n_list) {
  const double per_unit = inverse_unit(domain, c.level);
  Key key = 0;
  int row = 1;
  for (int d = 0; d < nb_directions; ++d) {
    if (link(c, d).cell() == nullptr) continue;
    const auto i = static_cast<std::size_t>(d);
    const double x = (list.x[row] - c.x) * per_unit, y = (list.y[row] - c.y) * per_unit;
    ++row;
    const double away = std::max(std::abs(x), std::abs(y));
    if (!(away < largest_offset + 0.5)) return 0;
    const double offset = nearest(away);
    if (offset == 0.0) return 0;
    if (!is_close(x, away_x[i] * offset) || !is_close(y, away_y[i] * offset)) return 0;
    key |= static_cast<Key>(offset) << (d * bits_of_neighbour);
  }
  if (n_list - row > most_other_rows) return 0;
  for (int shift = bits_of_neighbours; row < n_list; ++row) {
    for (const double away : {(list.x[row] - c.x) * per_unit, (list.y[row] - c.y) * per_unit}) {
      if (!(std::abs(away) < largest_offset + 0.5)) return 0;
      const double offset = nearest(away);
      if (!is_close(away, offset)) return 0;
      key |= static_cast<Key>(offset + component_bias) << shift;
      shift += bits_of_component;
    }
  }
  return key;
}

/// The rows of a key, in its unit of length, around a node at the origin.
int rows_of(Key key, Stencil& list) {
  int n_list = 0;
  const auto add = [&](double x, double y) {
    list.id[n_list] = list.value[n_list] = 0.0;
    list.x[n_list] = x;
    list.y[n_list] = y;
    ++n_list;
  };
  add(0, 0);
  for (int d = 0; d < nb_directions; ++d, key >>= bits_of_neighbour) {
    const auto i = static_cast<std::size_t>(d);
    const int offset = static_cast<int>(key & ((1U << bits_of_neighbour) - 1));
    if (offset != 0) add(away_x[i] * offset, away_y[i] * offset);
  }
  for (; key != 0; key >>= 2 * bits_of_component) {
    add(component(key), component(key >> bits_of_component));
  }
  return n_list;
}

/// Weights are fractions with small denominators. Where rounding has moved one away from its
/// fraction, it moves back, so that simple values have exact derivatives.
double without_rounding(double weight) {
  constexpr double denominator = 4096.0 * 9.0 * 5.0 * 7.0, rounding = 1e-7;
  const double numerator = std::round(weight * denominator);
  return std::abs(weight * denominator - numerator) < rounding ? numerator / denominator : weight;
}

void compute(const State& state, Workspace& work, FitOperator& op, Key key) {
  const Cell origin;
  Stencil list;
  const int n_list = rows_of(key, list);
  op.key = key;
  for (int row = 1; row < n_list; ++row) {
    auto& weights = op.weights[static_cast<std::size_t>(row - 1)];
    auto& [dx, dy, dx2, dy2, dxdy] = weights;
    list.value[row] = 1.0;
    fit_hessian_centred_by_proof(state, work, &origin, list, n_list, dx2, dy2, dxdy, dx, dy,
                                 op.accepted);
    list.value[row] = 0.0;
    for (double& weight : weights) weight = without_rounding(weight);
  }
}

const FitOperator& operator_for(const State& state, Workspace& work, Key key) {
  if (const FitOperator* op = state.fit_operators.find(key)) return *op;
  work.op = {};
  compute(state, work, work.op, key);
  const FitOperator* kept = state.fit_operators.keep(work.op);
  return kept != nullptr ? *kept : work.op;
}

}  // namespace

const FitOperator* find_operator(const State& state, Workspace& work, const Cell* c,
                                 const Stencil& list, int n_list) {
  const Key key = key_of(state.domain, *c, list, n_list);
  if (key == 0) return nullptr;
  const FitOperator& op = operator_for(state, work, key);
  return op.accepted ? &op : nullptr;
}

namespace {

using Sums = std::array<double, 5>;

void add_row(Sums& sum, const FitOperator& op, int row, double value) {
  const auto& weights = op.weights[static_cast<std::size_t>(row - 1)];
  for (std::size_t k = 0; k < sum.size(); ++k) sum[k] += weights[k] * value;
}

}  // namespace

void apply_operator(const Domain& domain, const FitOperator& op, const Cell* c, const Stencil& list,
                    int n_list, double& dx2, double& dy2, double& dxdy, double& dx, double& dy) {
  const double s = inverse_unit(domain, c->level), s2 = s * s;
  Sums sum{};
  std::array<double, Stencil::capacity> x, y, off_x, off_y;
  bool all_in_place = true;
  for (int row = 1; row < n_list; ++row) {
    add_row(sum, op, row, list.value[row] - list.value[0]);
    const auto i = static_cast<std::size_t>(row);
    const double u = (list.x[row] - c->x) * s, v = (list.y[row] - c->y) * s;
    x[i] = nearest(u), y[i] = nearest(v);
    off_x[i] = u - x[i], off_y[i] = v - y[i];
    all_in_place = all_in_place && off_x[i] == 0.0 && off_y[i] == 0.0;
  }
  if (!all_in_place) {
    // What the quadratic has gained on the way from each place to the row is taken back.
    const Sums at_places = sum;
    const auto& [fx, fy, fxx, fyy, fxy] = at_places;
    for (int row = 1; row < n_list; ++row) {
      const auto i = static_cast<std::size_t>(row);
      const double gain =
          (fx + fxx * x[i] + fxy * y[i]) * off_x[i] + (fy + fyy * y[i] + fxy * x[i]) * off_y[i];
      add_row(sum, op, row, -gain);
    }
  }
  dx = sum[0] * s;
  dy = sum[1] * s;
  dx2 = sum[2] * s2;
  dy2 = sum[3] * s2;
  dxdy = sum[4] * s2;
}

// The weights of six rows are the quadratics that are 1 at one row and 0 at the others, so that,
// shifted to the origin, their coefficients are the columns of the inverse of the system in
// absolute coordinates. The estimate of its condition is never below the true number but for
// rounding.
bool acceptance_is_certain(const Domain& domain, const FitOperator& op, const Cell* c,
                           const Stencil& list) {
  constexpr int n = 6;
  const double x = c->x, y = c->y;
  const double s = inverse_unit(domain, c->level), s2 = s * s;
  double inverse_norm = 0.0;
  const auto add_column = [&](double value, double dx, double dy, double dx2, double dy2,
                              double dxdy) {
    const double xx = 0.5 * dx2, yy = 0.5 * dy2;
    const double b1 = value - dx * x - dy * y + xx * x * x + yy * y * y + dxdy * x * y;
    const double b2 = dx - dx2 * x - dxdy * y, b3 = dy - dy2 * y - dxdy * x;
    inverse_norm = std::max(inverse_norm, std::abs(b1) + std::abs(b2) + std::abs(b3) +
                                              std::abs(xx) + std::abs(yy) + std::abs(dxdy));
  };
  std::array<double, 5> sum{};
  for (int row = 1; row < n; ++row) {
    const auto& w = op.weights[static_cast<std::size_t>(row - 1)];
    for (std::size_t k = 0; k < sum.size(); ++k) sum[k] += w[k];
    add_column(0.0, w[0] * s, w[1] * s, w[2] * s2, w[3] * s2, w[4] * s2);
  }
  add_column(1.0, -sum[0] * s, -sum[1] * s, -sum[2] * s2, -sum[3] * s2, -sum[4] * s2);

  double x1 = 0, y1 = 0, x2 = 0, y2 = 0, xy = 0;
  for (int row = 0; row < n; ++row) {
    const double u = list.x[row], v = list.y[row];
    x1 += std::abs(u), y1 += std::abs(v);
    x2 += u * u, y2 += v * v, xy += std::abs(u * v);
  }
  const double norm = std::max({static_cast<double>(n), x1, y1, x2, y2, xy});
  // Rounding moves the reciprocal by some roundings; the margin is for rows that are a little off
  // their places.
  constexpr double roundings = 1000.0 * std::numeric_limits<double>::epsilon(), margin = 1.1;
  return 1.0 > (margin * least_condition(domain, c->level) + roundings) * norm * inverse_norm;
}

}  // namespace velmar_2d::detail
