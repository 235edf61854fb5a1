// The position index: at which level a node at a given position is first created.
//
// Offsets are measured in units of dist_0 and told apart by their reduced denominators. Equal
// denominators 2^k: the centre of a square, level 2k-1. Different ones, the larger being 2^k: the
// midpoint of a side, level 2k. The fractions come from a continued-fraction expansion with
// nearest-integer partial quotients.
#include <bit>
#include <cmath>
#include <limits>

#include "velmar_2D/internal.hpp"

namespace velmar_2d::detail {

namespace {

/// Offsets this close, in units of dist_0, are the same position.
constexpr double position_tolerance = 1e-12;
/// A coordinate is good to one rounding; its offset in units of dist_0 passes through a few more.
constexpr double roundings = 8.0;
/// The denominator grows by 2 or more with every pass, so a proper expansion needs fewer than 30.
constexpr int most_passes = 64;

// Convergents may overflow on positions that are no fractions; they then wrap.
std::int32_t wrapping_add(std::int32_t a, std::int32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}
std::int32_t wrapping_multiply(std::int32_t a, std::int32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
}
std::int32_t wrapping_negate(std::int32_t a) { return wrapping_add(~a, 1); }

/// Denominator of an offset that lies on the lattice of spacing dist_0 / 2^15 or coarser, 0 of any
/// other. It is what the expansion gives within position_tolerance, without the expansion: a
/// fraction with a denominator of at most 2^15 differs from all others by 2^-30 at the least, and
/// is a convergent of every number this close to it.
std::int32_t lattice_denominator(double offset) {
  constexpr double finest = 32768.0, largest_offset = 65535.0;
  const double multiple = offset * finest;
  const double whole = std::nearbyint(multiple);
  if (!(std::abs(offset) < largest_offset) ||
      std::abs(multiple - whole) > 0.5 * position_tolerance * finest) {
    return 0;
  }
  const auto bits = static_cast<std::uint32_t>(static_cast<std::int32_t>(whole)) | 32768U;
  return 32768 >> std::countr_zero(bits);
}

std::int32_t denominator(double offset, const double* tol) {
  if (tol == nullptr) {
    if (const std::int32_t d = lattice_denominator(offset); d != 0) return d;
  }
  std::int32_t n = 0, d = 0;
  real_to_rat(n, d, offset, tol);
  return d;
}

}  // namespace

void real_to_rat(std::int32_t& n, std::int32_t& d, double x, const double* tol) {
  const double tol1 = tol != nullptr ? std::max(position_tolerance, *tol) : position_tolerance;
  n = 1;
  d = 0;
  std::int32_t n_old = 0, d_old = 1;
  double xx = x;
  for (int pass = 0; pass < most_passes; ++pass) {
    // Beyond this there is no fraction to tell; the conversion to an integer would be undefined.
    constexpr double largest_integer = 9.2e18;
    if (!(std::abs(xx) < largest_integer)) break;
    const auto dd = static_cast<std::int32_t>(std::llround(xx));
    xx -= dd;
    const std::int32_t n_try = wrapping_add(wrapping_multiply(n, dd), n_old);
    const std::int32_t d_try = wrapping_add(wrapping_multiply(d, dd), d_old);
    const bool close = d_try != 0 && std::abs(static_cast<double>(n_try) / d_try - x) < tol1;
    n_old = n;
    d_old = d;
    n = n_try;
    d = d_try;
    if (close || xx == 0.0) break;
    xx = 1.0 / xx;
  }
  if (d < 0) {
    n = wrapping_negate(n);
    d = wrapping_negate(d);
  }
}

std::int32_t log2_special(std::int32_t n) {
  if (n == 0) return 1;
  std::int32_t res = 0;
  for (std::int64_t p = 1; p < n; p *= 2) ++res;
  return res;
}

namespace {

/// Away from the origin x - x_min carries the rounding of x itself.
double tolerance_far_away() {
  return roundings * std::numeric_limits<double>::epsilon() * domain.largest_coordinate / dist_0;
}

}  // namespace

bool positions_are_exact() { return tolerance_far_away() <= position_tolerance; }

std::int32_t true_ipos(double x, double y) {
  const double tolerance = tolerance_far_away();
  const double* tol = tolerance > position_tolerance ? &tolerance : nullptr;
  const std::int32_t dx = denominator(x / dist_0, tol);
  const std::int32_t dy = denominator(y / dist_0, tol);
  if (dx == dy) return std::max(2 * log2_special(dx) - 1, 0);
  return 2 * log2_special(std::max(dx, dy));
}

}  // namespace velmar_2d::detail
