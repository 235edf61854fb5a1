#include <atomic>
#include <cmath>
#include <string>

#include "numerics.hpp"

namespace velmar_2d::numerics {

namespace detail {

std::uint64_t next_version() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

void require_size(std::string_view what, std::size_t given, std::size_t needed) {
  if (given == needed) return;
  throw Error("(velmar_2D/numerics:) ERROR: " + std::string(what) + ": " + std::to_string(given) +
              " were given, " + std::to_string(needed) + " are needed");
}

}  // namespace detail

using detail::index, detail::require_size;

void touch(SparseMatrix& matrix) { matrix.version = detail::next_version(); }

void multiply(const SparseMatrix& matrix, std::span<const double> x, std::span<double> result) {
  const std::size_t n = matrix.diagonal.size();
  require_size("values of a vector", x.size(), n);
  require_size("values of a product", result.size(), n);
  const std::int32_t* column = matrix.columns.data();
  const double* value = matrix.values.data();
  for (std::size_t i = 0; i < n; ++i) {
    double sum = 0.0;
    for (std::int32_t k = matrix.row_begin[i + 1] - matrix.row_begin[i]; k > 0; --k) {
      sum += *value++ * x[index(*column++)];
    }
    result[i] = sum;
  }
}

std::int32_t conjugate_gradients(const SparseMatrix& matrix, std::span<const double> right,
                                 std::span<double> solution, double tolerance, std::int32_t most) {
  const std::size_t n = matrix.diagonal.size();
  require_size("values of a right side", right.size(), n);
  require_size("values of a solution", solution.size(), n);
  std::vector<double> residual(n), direction(n), product(n), inverse(n);
  multiply(matrix, solution, product);
  double rest = 0.0, slope = 0.0, bound = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    inverse[i] = 1.0 / matrix.values[index(matrix.diagonal[i])];
    residual[i] = right[i] - product[i];
    direction[i] = inverse[i] * residual[i];
    slope += residual[i] * direction[i];
    rest += residual[i] * residual[i];
    bound += right[i] * right[i];
  }
  bound *= tolerance * tolerance;
  for (std::int32_t done = 0; done < most; ++done) {
    if (rest <= bound) return done;
    multiply(matrix, direction, product);
    double curvature = 0.0;
    for (std::size_t i = 0; i < n; ++i) curvature += direction[i] * product[i];
    const double way = slope / curvature;
    double next = 0.0;
    rest = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
      solution[i] += way * direction[i];
      residual[i] -= way * product[i];
      rest += residual[i] * residual[i];
      next += residual[i] * inverse[i] * residual[i];
    }
    const double share = next / slope;
    slope = next;
    for (std::size_t i = 0; i < n; ++i) {
      direction[i] = inverse[i] * residual[i] + share * direction[i];
    }
  }
  return rest <= bound ? most : -1;
}

}  // namespace velmar_2d::numerics
