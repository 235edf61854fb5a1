// Value at a point from scattered nodes around it.
#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

// The coordinates are used as they are: a caller who centres them on the point keeps more digits.
void fit_data(const State& state, const Candidates& list, int n_list, double x, double y,
              double& value, std::int32_t level) {
  constexpr int lda = Candidates::capacity;
  constexpr int nb_coefficients = linpack_order;
  double a[lda * nb_coefficients];
  double z[lda];
  double b[nb_coefficients];
  std::int32_t ipiv[nb_coefficients];
  double rcond, work[nb_coefficients];

  const int m = n_list;
  if (m < nb_coefficients) {
    fatal(state.handlers,
          "(Velmar_2D:) fit_data: internal error\n"
          "             too few equations !");
  }
  if (m > lda) {
    fatal(state.handlers,
          "(Velmar_2D:) fit_data: internal error\n"
          "             too many equations !");
  }
  for (int i = 0; i < m; ++i) {
    z[i] = list.value[i];
    a[i] = 1.0;
    a[i + lda] = list.x[i];
    a[i + 2 * lda] = list.y[i];
    a[i + 3 * lda] = list.x[i] * list.x[i];
    a[i + 4 * lda] = list.y[i] * list.y[i];
    a[i + 5 * lda] = list.y[i] * list.x[i];
  }

  // A fit is refused below this condition; normal equations square it. A negative one (level 31)
  // refuses no six rows, an infinite one (levels that have no spacing) all.
  double t = state.domain.dist_0 * state.domain.dist_0 / power_of_2(level) * 0.001;
  if (m > nb_coefficients) {
    t *= t;
    double product[nb_coefficients][nb_coefficients];
    for (int j = 0; j < nb_coefficients; ++j) {
      b[j] = 0.0;
      for (int i = 0; i < m; ++i) b[j] += a[i + lda * j] * z[i];
      for (int k = 0; k < nb_coefficients; ++k) {
        product[j][k] = 0.0;
        for (int i = 0; i < m; ++i) product[j][k] += a[i + lda * j] * a[i + lda * k];
      }
    }
    for (int j = 0; j < nb_coefficients; ++j) {
      for (int k = 0; k < nb_coefficients; ++k) a[k + lda * j] = product[j][k];
    }
  } else {
    for (int i = 0; i < nb_coefficients; ++i) b[i] = z[i];
  }
  dgeco(a, lda, ipiv, rcond, work);
  if (t > rcond) return;
  dgesl(a, lda, ipiv, b);
  value = b[0] + b[1] * x + b[2] * y + b[3] * (x * x) + b[4] * (y * y) + b[5] * (x * y);
}

}  // namespace velmar_2d::detail
