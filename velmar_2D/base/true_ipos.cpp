// The position index: at which level a node at a given position is first created.
//
// Offsets are measured in units of dist_0 and told apart by their reduced denominators. Equal
// denominators 2^k: the centre of a square, level 2k-1. Different ones, the larger being 2^k: the
// midpoint of a side, level 2k. The fractions come from a continued-fraction expansion with
// nearest-integer partial quotients.
#include <bit>
#include <cmath>
#include <limits>

#include "velmar_2D/base/base.hpp"

namespace velmar_2d::detail {

namespace {

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

std::int32_t expanded_denominator(double offset) {
  if (const std::int32_t d = lattice_denominator(offset); d != 0) return d;
  std::int32_t n = 0, d = 0;
  real_to_rat(n, d, offset);
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
double tolerance_far_away(const Domain& domain) {
  return roundings_of_an_offset * std::numeric_limits<double>::epsilon() *
         domain.largest_coordinate / domain.dist_0;
}

/// Denominator of the nearest place on the finest lattice whose places the tolerance tells apart.
/// An expansion would stop at the first fraction within the tolerance, on the lattice or off it.
std::int32_t nearest_lattice_denominator(double offset, double tolerance) {
  constexpr int most_halvings = 30;
  constexpr double largest_index = 9.0e15;  // whole numbers up to here are exact
  const int halvings = std::clamp(-1 - std::ilogb(2.0 * tolerance), 0, most_halvings);
  const double index = std::nearbyint(std::ldexp(offset, halvings));
  if (!(std::abs(index) < largest_index)) return 1;
  const auto bits = static_cast<std::uint64_t>(static_cast<std::int64_t>(index));
  return std::int32_t{1} << (halvings - std::min(halvings, std::countr_zero(bits)));
}

}  // namespace

bool positions_are_exact(const Domain& domain) {
  return tolerance_far_away(domain) <= position_tolerance;
}

void set_regular(Domain& domain) {
  domain.longest_link = domain.dist_0 * (1.0 + link_length_margin);
  domain.lattice_is_whole = positions_are_exact(domain);
}

std::int32_t true_ipos(const Domain& domain, double x, double y) {
  const double tolerance = tolerance_far_away(domain);
  const auto denominator = [&](double offset) {
    return tolerance > position_tolerance ? nearest_lattice_denominator(offset, tolerance)
                                          : expanded_denominator(offset);
  };
  const std::int32_t dx = denominator(x / domain.dist_0);
  const std::int32_t dy = denominator(y / domain.dist_0);
  if (dx == dy) return std::max(2 * log2_special(dx) - 1, 0);
  return 2 * log2_special(std::max(dx, dy));
}

}  // namespace velmar_2d::detail
