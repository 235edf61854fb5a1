// Systems of six equations, solved in long double: an answer to compare the library's with.
#pragma once

#include <cmath>
#include <cstddef>
#include <utility>

namespace velmar_2d::tests {

/// Gauss-Jordan with full pivoting. The columns from the seventh on are right-hand sides, and hold
/// the solutions afterwards.
template <std::size_t columns>
void solve_with_full_pivoting(long double (&m)[6][columns]) {
  bool done[6] = {};
  for (int step = 0; step < 6; ++step) {
    std::size_t p = 6, q = 6;
    for (std::size_t i = 0; i < 6; ++i) {
      for (std::size_t j = 0; j < 6; ++j) {
        if (done[i] || done[j]) continue;
        if (p == 6 || std::abs(m[i][j]) > std::abs(m[p][q])) p = i, q = j;
      }
    }
    std::swap(m[p], m[q]);
    done[q] = true;
    const long double pivot = m[q][q];
    for (long double& entry : m[q]) entry /= pivot;
    for (std::size_t i = 0; i < 6; ++i) {
      const long double factor = m[i][q];
      for (std::size_t k = 0; i != q && k < columns; ++k) m[i][k] -= factor * m[q][k];
    }
  }
}

}  // namespace velmar_2d::tests
