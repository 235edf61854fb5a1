// Quadratics through the rows of a stencil,
//
//     f(x, y) = b1 + b2 x + b3 y + b4 x^2 + b5 y^2 + b6 x y,
//
// and their derivatives at the node.
//
// Two systems stand for one problem. The one in absolute coordinates only decides whether a stencil
// is accepted: away from the origin its columns are nearly parallel, and its solution would have no
// digit left. The one in coordinates centred on the node and measured in the stencil's size gives
// the derivatives.
#include <cassert>
#include <cmath>
#include <limits>
#include <string>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

constexpr int nb_coefficients = linpack_order;

/// Condition estimates from which on centred systems, which know no unit of length, are accepted:
/// six rows, and normal equations.
constexpr double centred_condition = 1e-6;
constexpr double centred_normal_condition = 1e-8;

using Centred = Workspace::Centred;

/// Condition estimate of the system in absolute coordinates.
double absolute_condition(Workspace::Absolute& absolute, const Stencil& list, int n_list) {
  constexpr int lda = Stencil::capacity;
  double* a = absolute.a;
  for (int i = 0; i < n_list; ++i) {
    const double x = list.x[i], y = list.y[i];
    a[i] = 1.0;
    a[i + lda] = x;
    a[i + 2 * lda] = y;
    a[i + 3 * lda] = x * x;
    a[i + 4 * lda] = y * y;
    a[i + 5 * lda] = y * x;
  }
  if (n_list > nb_coefficients) {
    double product[nb_coefficients][nb_coefficients];
    for (int j = 0; j < nb_coefficients; ++j) {
      for (int k = 0; k <= j; ++k) {
        double sum = 0.0;
        for (int i = 0; i < n_list; ++i) sum += a[i + lda * j] * a[i + lda * k];
        product[j][k] = product[k][j] = sum;
      }
    }
    for (int j = 0; j < nb_coefficients; ++j) {
      for (int k = 0; k < nb_coefficients; ++k) a[k + lda * j] = product[j][k];
    }
  }
  double rcond = 0.0;
  dgeco(a, lda, absolute.ipiv, rcond, absolute.work);
  return rcond;
}

double largest_distance(const Cell& c, const Stencil& list, int n_list) {
  double distance2 = 0.0;
  for (int i = 0; i < n_list; ++i) {
    const double x = list.x[i] - c.x, y = list.y[i] - c.y;
    distance2 = std::max(distance2, x * x + y * y);
  }
  return std::sqrt(distance2);
}

/// Six rows: the centred matrix, column by column.
void build_square_matrix(Centred& centred, const Cell& c, const Stencil& list) {
  constexpr int lda = nb_coefficients;
  centred.inverse_size = 1.0 / largest_distance(c, list, nb_coefficients);
  for (int i = 0; i < nb_coefficients; ++i) {
    const double u = (list.x[i] - c.x) * centred.inverse_size;
    const double v = (list.y[i] - c.y) * centred.inverse_size;
    double* row = centred.a + i;
    row[0] = 1.0;
    row[lda] = u;
    row[2 * lda] = v;
    row[3 * lda] = u * u;
    row[4 * lda] = v * v;
    row[5 * lda] = v * u;
  }
}

/// Values count from that of the node: the constant is of no interest, the digits are.
void build_square_rhs(Centred& centred, const Stencil& list) {
  for (int i = 0; i < nb_coefficients; ++i) centred.b[i] = list.value[i] - list.value[0];
}

/// More rows: the centred normal equations. Their entries are the moments sum u^p v^q, p + q <= 4.
void build_normal_equations(Centred& centred, const Cell& c, const Stencil& list, int n_list) {
  centred.inverse_size = 1.0 / largest_distance(c, list, n_list);
  double u1 = 0, v1 = 0, u2 = 0, uv = 0, v2 = 0, u3 = 0, u2v = 0, uv2 = 0, v3 = 0;
  double u4 = 0, u3v = 0, u2v2 = 0, uv3 = 0, v4 = 0;
  double z = 0, zu = 0, zv = 0, zu2 = 0, zv2 = 0, zuv = 0;
  for (int i = 0; i < n_list; ++i) {
    const double u = (list.x[i] - c.x) * centred.inverse_size;
    const double v = (list.y[i] - c.y) * centred.inverse_size;
    const double f = list.value[i] - list.value[0];
    const double uu = u * u, vv = v * v, w = u * v;
    u1 += u, v1 += v;
    u2 += uu, uv += w, v2 += vv;
    u3 += uu * u, u2v += uu * v, uv2 += u * vv, v3 += vv * v;
    u4 += uu * uu, u3v += uu * w, u2v2 += w * w, uv3 += vv * w, v4 += vv * vv;
    z += f, zu += f * u, zv += f * v, zu2 += f * uu, zv2 += f * vv, zuv += f * w;
  }
  const double moments[nb_coefficients * nb_coefficients] = {static_cast<double>(n_list),
                                                             u1,
                                                             v1,
                                                             u2,
                                                             v2,
                                                             uv,  //
                                                             u1,
                                                             u2,
                                                             uv,
                                                             u3,
                                                             uv2,
                                                             u2v,  //
                                                             v1,
                                                             uv,
                                                             v2,
                                                             u2v,
                                                             v3,
                                                             uv2,  //
                                                             u2,
                                                             u3,
                                                             u2v,
                                                             u4,
                                                             u2v2,
                                                             u3v,  //
                                                             v2,
                                                             uv2,
                                                             v3,
                                                             u2v2,
                                                             v4,
                                                             uv3,  //
                                                             uv,
                                                             u2v,
                                                             uv2,
                                                             u3v,
                                                             uv3,
                                                             u2v2};
  std::copy(std::begin(moments), std::end(moments), centred.a);
  const double rhs[nb_coefficients] = {z, zu, zv, zu2, zv2, zuv};
  std::copy(std::begin(rhs), std::end(rhs), centred.b);
}

