// The node at a point.
//
// From any node the walk steps to the linked node that is nearest to the point, and ends where none
// is nearer: there the point lies in the control cell, by its definition. Every step leads nearer,
// so that none leads back, whatever the links. Since a whole mesh links all nodes whose control
// cells share a face, the end is also the nearest of all nodes.
//
// A point on the border of several cells has several nearest nodes, and belongs to the one of them
// that lies farthest to the east, and of those farthest to the north.
#include <cmath>
#include <limits>

#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

namespace {

/// A node, and how it competes for a point.
struct Candidate {
  const Cell* node;
  double distance2;

  Candidate(const Cell* c, Point p)
      : node(c), distance2((p.x - c->x) * (p.x - c->x) + (p.y - c->y) * (p.y - c->y)) {}
  bool wins_over(const Candidate& b) const {
    if (distance2 != b.distance2) return distance2 < b.distance2;
    return node->x != b.node->x ? node->x > b.node->x : node->y > b.node->y;
  }
};

/// How much two squared distances that are equal in truth may differ, for the rounding of
/// coordinates.
double rounding_of(double distance2, const Domain& domain) {
  constexpr double roundings = 16.0 * std::numeric_limits<double>::epsilon();
  const double distance = std::sqrt(distance2);
  return roundings * distance * (distance + domain.largest_coordinate);
}

/// Where cells meet in a corner, rounding can make a node there look farther away than two others
/// between which it stands; so all that are as near, but for the rounding, are looked at.
const Cell* settle(const Domain& domain, const Candidate& found, Point p) {
  constexpr std::size_t most = 32;
  std::array<const Cell*, most> near{found.node};
  std::size_t n = 1;
  Candidate best = found;
  const double limit = found.distance2 + rounding_of(found.distance2, domain);
  for (std::size_t i = 0; i < n; ++i) {
    for (int d = 0; d < nb_directions; ++d) {
      const Cell* there = link(*near[i], d).cell();
      if (there == nullptr) continue;
      const Candidate other(there, p);
      if (!(other.distance2 <= limit) || n == most) continue;
      if (std::find(near.begin(), near.begin() + n, there) != near.begin() + n) continue;
      near[n++] = there;
      if (other.wins_over(best)) best = other;
    }
  }
  return best.node;
}

const Cell* walk(const Domain& domain, const Cell* start, Point p) {
  Candidate here(start, p);
  for (;;) {
    Candidate best = here;
    double nearest = std::numeric_limits<double>::infinity();
    for (int d = 0; d < nb_directions; ++d) {
      const Cell* there = link(*here.node, d).cell();
      if (there == nullptr) continue;
      const Candidate other(there, p);
      nearest = std::min(nearest, other.distance2);
      if (other.wins_over(best)) best = other;
    }
    if (best.node == here.node) {
      const bool on_border = nearest - here.distance2 <= rounding_of(here.distance2, domain);
      return on_border ? settle(domain, here, p) : here.node;
    }
    here = best;
  }
}

/// Looks at every node: where links were broken by hand, the walk may end before it is there.
const Cell* nearest_of_all(const State& state, const Cell* found, Point p) {
  Candidate best(found, p);
  for_each_node(state, [&](const Cell& c) {
    const Candidate other(&c, p);
    if (other.wins_over(best)) best = other;
  });
  return best.node;
}

}  // namespace

const Cell* locate(const State& state, Point p, const Cell* start) {
  if (state.nb_nodes == 0 || !holds(state.domain, p)) return nullptr;
  const double near = state.domain.dist_0;
  // Written so that a start without a position counts as none.
  const bool start_is_near =
      start != nullptr && std::abs(p.x - start->x) <= near && std::abs(p.y - start->y) <= near;
  if (!start_is_near) start = state.grid_nodes.nearest(state, p);
  const Cell* found = walk(state.domain, start, p);
  return state.links_may_be_one_way ? nearest_of_all(state, found, p) : found;
}

}  // namespace velmar_2d::detail
