// The decisions of an update by the ratios of spacings at which they change. The logarithm is taken
// only within a margin of those, where its rounding decides.
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

constexpr double sqrt_of_2 = 1.4142135623730951;

struct Thresholds {
  static constexpr std::size_t nb_levels = 64;
  std::array<double, nb_levels> refine{}, coarsen{};

  constexpr Thresholds() {
    constexpr double half_of_margin = 0.6949591099211685;
    static_assert(coarsening_margin == 1.05);  // 2^(-1.05 / 2)
    for (std::size_t l = 0; l < nb_levels; ++l) {
      refine[l] = exact_power_of_2(static_cast<int>(l / 2)) * (l % 2 == 0 ? 1.0 : sqrt_of_2);
      coarsen[l] = refine[l] * half_of_margin;
    }
  }
};
constexpr Thresholds thresholds;

bool has_threshold(std::int32_t level) {
  return static_cast<std::size_t>(level) < Thresholds::nb_levels;
}
bool clearly_above(double ratio, double threshold) {
  return ratio > threshold * (1.0 + threshold_margin);
}
/// False for negative ratios too: their level is no number.
bool clearly_below(double ratio, double threshold) {
  return ratio < threshold * (1.0 - threshold_margin) && ratio >= 0.0;
}

}  // namespace

bool is_too_coarse_by_threshold(double ratio, std::int32_t level) {
  if (has_threshold(level)) {
    const double threshold = thresholds.refine[static_cast<std::size_t>(level)];
    if (clearly_above(ratio, threshold)) return true;
    if (clearly_below(ratio, threshold)) return false;
  }
  return is_too_coarse(ratio, level);
}

bool is_too_fine_by_threshold(double ratio, std::int32_t level) {
  if (has_threshold(level)) {
    const double threshold = thresholds.coarsen[static_cast<std::size_t>(level)];
    if (clearly_above(ratio, threshold)) return false;
    if (clearly_below(ratio, threshold)) return true;
  }
  return is_too_fine(ratio, level);
}

// The exponent of the ratio tells two levels apart from all others, its fraction these two.
std::int32_t level_wanted_by(double ratio) {
  constexpr int fraction_bits = 52, exponent_bias = 1023;
  if (!(ratio > 1.0 + threshold_margin)) return 0;
  const auto bits = std::bit_cast<std::uint64_t>(ratio);
  const int exponent = static_cast<int>(bits >> fraction_bits) - exponent_bias;
  if (2 * exponent > highest_wanted_level) return highest_wanted_level;
  const auto fraction = std::bit_cast<double>((bits & ((std::uint64_t{1} << fraction_bits) - 1)) |
                                              std::uint64_t{exponent_bias} << fraction_bits);
  const std::int32_t above = fraction > sqrt_of_2 * (1.0 + threshold_margin) ? 2
                             : fraction > 1.0 + threshold_margin             ? 1
                                                                             : 0;
  return std::min(2 * exponent + above, highest_wanted_level);
}

}  // namespace velmar_2d::detail
