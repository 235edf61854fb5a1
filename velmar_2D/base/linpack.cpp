// The published LINPACK routines, written for order 6, see base.hpp.
#include <cmath>
#include <utility>

#include "velmar_2D/base/base.hpp"

namespace velmar_2d::detail {

namespace {

constexpr int order = linpack_order;

double dasum(const double* v) {
  double sum = 0.0;
  for (int i = 0; i < order; ++i) sum += std::abs(v[i]);
  return sum;
}

void dscal(double s, double* v) {
  for (int i = 0; i < order; ++i) v[i] *= s;
}

/// Scales v to unit 1-norm; the factor.
double normalise(double* v) {
  const double s = 1.0 / dasum(v);
  dscal(s, v);
  return s;
}

/// Scales v down where its entry k is above the bound, so that the next division cannot overflow;
/// the factor.
double limit(double* v, int k, double bound) {
  if (std::abs(v[k]) <= bound) return 1.0;
  const double s = bound / std::abs(v[k]);
  dscal(s, v);
  return s;
}

/// Solves trans(U) w = e into z. The signs of e, +1 or -1 each, are chosen on the way so that w
/// grows; e and w are scaled down together where an entry would overflow.
void solve_transposed_u(const double* a, int lda, double* z) {
  double ek = 1.0;
  for (int j = 0; j < order; ++j) z[j] = 0.0;
  for (int k = 0; k < order; ++k) {
    const double pivot = a[k + lda * k];
    if (z[k] != 0.0) ek = std::copysign(ek, -z[k]);
    if (std::abs(ek - z[k]) > std::abs(pivot)) {
      const double s = std::abs(pivot) / std::abs(ek - z[k]);
      dscal(s, z);
      ek *= s;
    }
    double wk = ek - z[k], wkm = -ek - z[k];
    double s = std::abs(wk), sm = std::abs(wkm);
    wk = pivot != 0.0 ? wk / pivot : 1.0;
    wkm = pivot != 0.0 ? wkm / pivot : 1.0;
    for (int j = k + 1; j < order; ++j) {
      const double entry = a[k + lda * j];
      sm += std::abs(z[j] + wkm * entry);
      z[j] += wk * entry;
      s += std::abs(z[j]);
    }
    if (s < sm) {
      const double t = wkm - wk;
      wk = wkm;
      for (int j = k + 1; j < order; ++j) z[j] += t * a[k + lda * j];
    }
    z[k] = wk;
  }
}

/// Solves trans(L) y = w in place, up to a factor.
void solve_transposed_l(const double* a, int lda, const std::int32_t* ipvt, double* z) {
  for (int k = order - 1; k >= 0; --k) {
    double dot = 0.0;
    for (int i = k + 1; i < order; ++i) dot += a[i + lda * k] * z[i];
    z[k] += dot;
    limit(z, k, 1.0);
    std::swap(z[ipvt[k]], z[k]);
  }
}

/// Solves L v = y in place; the factor by which the solution was scaled.
double solve_l(const double* a, int lda, const std::int32_t* ipvt, double* z) {
  double scale = 1.0;
  for (int k = 0; k < order; ++k) {
    const double t = z[ipvt[k]];
    z[ipvt[k]] = z[k];
    z[k] = t;
    for (int i = k + 1; i < order; ++i) z[i] += t * a[i + lda * k];
    scale *= limit(z, k, 1.0);
  }
  return scale;
}

/// Solves U z = v in place; the factor by which the solution was scaled.
double solve_u(const double* a, int lda, double* z) {
  double scale = 1.0;
  for (int k = order - 1; k >= 0; --k) {
    const double pivot = a[k + lda * k];
    scale *= limit(z, k, std::abs(pivot));
    z[k] = pivot != 0.0 ? z[k] / pivot : 1.0;
    const double t = -z[k];
    for (int i = 0; i < k; ++i) z[i] += t * a[i + lda * k];
  }
  return scale;
}

}  // namespace

bool dgefa(double* a, int lda, std::int32_t* ipvt) {
  bool regular = true;
  for (int k = 0; k < order - 1; ++k) {
    double* pivot_column = a + lda * k;
    int l = k;
    for (int i = k + 1; i < order; ++i) {
      if (std::abs(pivot_column[i]) > std::abs(pivot_column[l])) l = i;
    }
    ipvt[k] = l;
    if (pivot_column[l] == 0.0) {
      regular = false;
      continue;
    }
    std::swap(pivot_column[l], pivot_column[k]);
    const double t = -1.0 / pivot_column[k];
    for (int i = k + 1; i < order; ++i) pivot_column[i] *= t;
    for (int j = k + 1; j < order; ++j) {
      double* column = a + lda * j;
      const double factor = column[l];
      column[l] = column[k];
      column[k] = factor;
      for (int i = k + 1; i < order; ++i) column[i] += factor * pivot_column[i];
    }
  }
  ipvt[order - 1] = order - 1;
  return regular && a[(order - 1) + lda * (order - 1)] != 0.0;
}

// The norm of the inverse is estimated by |z| / |y|, where trans(a) y = e and a z = y.
void dgeco(double* a, int lda, std::int32_t* ipvt, double& rcond, double* z) {
  double anorm = 0.0;
  for (int j = 0; j < order; ++j) anorm = std::fmax(anorm, dasum(a + lda * j));

  dgefa(a, lda, ipvt);

  solve_transposed_u(a, lda, z);
  normalise(z);
  solve_transposed_l(a, lda, ipvt, z);
  normalise(z);

  double ynorm = solve_l(a, lda, ipvt, z);
  ynorm *= normalise(z);
  ynorm *= solve_u(a, lda, z);
  ynorm *= normalise(z);
  rcond = anorm != 0.0 ? ynorm / anorm : 0.0;
}

void dgesl(const double* a, int lda, const std::int32_t* ipvt, double* b) {
  for (int k = 0; k < order - 1; ++k) {
    const double t = b[ipvt[k]];
    b[ipvt[k]] = b[k];
    b[k] = t;
    for (int i = k + 1; i < order; ++i) b[i] += t * a[i + lda * k];
  }
  for (int k = order - 1; k >= 0; --k) {
    b[k] /= a[k + lda * k];
    const double t = -b[k];
    for (int i = 0; i < k; ++i) b[i] += t * a[i + lda * k];
  }
}

}  // namespace velmar_2d::detail
