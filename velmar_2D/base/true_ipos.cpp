// The position index: at which level a node at a given position is first created.
//
// Offsets are measured in units of dist_0 and told apart by their reduced denominators. Equal
// denominators 2^k: the centre of a square, level 2k-1. Different ones, the larger being 2^k: the
// midpoint of a side, level 2k. The fractions come from a continued-fraction expansion with
// nearest-integer partial quotients; deep down and far from the origin, where other fractions come
// too close, from the nearest place of the lattice.
#include <bit>
#include <cmath>
#include <limits>

#include "velmar_2D/base/base.hpp"

namespace velmar_2d::detail {

namespace {

/// Of dist_0, on the finest lattice of all.
constexpr int most_halvings = deepest_level / 2;

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

/// Denominator of the nearest place of the lattice of spacing dist_0 / 2^halvings.
std::int32_t nearest_denominator(double offset, int halvings) {
  constexpr double largest_index = 9.0e15;  // whole numbers up to here are exact
  const double index = std::nearbyint(std::ldexp(offset, halvings));
  if (!(std::abs(index) < largest_index)) return 1;
  const auto bits = static_cast<std::uint64_t>(static_cast<std::int64_t>(index));
  return std::int32_t{1} << (halvings - std::min(halvings, std::countr_zero(bits)));
}

/// From this level on an expansion may end on a fraction that is none of the lattice: those with
/// denominators up to 2^20 differ by 2^-40 only, which is less than position_tolerance.
constexpr std::int32_t lowest_ambiguous_level = 39;

/// Whether a place of the finest lattice of all is within reach. Offsets off the lattice are by
/// chance, one in a hundred.
bool is_near_finest_lattice(double offset) {
  constexpr double reach = 4.0 * position_tolerance * (std::int64_t{1} << most_halvings);
  const double multiple = std::ldexp(offset, most_halvings);
  return std::abs(multiple - std::nearbyint(multiple)) <= reach;
}

std::int32_t expanded_denominator(double offset, std::int32_t limit) {
  if (const std::int32_t d = lattice_denominator(offset); d != 0) return d;
  if (limit >= lowest_ambiguous_level && is_near_finest_lattice(offset)) {
    return nearest_denominator(offset, most_halvings);
  }
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

double rounding_of_positions(const Domain& domain) {
  return roundings_of_an_offset * std::numeric_limits<double>::epsilon() *
         domain.largest_coordinate;
}

namespace {

/// Away from the origin x - x_min carries the rounding of x itself. In units of dist_0.
double tolerance_far_away(const Domain& domain) {
  return rounding_of_positions(domain) / domain.dist_0;
}

}  // namespace

std::int32_t deepest_level_of(const Domain& domain) {
  const double ratio = domain.dist_0 / (finest_spacing * rounding_of_positions(domain));
  return 2 * std::clamp(std::ilogb(ratio), 0, most_halvings);
}

bool positions_are_exact(const Domain& domain) {
  return tolerance_far_away(domain) <= position_tolerance;
}

void set_regular(Domain& domain) {
  domain.longest_link = domain.dist_0 * (1.0 + link_length_margin);
  domain.lattice_is_whole = positions_are_exact(domain);
}

std::int32_t true_ipos(const Domain& domain, double x, double y, std::int32_t limit) {
  const double tolerance = tolerance_far_away(domain);
  const auto denominator = [&](double offset) {
    // Far away an expansion would stop at the first fraction within the tolerance, on the lattice
    // or off it.
    return tolerance > position_tolerance ? nearest_denominator(offset, domain.deepest_level / 2)
                                          : expanded_denominator(offset, limit);
  };
  const std::int32_t dx = denominator(x / domain.dist_0);
  const std::int32_t dy = denominator(y / domain.dist_0);
  if (dx == dy) return std::max(2 * log2_special(dx) - 1, 0);
  return 2 * log2_special(std::max(dx, dy));
}

}  // namespace velmar_2d::detail
