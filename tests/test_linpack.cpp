// The linear algebra of the fits, against an inverse computed in long double with full pivoting.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <random>

#include "support/full_pivoting.hpp"
#include "velmar_2D/base/base.hpp"

namespace velmar_2d::tests {
namespace {

constexpr int n = 6;
constexpr double eps = std::numeric_limits<double>::epsilon();

using Matrix = std::array<std::array<double, n>, n>;

struct Reference {
  long double norm = 0, inverse_norm = 0, inverse[n][n];  // 1-norms

  explicit Reference(const Matrix& a) {
    long double m[n][2 * n] = {};
    for (std::size_t i = 0; i < n; ++i) {
      std::copy(a[i].begin(), a[i].end(), m[i]);
      m[i][n + i] = 1;
    }
    solve_with_full_pivoting(m);
    for (std::size_t j = 0; j < n; ++j) {
      long double sum = 0, inverse_sum = 0;
      for (std::size_t i = 0; i < n; ++i) {
        inverse[i][j] = m[i][n + j];
        sum += std::abs(a[i][j]);
        inverse_sum += std::abs(m[i][n + j]);
      }
      norm = std::max(norm, sum);
      inverse_norm = std::max(inverse_norm, inverse_sum);
    }
  }
  double rcond() const { return static_cast<double>(1 / (norm * inverse_norm)); }

  /// The value |y| / (|A| |z|), trans(A) y = e and A z = y, for some signs of the entries of e.
  double estimate(unsigned signs) const {
    long double y_norm = 0, z_norm = 0, y[n] = {};
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t j = 0; j < n; ++j) y[i] += (signs >> j & 1 ? -1 : 1) * inverse[j][i];
      y_norm += std::abs(y[i]);
    }
    for (const auto& row : inverse) z_norm += std::abs(std::inner_product(row, row + n, y, 0.0L));
    return static_cast<double>(y_norm / z_norm / norm);
  }
};

/// A matrix as the routines take it, in a table with rows that must stay untouched.
struct Table {
  int lda;
  double a[40 * n];
  std::int32_t pivots[n] = {};
  double rcond = -1.0;

  Table(const Matrix& m, int leading_dimension) : lda(leading_dimension) {
    std::fill(std::begin(a), std::end(a), 1e300);
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t j = 0; j < n; ++j) a[i + static_cast<std::size_t>(lda) * j] = m[i][j];
    }
    double work[n];
    detail::dgeco(a, lda, pivots, rcond, work);
    for (int j = 0; j < n; ++j) {
      for (int i = n; i < lda; ++i) EXPECT_EQ(a[i + lda * j], 1e300);
    }
  }
};

/// Uniform entries; rows and columns graded over many decades; one column nearly a combination of
/// the others.
Matrix random_matrix(std::mt19937& random, int kind) {
  std::uniform_real_distribution<double> entry(-1.0, 1.0);
  Matrix m{};
  for (auto& row : m) {
    for (double& value : row) value = entry(random);
  }
  if (kind == 1) {
    for (std::size_t i = 0; i < n; ++i) {
      const double row_scale = std::pow(10.0, 2.5 * entry(random));
      const double column_scale = std::pow(10.0, 2.5 * entry(random));
      for (std::size_t j = 0; j < n; ++j) m[i][j] *= row_scale, m[j][i] *= column_scale;
    }
  } else if (kind == 2) {
    const double distance = std::pow(10.0, -6.0 + 5.0 * entry(random));
    for (auto& row : m) row[4] = row[0] - 0.5 * row[2] + distance * row[4];
  }
  return m;
}

TEST(Linpack, EstimateIsCloseFromAboveAndSolutionsAreGood) {
  std::mt19937 random(2026);
  std::uniform_real_distribution<double> entry(-1.0, 1.0);
  const int nb_matrices = 6000;
  int nb_far = 0;
  for (int trial = 0; trial < nb_matrices; ++trial) {
    const Matrix m = random_matrix(random, trial % 3);
    const Reference reference(m);
    const double rcond = reference.rcond();
    const Table t(m, trial % 4 == 0 ? 40 : 6 + trial % 4);
    ASSERT_GE(t.rcond, rcond * (1.0 - 1e-6) - 4.0 * eps) << "trial " << trial;
    if (rcond > 1e-14 && t.rcond > 10.0 * rcond) ++nb_far;
    // The method chooses signs so that z grows; whichever it chooses, its estimate is that for
    // them.
    double nearest = 1.0;
    for (unsigned signs = 0; signs < 32 && trial % 3 < 2; ++signs)
      nearest = std::min(nearest, std::abs(t.rcond / reference.estimate(signs) - 1.0));
    ASSERT_TRUE(trial % 3 == 2 || nearest <= 1e-6 + 100.0 * eps / rcond) << "trial " << trial;

    double x[n], b[n];
    for (double& value : x) value = entry(random);
    for (std::size_t i = 0; i < n; ++i) {
      long double sum = 0;
      for (std::size_t j = 0; j < n; ++j) sum += static_cast<long double>(m[i][j]) * x[j];
      b[i] = static_cast<double>(sum);
    }
    detail::dgesl(t.a, t.lda, t.pivots, b);
    double error = 0.0, size = 0.0;
    for (int i = 0; i < n; ++i) error += std::abs(b[i] - x[i]), size += std::abs(x[i]);
    ASSERT_LE(error, 20.0 * eps / rcond * size) << "trial " << trial;
  }
  EXPECT_LE(nb_far, nb_matrices / 200);
}

TEST(Linpack, SingularMatricesGiveNothingOrRounding) {
  EXPECT_EQ(Table(Matrix{}, 9).rcond, 0.0);
  std::mt19937 random(7);
  for (int trial = 0; trial < 200; ++trial) {
    Matrix m = random_matrix(random, 0);
    if (trial % 3 == 0) m[4] = m[1];
    if (trial % 3 == 1) m.fill(m[0]);
    for (auto& row : m) row[5] = trial % 3 == 2 ? row[0] * 2 : row[5];
    EXPECT_LE(Table(m, 6).rcond, 4.0 * eps) << "trial " << trial;
  }
}

}  // namespace
}  // namespace velmar_2d::tests
