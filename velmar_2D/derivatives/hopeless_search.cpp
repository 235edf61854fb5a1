// Searches that must fail, told without trying their stencils: away from the origin the columns of
// the systems in absolute coordinates are nearly parallel, whatever the rows are.
//
// The estimate is 1 / rcond = |A| |z| / |y| with trans(A) y = e, A z = y and all entries of e of
// one size, say 1. Since |z| >= e.z = y.y, in the 1-norm, and |y|_1 <= sqrt(6) |y|_2,
//
//     rcond <= sqrt(6) / (|A| |y|_2),   sqrt(6) = 2.449...
//
// For a quadratic p with coefficients b, sum_i y_i p(x_i) = e.b, so |y|_2 >= |e.b| / |p|_2 with the
// norm of p over the rows. With u = x - xc and v = y - yc,
//
//     p = xc^2 u^2 + yc^2 v^2 + xc yc u v
//
// is small on every stencil, while its coefficients grow with the distance from the origin; so y
// must be large there, whatever the signs of e are.
#include <cassert>
#include <cmath>
#include <limits>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

bool search_is_hopeless(const Domain& domain, const Cell* c, const Stencil& list, int n_list,
                        const Candidates& candidates, int n_candidates) {
  assert(n_list == linpack_order);
  const double t = least_condition(domain, c->level);
  const double x = c->x, y = c->y;
  const double xx = x * x, yy = y * y, xy = x * y;

  // Bounds over all stencils of the search: the sum over the rows that stay, and twice the extreme
  // value over those that come and go.
  double p2_fixed = 0.0, p2_largest = 0.0;
  double xx_fixed = 0.0, yy_fixed = 0.0;
  double xx_smallest = std::numeric_limits<double>::infinity(), yy_smallest = xx_smallest;
  const int n_fixed = n_list - 2;
  const auto p2_at = [=](double px, double py) {
    const double u = px - x, v = py - y;
    const double p = xx * u * u + yy * v * v + xy * u * v;
    return p * p;
  };
  const auto add_changing = [&](double px, double py) {
    p2_largest = std::max(p2_largest, p2_at(px, py));
    xx_smallest = std::min(xx_smallest, px * px);
    yy_smallest = std::min(yy_smallest, py * py);
  };
  for (int i = 0; i < n_fixed; ++i) {
    p2_fixed += p2_at(list.x[i], list.y[i]);
    xx_fixed += list.x[i] * list.x[i];
    yy_fixed += list.y[i] * list.y[i];
  }
  for (int i = n_fixed; i < n_list; ++i) add_changing(list.x[i], list.y[i]);
  for (int i = 0; i < n_candidates; ++i) add_changing(candidates.x[i], candidates.y[i]);
  const double anorm = std::max(
      {static_cast<double>(n_list), xx_fixed + 2.0 * xx_smallest, yy_fixed + 2.0 * yy_smallest});

  // Coefficients of p, and the smallest |e.b| over all signs: the first outweighs the others, or
  // nothing is proven.
  const double b1 = xx * xx + yy * yy + xy * xy;
  const double others =
      std::abs(x) * (2.0 * xx + yy) + std::abs(y) * (2.0 * yy + xx) + xx + yy + std::abs(xy);
  const double eb = b1 - others;
  if (eb <= 0.0) return false;

  // Rounding: the factors are those of a matrix that differs from A by some roundings of |A|.
  constexpr double roundings = 1000.0 * std::numeric_limits<double>::epsilon();
  const double p_norm = std::sqrt(p2_fixed + 2.0 * p2_largest) + roundings * anorm * (b1 + others);
  return 2.5 * p_norm < (t - roundings) * anorm * eb;
}

}  // namespace velmar_2d::detail
