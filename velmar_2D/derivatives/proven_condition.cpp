// The fit by the centred criterion, with the condition proven instead of estimated where it can be:
// cheaper, and true for nearly all stencils that occur.
//
// The determinant is the product of the singular values, and the sum of their squares is the
// squared Frobenius norm F^2, so that by the inequality of the means the smallest one is at least
// det (sqrt(5) / F)^5 and the condition number in the 1-norm at most 6 F over that.
#include <cassert>
#include <cmath>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

/// Factorises the centred matrix; whether its condition estimate is bound to reach a value.
bool is_proven(Workspace::Centred& centred, double least) {
  double f2 = 0.0;
  for (const double entry : centred.a) f2 += entry * entry;
  dgefa(centred.a, linpack_order, centred.ipiv);
  double determinant = 1.0;
  for (int k = 0; k < linpack_order; ++k) {
    determinant *= centred.a[k + linpack_order * k];
  }
  constexpr double sqrt_5_to_5 = 55.9, margin = 1.1;
  return std::abs(determinant) * sqrt_5_to_5 >= margin * least * 6.0 * f2 * f2 * f2;
}

}  // namespace

void fit_hessian_centred_by_proof(const State& state, Workspace& work, const Cell* c,
                                  const Stencil& list, int n_list, double& dx2, double& dy2,
                                  double& dxdy, double& dx, double& dy, bool& fit_hessian_succ) {
  build_centred_system(work.centred, *c, list, n_list);
  fit_hessian_succ = is_proven(work.centred, least_centred_condition(n_list));
  if (fit_hessian_succ) {
    solve_centred(work.centred, dx2, dy2, dxdy, dx, dy);
  } else {
    fit_hessian_centred(state, work, c, list, n_list, dx2, dy2, dxdy, dx, dy, fit_hessian_succ);
  }
}

}  // namespace velmar_2d::detail