void build_centred_system(Centred& centred, const Cell& c, const Stencil& list, int n_list) {
  if (n_list > nb_coefficients) {
    build_normal_equations(centred, c, list, n_list);
  } else {
    build_square_matrix(centred, c, list);
    build_square_rhs(centred, list);
  }
}

/// Derivatives at the node from the factorised centred system.
void solve_centred(Centred& centred, double& dx2, double& dy2, double& dxdy, double& dx,
                   double& dy) {
  dgesl(centred.a, nb_coefficients, centred.ipiv, centred.b);
  const double s = centred.inverse_size, s2 = s * s;
  const double* b = centred.b;
  dx = b[1] * s;
  dy = b[2] * s;
  dx2 = (b[3] + b[3]) * s2;
  dy2 = (b[4] + b[4]) * s2;
  dxdy = b[5] * s2;
}

/// Factorises the centred matrix; its condition estimate.
double centred_condition_estimate(Centred& centred) {
  double rcond = 0.0;
  dgeco(centred.a, nb_coefficients, centred.ipiv, rcond, centred.work);
  return rcond;
}

/// Factorises the centred matrix; whether its condition estimate is bound to reach a value. Cheaper
/// than the estimate, and true for nearly all stencils that occur.
///
/// The determinant is the product of the singular values, and the sum of their squares is the
/// squared Frobenius norm F^2, so that by the inequality of the means the smallest one is at least
/// det (sqrt(5) / F)^5 and the condition number in the 1-norm at most 6 F over that.
bool centred_condition_is_proven(Centred& centred, double least) {
  double f2 = 0.0;
  for (const double entry : centred.a) f2 += entry * entry;
  dgefa(centred.a, nb_coefficients, centred.ipiv);
  double determinant = 1.0;
  for (int k = 0; k < nb_coefficients; ++k) {
    determinant *= centred.a[k + nb_coefficients * k];
  }
  constexpr double sqrt_5_to_5 = 55.9, margin = 1.1;
  return std::abs(determinant) * sqrt_5_to_5 >= margin * least * 6.0 * f2 * f2 * f2;
}

}  // namespace

void fit_hessian_6pts(const State& state, Workspace& work, const Cell* c, const Stencil& list,
                      int n_list, double& dx2, double& dy2, double& dxdy, double& dx, double& dy,
                      bool& fit_hessian_succ) {
  if (n_list < nb_coefficients) {
    fatal(state.handlers,
          "(Velmar_2D:) compute_data_at_node: internal error\n"
          "             too few equ in 'fit_hessian_6pts' !");
  }
  const double t = least_condition(state.domain, c->level);
  const double least = n_list > nb_coefficients ? t * t : t;
  fit_hessian_succ = !(absolute_condition(work.absolute, list, n_list) < least);
  if (!fit_hessian_succ) return;
  build_centred_system(work.centred, *c, list, n_list);
  dgefa(work.centred.a, nb_coefficients, work.centred.ipiv);
  solve_centred(work.centred, dx2, dy2, dxdy, dx, dy);
}

void fit_hessian_centred(const State& /*state*/, Workspace& work, const Cell* c,
                         const Stencil& list, int n_list, double& dx2, double& dy2, double& dxdy,
                         double& dx, double& dy, bool& fit_hessian_succ) {
  assert(n_list >= nb_coefficients);
  const double least = n_list > nb_coefficients ? centred_normal_condition : centred_condition;
  build_centred_system(work.centred, *c, list, n_list);
  fit_hessian_succ = centred_condition_is_proven(work.centred, least);
  if (!fit_hessian_succ) {
    build_centred_system(work.centred, *c, list, n_list);
    fit_hessian_succ = centred_condition_estimate(work.centred) >= least;
  }
  if (fit_hessian_succ) solve_centred(work.centred, dx2, dy2, dxdy, dx, dy);
}

void weird_partial_hessian_5pts(Workspace& work, const Cell* c, Stencil& list,
                                const Candidates& candidates, int& n_list, int n_candidates) {
  for (int row = 0; row < n_candidates; ++row) copy_row(list, n_list++, candidates, row);
  assert(n_list == 5);

  // The sixth row of a pair is opposite to the node in their parallelogram.
  const auto complete = [&list](int i, int j) {
    list.id[5] = 0.0;
    list.x[5] = list.x[i] + list.x[j] - list.x[0];
    list.y[5] = list.y[i] + list.y[j] - list.y[0];
    list.value[5] = list.value[i] + list.value[j] - list.value[0];
  };
  double best = -1.0;
  int best_i = 1, best_j = 2;
  for (int i = 1; i < 5; ++i) {
    for (int j = i + 1; j < 5; ++j) {
      complete(i, j);
      build_square_matrix(work.centred, *c, list);
      const double rcond = centred_condition_estimate(work.centred);
      if (rcond > best) {
        best = rcond;
        best_i = i;
        best_j = j;
      }
    }
  }
  complete(best_i, best_j);
  n_list = 6;
}

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
bool search_is_hopeless(const Domain& domain, const Cell* c, const Stencil& list, int n_list,
                        const Candidates& candidates, int n_candidates) {
  assert(n_list == nb_coefficients);
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
