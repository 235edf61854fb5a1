// Meshes, errors and their orders, for tests of the parts for solvers.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "velmar_2D/velmar_2D_numerics.hpp"

namespace velmar_2d::numerics {

using Values = std::vector<double>;

inline std::size_t at(std::int32_t i) { return static_cast<std::size_t>(i); }

/// Three sizes of cells, in zones that stay where they are when all become finer.
inline Mesh adapted_mesh(std::int32_t intervals, const bc_type_function& kinds) {
  Mesh mesh({}, {.nx = intervals + 1, .subdiv_max = 4, .bc_type = kinds});
  const double coarse = mesh.dist_0();
  mesh.resolve([=](double x, double y, auto...) {
    const double from_ring = std::abs(std::hypot(x - 0.3, y - 0.4) - 0.35);
    return from_ring < 0.1 ? 0.25 * coarse : from_ring < 0.25 ? 0.5 * coarse : coarse;
  });
  return mesh;
}
inline Mesh uniform_mesh(std::int32_t intervals, const bc_type_function& kinds) {
  return Mesh({}, {.nx = intervals + 1, .bc_type = kinds});
}

inline Values at_nodes(const MeshArrays& arrays,
                       const std::function<double(double, double)>& function) {
  Values values(at(arrays.size()));
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = function(arrays.x()[i], arrays.y()[i]);
  }
  return values;
}

struct Errors {
  double mean = 0.0, square = 0.0, most = 0.0;
};
inline Errors errors_of(const MeshArrays& arrays, const Values& u, const Values& exact) {
  Errors errors;
  for (std::size_t i = 0; i < u.size(); ++i) {
    const double error = std::abs(u[i] - exact[i]);
    errors.mean += arrays.areas()[i] * error;
    errors.square += arrays.areas()[i] * error * error;
    errors.most = std::max(errors.most, error);
  }
  errors.square = std::sqrt(errors.square);
  return errors;
}

inline double order(double coarse, double fine) { return std::log2(coarse / fine); }

inline void solve(const SparseMatrix& matrix, std::span<const double> right,
                  std::span<double> solution) {
  ASSERT_GE(conjugate_gradients(matrix, right, solution, 1e-13), 0);
}

}  // namespace velmar_2d::numerics
