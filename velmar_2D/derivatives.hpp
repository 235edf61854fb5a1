// Derivatives of the data at a node, from the rows of a stencil.
#pragma once

#include "velmar_2D/stencil.hpp"

namespace velmar_2d::detail {

/// The condition estimate from which on six rows in absolute coordinates are accepted, for a node
/// of this level.
inline double least_condition(std::int32_t level) {
  constexpr double per_spacing2 = 0.001;
  return per_spacing2 * dist_0 * dist_0 / power_of_2(level);
}

/// Least-squares quadratic through the rows of a stencil; its derivatives at the node.
///
/// The stencil is refused (`fit_hessian_succ` false, outputs untouched) where the condition
/// estimate of the system in absolute coordinates lies below 0.001 dist_0^2 / 2^level, squared for
/// more than six rows. The derivatives of an accepted one come from the same problem in coordinates
/// centred on the node, where they keep their digits wherever the domain lies. Ends the process
/// with fewer than six rows.
void fit_hessian_6pts(const Cell* c, const Stencil& list, int n_list, double& dx2, double& dy2,
                      double& dxdy, double& dx, double& dy, bool& fit_hessian_succ);

/// fit_hessian_6pts() with another criterion, which does not depend on where the domain lies: the
/// condition estimate of the centred system, at least 1e-6 for six rows, 1e-8 for more.
void fit_hessian_centred(const Cell* c, const Stencil& list, int n_list, double& dx2, double& dy2,
                         double& dxdy, double& dx, double& dy, bool& fit_hessian_succ);

/// A fit by shape: weights that make the derivatives of the values on a stencil.
struct FitOperator;
/// The operator of a stencil: the node, its neighbours, and up to three rows more. nullptr where
/// the rows do not lie on the lattice, where they lie too far apart, or where the centred criterion
/// refuses them. Good until the next call.
///
/// Needs: a level of 0 or more.
const FitOperator* find_operator(const Cell* c, const Stencil& list, int n_list);
/// The derivatives that a fit would give, up to rounding.
void apply_operator(const FitOperator& op, const Cell* c, const Stencil& list, int n_list,
                    double& dx2, double& dy2, double& dxdy, double& dx, double& dy);
/// Whether fit_hessian_6pts() is bound to accept these six rows. Cheaper than asking it, and true
/// for nearly all that it accepts.
bool acceptance_is_certain(const FitOperator& op, const Cell* c, const Stencil& list);

/// Completes five nodes to six rows: the candidates, and the parallelogram of two rows and the node
/// that gives the best conditioned system. No mixed difference is then seen along those two.
void weird_partial_hessian_5pts(const Cell* c, Stencil& list, const Candidates& candidates,
                                int& n_list, int n_candidates);

/// Whether fit_hessian_6pts() would refuse each stencil of a search, told without trying them: the
/// first n_list - 2 rows of the list with any two of its last two rows and the candidates.
///
/// May miss a hopeless search, never condemns one that would find a stencil.
bool search_is_hopeless(const Cell* c, const Stencil& list, int n_list,
                        const Candidates& candidates, int n_candidates);

/// Second derivatives on the regular square, by differences. Along the axes of the square, so only
/// their Frobenius norm has a meaning for all cases and levels.
/// Ends the process if the case is none of 1 to 4.
void quick_fit_hessian_6pts(int quick_hessian_case, std::int32_t level, const Stencil& list,
                            double& dx2, double& dy2, double& dxdy);

/// Gradient on the regular square, by central differences.
void quick_gradient_case(const Cell* c, double& grad_x, double& grad_y);

/// Which component of the gradient a Neumann side forces to 0: at most one.
/// Ends the process if the node lies inside.
void gradient_on_boundary(const Cell* c, bool& grad_x_null, bool& grad_y_null);

/// Least-squares quadratic through scattered rows, evaluated at (x, y), for a node of a level.
///
/// `value` stays as it is where the system is too ill-conditioned, by the rule of
/// fit_hessian_6pts(); the coordinates are used as they are.
/// Ends the process with fewer than six rows.
void fit_data(const Candidates& list, int n_list, double x, double y, double& value,
              std::int32_t level);

}  // namespace velmar_2d::detail
