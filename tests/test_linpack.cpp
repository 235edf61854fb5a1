// The linear algebra of the fits, against an inverse computed in long double with full pivoting.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "velmar_2D/linpack.hpp"

namespace velmar_2d::tests {
namespace {

using detail::dgeco;
using detail::dgesl;

constexpr int n = 6;
constexpr double eps = std::numeric_limits<double>::epsilon();

struct Matrix {
  long double entry[n][n] = {};
  long double* operator[](int row) { return entry[row]; }
  const long double* operator[](int row) const { return entry[row]; }
  void copy_row(int to, int from) { std::copy(entry[from], entry[from] + n, entry[to]); }
};

double norm_1(const Matrix& a) {
  long double largest = 0;
  for (int j = 0; j < n; ++j) {
    long double sum = 0;
    for (int i = 0; i < n; ++i) sum += std::abs(a[i][j]);
    largest = std::max(largest, sum);
  }
  return static_cast<double>(largest);
}

/// Gauss-Jordan.
Matrix inverse_of(Matrix a) {
  Matrix b{};
  for (int i = 0; i < n; ++i) b[i][i] = 1;
  bool used_row[n] = {}, used_column[n] = {};
  int row_of[n] = {};
  for (int step = 0; step < n; ++step) {
    int p = -1, q = -1;
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) {
        if (used_row[i] || used_column[j]) continue;
        if (p < 0 || std::abs(a[i][j]) > std::abs(a[p][q])) p = i, q = j;
      }
    }
    used_row[p] = used_column[q] = true;
    row_of[q] = p;
    for (int i = 0; i < n; ++i) {
      if (i == p) continue;
      const long double factor = a[i][q] / a[p][q];
      for (int j = 0; j < n; ++j) a[i][j] -= factor * a[p][j], b[i][j] -= factor * b[p][j];
    }
  }
  Matrix inverse{};
  for (int q = 0; q < n; ++q) {
    for (int j = 0; j < n; ++j) inverse[q][j] = b[row_of[q]][j] / a[row_of[q]][q];
  }
  return inverse;
}

double true_rcond(const Matrix& m) { return 1.0 / (norm_1(m) * norm_1(inverse_of(m))); }

/// The values |y| / (|A| |z|), trans(A) y = e and A z = y, for all signs of the entries of e.
std::vector<double> estimates_for_all_signs(const Matrix& m) {
  const Matrix inverse = inverse_of(m);
  std::vector<double> estimates;
  for (unsigned signs = 0; signs < 32; ++signs) {
    long double y_norm = 0, z_norm = 0, y[n] = {};
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) y[i] += (signs >> j & 1u) != 0 ? -inverse[j][i] : inverse[j][i];
      y_norm += std::abs(y[i]);
    }
    for (int i = 0; i < n; ++i) {
      long double z = 0;
      for (int j = 0; j < n; ++j) z += inverse[i][j] * y[j];
      z_norm += std::abs(z);
    }
    estimates.push_back(static_cast<double>(y_norm / z_norm) / norm_1(m));
  }
  return estimates;
}

/// A matrix as the routines take it, in a table with rows that must stay untouched.
struct Table {
  int lda;
  double a[40 * n];
  std::int32_t pivots[n] = {};
  double rcond = -1.0;

  Table(const Matrix& m, int leading_dimension) : lda(leading_dimension) {
    std::fill(std::begin(a), std::end(a), 1e300);
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) a[i + lda * j] = static_cast<double>(m[i][j]);
    }
    double work[n];
    dgeco(a, lda, pivots, rcond, work);
    for (int j = 0; j < n; ++j) {
      for (int i = n; i < lda; ++i) EXPECT_EQ(a[i + lda * j], 1e300);
    }
  }
};

