// This library's side: the mesh follows the front by resolve(), which hands the values on, and
// MeshArrays give the faces of the control cells.
#pragma once

#include "problem.hpp"

namespace velmar_2d::solvers {

/// Explicit steps: Runge-Kutta-Chebyshev, with loops over the links of MeshArrays.
Outcome follow(const Case& run);
/// Implicit steps: the Rosenbrock method of velmar_2d::numerics, with conjugate gradients of Eigen.
Outcome follow_implicitly(const Case& run);

}  // namespace velmar_2d::solvers
