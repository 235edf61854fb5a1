// What a control cell of one mesh shares with one of another: both are convex, so that it is the
// one polygon cut by the edges of the other.
#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

void SharedPart::cut(const Point& a, const Point& b, int edge) {
  const double dx = b.x - a.x, dy = b.y - a.y;
  const auto left = [&](const Corner& p) { return dx * (p.y - a.y) - dy * (p.x - a.x); };
  bool all_left = true;
  std::array<double, capacity> side;
  for (std::size_t i = 0; i < n; ++i) {
    side[i] = left(corners[i]);
    all_left = all_left && side[i] >= 0.0;
  }
  if (all_left) return;
  SharedPart kept;
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t j = i + 1 < n ? i + 1 : 0;
    const Corner &p = corners[i], &q = corners[j];
    const auto crossing = [&](int edge_there) {
      const double share = side[i] / (side[i] - side[j]);
      return Corner{p.x + share * (q.x - p.x), p.y + share * (q.y - p.y), edge_there};
    };
    if (side[i] >= 0.0) {
      kept.add(p);
      if (side[j] < 0.0) kept.add(crossing(edge));
    } else if (side[j] > 0.0) {
      kept.add(crossing(p.edge));
    }
  }
  *this = kept;
}

void SharedPart::cut(const Polygon& cell, double x, double y) {
  for (std::size_t i = 0; i < cell.n && n > 2; ++i) {
    const Polygon::Corner &a = cell.corners[i], &b = cell.after(i);
    cut({a.x + x, a.y + y}, {b.x + x, b.y + y}, a.edge);
  }
}

double SharedPart::area() const {
  double twice = 0.0;
  for (std::size_t i = 2; i < n; ++i) {
    const Corner &a = corners[0], &b = corners[i - 1], &c = corners[i];
    twice += (b.x - a.x) * (c.y - a.y) - (c.x - a.x) * (b.y - a.y);
  }
  return 0.5 * twice;
}

Polygon cell_below(const Domain& domain, const KnownShape& shape, std::int32_t level) {
  Polygon polygon = polygon_of(shape);
  const double unit = length_units(domain, level)[0];
  for (std::size_t i = 0; i < polygon.n; ++i) {
    polygon.corners[i].x *= unit;
    polygon.corners[i].y *= unit;
  }
  return polygon;
}

Polygon cell_below(const Domain& domain, const Cell& c) {
  const KnownShape* shape = look_at(domain, c).shape;
  return shape != nullptr ? cell_below(domain, *shape, c.level) : polygon_of(domain, c);
}

}  // namespace velmar_2d::detail
