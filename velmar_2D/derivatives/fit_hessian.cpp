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

/// Factorises the centred matrix; its condition estimate.
double centred_condition_estimate(Centred& centred) {
  double rcond = 0.0;
  dgeco(centred.a, nb_coefficients, centred.ipiv, rcond, centred.work);
  return rcond;
}

}  // namespace

void build_centred_system(Workspace::Centred& centred, const Cell& c, const Stencil& list,
                          int n_list) {
  if (n_list > nb_coefficients) {
    build_normal_equations(centred, c, list, n_list);
  } else {
    build_square_matrix(centred, c, list);
    build_square_rhs(centred, list);
  }
}

void solve_centred(Workspace::Centred& centred, double& dx2, double& dy2, double& dxdy, double& dx,
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

void fit_hessian_6pts(const State& state, Workspace& work, const Cell* c, const Stencil& list,
                      int n_list, double& dx2, double& dy2, double& dxdy, double& dx, double& dy,
                      bool& fit_hessian_succ) {
  if (n_list < nb_coefficients) {
    derivatives_internal_error(work.handlers_or(state.handlers),
                               "too few equ in 'fit_hessian_6pts' !");
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
  build_centred_system(work.centred, *c, list, n_list);
  fit_hessian_succ = centred_condition_estimate(work.centred) >= least_centred_condition(n_list);
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

}  // namespace velmar_2d::detail
