// A tree of boxes, each around half of the segments in the box above. A search enters the nearer
// box first and leaves out boxes that are farther away than the best segment so far.
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include "tools/lines.hpp"

namespace velmar_2d::tools {
namespace {

constexpr std::uint32_t segments_per_leaf = 4;

double square(double value) { return value * value; }

double squared_distance(const Segment& segment, Point p) {
  const double along_x = segment.b.x - segment.a.x, along_y = segment.b.y - segment.a.y;
  const double length = square(along_x) + square(along_y);
  const double share =
      length > 0.0
          ? std::clamp(((p.x - segment.a.x) * along_x + (p.y - segment.a.y) * along_y) / length,
                       0.0, 1.0)
          : 0.0;
  return square(segment.a.x + share * along_x - p.x) + square(segment.a.y + share * along_y - p.y);
}

double squared_distance(const DistanceTree::Box& box, Point p) {
  return square(std::max({box.west - p.x, 0.0, p.x - box.east})) +
         square(std::max({box.south - p.y, 0.0, p.y - box.north}));
}

}  // namespace

DistanceTree::DistanceTree(std::vector<Segment> segments) : segments_(std::move(segments)) {
  nodes_.reserve(segments_.size());
  build(0, static_cast<std::uint32_t>(segments_.size()));
}

void DistanceTree::build(std::uint32_t first, std::uint32_t count) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  Box box{infinity, -infinity, infinity, -infinity};
  for (std::uint32_t i = first; i < first + count; ++i) {
    for (const Point& end : {segments_[i].a, segments_[i].b}) {
      box = {std::min(box.west, end.x), std::max(box.east, end.x), std::min(box.south, end.y),
             std::max(box.north, end.y)};
    }
  }
  const std::size_t node = nodes_.size();
  nodes_.push_back({box, first, count});
  if (count <= segments_per_leaf) return;

  // Halves by the middle segment along the longer side of the box.
  const bool by_x = box.east - box.west > box.north - box.south;
  const auto place = [by_x](const Segment& s) { return by_x ? s.a.x + s.b.x : s.a.y + s.b.y; };
  const std::uint32_t half = count / 2;
  const auto begin = segments_.begin() + first;
  std::nth_element(begin, begin + half, begin + count,
                   [&](const Segment& s, const Segment& t) { return place(s) < place(t); });
  build(first, half);
  nodes_[node].first = static_cast<std::uint32_t>(nodes_.size());
  nodes_[node].count = 0;
  build(first + half, count - half);
}

double DistanceTree::distance(Point p) const {
  // Halving 2^32 segments gives a tree of at most 32 storeys; one box waits in each.
  std::array<std::pair<double, std::uint32_t>, 34> waiting;
  std::size_t nb_waiting = 0;
  waiting[nb_waiting++] = {squared_distance(nodes_.front().box, p), 0};
  double best = std::numeric_limits<double>::infinity();
  while (nb_waiting > 0) {
    const auto [box_distance, index] = waiting[--nb_waiting];
    if (box_distance >= best) continue;
    const Node& node = nodes_[index];
    if (node.count > 0) {
      for (std::uint32_t i = node.first; i < node.first + node.count; ++i) {
        best = std::min(best, squared_distance(segments_[i], p));
      }
      continue;
    }
    std::pair<double, std::uint32_t> near{squared_distance(nodes_[index + 1].box, p), index + 1};
    std::pair<double, std::uint32_t> far{squared_distance(nodes_[node.first].box, p), node.first};
    if (far.first < near.first) std::swap(near, far);
    waiting[nb_waiting++] = far;
    waiting[nb_waiting++] = near;
  }
  return std::sqrt(best);
}

}  // namespace velmar_2d::tools
