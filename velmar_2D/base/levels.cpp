// The logarithm that ties levels to spacings, and powers of two as the rules of areas count them.
#include <cmath>

#include "velmar_2D/base/base.hpp"

namespace velmar_2d::detail {

double log2(double x) { return std::log(x) / log_of_2; }

double power_of_2(std::int32_t level) {
  if (level < 0 || level > 31) return 0.0;
  return static_cast<std::int32_t>(std::uint32_t{1} << level);
}

}  // namespace velmar_2d::detail
