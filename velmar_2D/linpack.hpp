// Dense linear algebra for the local fits: LU factors with partial pivoting, an estimate of the
// reciprocal condition number, and the solution with the factors.
//
// The algorithms of J. J. Dongarra, J. R. Bunch, C. B. Moler and G. W. Stewart, LINPACK Users'
// Guide, SIAM 1979, chapter 1. Which stencils a fit accepts hangs on this very estimate, so that
// another factorisation or estimator may not stand in for it.
#pragma once

#include <cstdint>

namespace velmar_2d::detail {

/// Order of all systems: the coefficients of a quadratic in two variables.
inline constexpr int linpack_order = 6;

/// Factorises the leading 6 x 6 block of a matrix.
///
/// @param a     column by column; receives U and the multipliers of L
/// @param lda   leading dimension, at least 6
/// @param ipvt  receives the 6 pivot rows, counted from 0
/// @return whether no pivot is 0
bool dgefa(double* a, int lda, std::int32_t* ipvt);

/// dgefa() with an estimate of the reciprocal condition number in the 1-norm.
///
/// @param rcond  receives the estimate, at or above the true number up to rounding; 0 or of the
///               order of rounding for a singular matrix
/// @param z      6 entries of scratch; for a nearly singular matrix an approximate null vector
void dgeco(double* a, int lda, std::int32_t* ipvt, double& rcond, double* z);

/// Solves a x = b with the factors of dgefa() or dgeco(); b receives the solution.
void dgesl(const double* a, int lda, const std::int32_t* ipvt, double* b);

}  // namespace velmar_2d::detail