/// Uniform entries; rows and columns graded over many decades; one column nearly a combination of
/// the others. The entries are exact doubles.
Matrix random_matrix(std::mt19937& random, int kind) {
  std::uniform_real_distribution<double> entry(-1.0, 1.0);
  Matrix m{};
  for (auto& row : m.entry) {
    for (auto& value : row) value = entry(random);
  }
  if (kind == 1) {
    for (int i = 0; i < n; ++i) {
      const double row_scale = std::pow(10.0, 2.5 * entry(random));
      const double column_scale = std::pow(10.0, 2.5 * entry(random));
      for (int j = 0; j < n; ++j) m[i][j] *= row_scale, m[j][i] *= column_scale;
    }
  } else if (kind == 2) {
    const double distance = std::pow(10.0, -6.0 + 5.0 * entry(random));
    for (auto& row : m.entry) row[4] = row[0] - 0.5L * row[2] + distance * row[4];
  }
  for (auto& row : m.entry) {
    for (auto& value : row) value = static_cast<double>(value);
  }
  return m;
}

TEST(Linpack, EstimateBoundsTheConditionFromAboveAndIsClose) {
  std::mt19937 random(2026);
  const int nb_matrices = 6000;
  int nb_far = 0;
  for (int trial = 0; trial < nb_matrices; ++trial) {
    const Matrix m = random_matrix(random, trial % 3);
    const double rcond = true_rcond(m);
    const Table t(m, trial % 2 == 0 ? 6 : 9);
    ASSERT_GE(t.rcond, rcond * (1.0 - 1e-6) - 4.0 * eps) << "trial " << trial;
    if (rcond > 1e-14 && t.rcond > 10.0 * rcond) ++nb_far;
  }
  RecordProperty("estimates_more_than_10_times_off", nb_far);
  EXPECT_LE(nb_far, nb_matrices / 200);
}

// The method chooses the signs of a vector e so that the solution grows; whichever it chooses, its
// estimate is the value for them. That it chooses well shows in the test above.
TEST(Linpack, EstimateIsThatOfSomeChoiceOfSigns) {
  std::mt19937 random(12);
  for (int trial = 0; trial < 500; ++trial) {
    const Matrix m = random_matrix(random, trial % 2);
    const Table t(m, 6);
    double nearest = 1.0;
    for (const double estimate : estimates_for_all_signs(m)) {
      nearest = std::min(nearest, std::abs(t.rcond / estimate - 1.0));
    }
    ASSERT_LE(nearest, 1e-6 + 100.0 * eps / true_rcond(m)) << "trial " << trial;
  }
}

TEST(Linpack, SingularMatricesGiveNothingOrRounding) {
  const Matrix zero{};
  EXPECT_EQ(Table(zero, 9).rcond, 0.0);
  std::mt19937 random(7);
  for (int trial = 0; trial < 200; ++trial) {
    Matrix m = random_matrix(random, 0);
    switch (trial % 4) {
      case 0: m.copy_row(4, 1); break;
      case 1:
        for (auto& row : m.entry) row[3] = 0;
        break;
      case 2:
        for (auto& row : m.entry) row[5] = row[0] * 2;
        break;
      default:
        for (int i = 1; i < n; ++i) m.copy_row(i, 0);
    }
    EXPECT_LE(Table(m, 6).rcond, 4.0 * eps) << "trial " << trial;
  }
}

TEST(Linpack, SolutionsAreGoodToRoundingTimesCondition) {
  std::mt19937 random(99);
  std::uniform_real_distribution<double> entry(-1.0, 1.0);
  for (int trial = 0; trial < 3000; ++trial) {
    const Matrix m = random_matrix(random, trial % 3);
    const Table t(m, trial % 2 == 0 ? 40 : 6);
    double x[n], b[n];
    for (double& value : x) value = entry(random);
    for (int i = 0; i < n; ++i) {
      long double sum = 0;
      for (int j = 0; j < n; ++j) sum += m[i][j] * x[j];
      b[i] = static_cast<double>(sum);
    }
    dgesl(t.a, t.lda, t.pivots, b);
    double error = 0.0, size = 0.0;
    for (int i = 0; i < n; ++i) error += std::abs(b[i] - x[i]), size += std::abs(x[i]);
    ASSERT_LE(error, 20.0 * eps / true_rcond(m) * size) << "trial " << trial;
  }
}

}  // namespace
}  // namespace velmar_2d::tests
