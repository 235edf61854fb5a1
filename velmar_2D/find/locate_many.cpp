// The nodes at many points: each walk starts where the last one ended. Points in no order are taken
// in the order of a curve that fills the rectangle, so that the next one is near the last one.
#include <cmath>

#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

namespace {

/// Points are taken in pieces, so that the table for the order stays small.
constexpr std::size_t most_at_once = std::size_t{1} << 20;

/// Whether the way through points in their order is much longer than a way through them needs to
/// be. The shortest one through many points of a rectangle is about as long as the root of their
/// number times its area.
bool is_in_no_order(const Domain& domain, std::span<const Point> points) {
  constexpr std::size_t few = 32;
  constexpr double much_longer = 4.0;
  if (points.size() < few) return false;
  const double width = domain.x_max - domain.x_min, height = domain.y_max - domain.y_min;
  double way = 0.0;
  const Point* last = nullptr;
  for (const Point& p : points) {
    if (!holds(domain, p)) continue;
    if (last != nullptr) way += std::abs(p.x - last->x) + std::abs(p.y - last->y);
    last = &p;
  }
  const auto n = static_cast<double>(points.size());
  return way > much_longer * std::sqrt(n) * std::sqrt(width) * std::sqrt(height);
}

/// Spreads the lower 16 bits to the even places.
std::uint64_t spread(std::uint64_t bits) {
  bits = (bits | bits << 8) & 0x00ff00ff;
  bits = (bits | bits << 4) & 0x0f0f0f0f;
  bits = (bits | bits << 2) & 0x33333333;
  return (bits | bits << 1) & 0x55555555;
}

/// The number of a point along the curve, above the number of the point.
std::uint64_t place_in_order(const Domain& domain, Point p, std::size_t number) {
  constexpr double steps = 65535.0;
  const auto step = [](double share) { return static_cast<std::uint64_t>(share * steps); };
  const std::uint64_t x = step((p.x - domain.x_min) / (domain.x_max - domain.x_min));
  const std::uint64_t y = step((p.y - domain.y_min) / (domain.y_max - domain.y_min));
  return (spread(x) | spread(y) << 1) << 32 | number;
}

}  // namespace

void locate_many(const State& state, std::span<const Point> points, std::span<const Cell*> found,
                 ProgressTeller* progress) {
  const Cell* last = nullptr;
  const auto find = [&](std::size_t i) {
    found[i] = locate(state, points[i], last);
    if (found[i] != nullptr) last = found[i];
    if (progress != nullptr) progress->step();
  };
  if (!is_in_no_order(state.domain, points)) {
    for (std::size_t i = 0; i < points.size(); ++i) find(i);
    return;
  }
  std::vector<std::uint64_t> order =
      make_table<std::uint64_t>(state, std::min(points.size(), most_at_once));
  for (std::size_t begin = 0; begin < points.size(); begin += most_at_once) {
    const std::size_t n = std::min(points.size() - begin, most_at_once);
    std::size_t inside = 0;
    for (std::size_t i = 0; i < n; ++i) {
      const Point& p = points[begin + i];
      found[begin + i] = nullptr;
      if (holds(state.domain, p)) order[inside++] = place_in_order(state.domain, p, i);
    }
    std::sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(inside));
    for (std::size_t k = 0; k < inside; ++k) find(begin + (order[k] & 0xffffffff));
  }
}

}  // namespace velmar_2d::detail
