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

/// Large leaves keep the tree small beside the points.
constexpr std::uint32_t segments_per_leaf = 16;

double square(double value) { return value * value; }

double squared_distance(Point a, Point b, Point p) {
  const double along_x = b.x - a.x, along_y = b.y - a.y;
  const double length = square(along_x) + square(along_y);
  const double share =
      length > 0.0 ? std::clamp(((p.x - a.x) * along_x + (p.y - a.y) * along_y) / length, 0.0, 1.0)
                   : 0.0;
  return square(a.x + share * along_x - p.x) + square(a.y + share * along_y - p.y);
}

double squared_distance(const DistanceTree::Box& box, Point p) {
  return square(std::max({box.west - p.x, 0.0, p.x - box.east})) +
         square(std::max({box.south - p.y, 0.0, p.y - box.north}));
}

}  // namespace

void Lines::scatter(std::size_t begin) {
  for (std::size_t i = begin; i < size(); ++i) is_first_[i] = true;
}

DistanceTree::DistanceTree(Lines lines) : lines_(std::move(lines)) {
  const auto nb_points = static_cast<std::uint32_t>(lines_.size());
  std::uint32_t nb_alone = 0, nb_segments = 0;
  for (std::uint32_t i = 0; i < nb_points; ++i) {
    nb_alone += lines_.is_alone(i) ? 1 : 0;
    nb_segments += lines_.is_first(i) && !lines_.is_alone(i) ? 0 : 1;
  }
  if (nb_alone < nb_points) {
    ends_.reserve(nb_segments);
    for (std::uint32_t i = 0; i < nb_points; ++i) {
      if (!lines_.is_first(i) || lines_.is_alone(i)) ends_.push_back(i);
    }
  }
  // Half of a full leaf is the least that a leaf holds, but for a tree of one leaf.
  nodes_.reserve(2 * (nb_segments / (segments_per_leaf / 2)) + 1);
  build(0, nb_segments);
}

DistanceTree::Segment DistanceTree::segment(std::uint32_t end) const {
  return {lines_[lines_.is_first(end) ? end : end - 1], lines_[end]};
}

DistanceTree::Segment DistanceTree::segment_in_order(std::uint32_t i) const {
  if (ends_.empty()) return {lines_[i], lines_[i]};
  return segment(ends_[i]);
}

void DistanceTree::build(std::uint32_t first, std::uint32_t count) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  Box box{infinity, -infinity, infinity, -infinity};
  for (std::uint32_t i = first; i < first + count; ++i) {
    const Segment s = segment_in_order(i);
    for (const Point& end : {s.a, s.b}) {
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
  const auto halve = [&](auto items, const auto& less) {
    std::nth_element(items + first, items + first + half, items + first + count, less);
  };
  if (ends_.empty()) {
    halve(lines_.points().begin(), [&](Point p, Point q) { return by_x ? p.x < q.x : p.y < q.y; });
  } else {
    halve(ends_.begin(),
          [&](std::uint32_t s, std::uint32_t t) { return place(segment(s)) < place(segment(t)); });
  }
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
        const Segment s = segment_in_order(i);
        best = std::min(best, squared_distance(s.a, s.b, p));
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
