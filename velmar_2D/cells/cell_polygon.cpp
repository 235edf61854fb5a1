// The control cell as a polygon: the domain, cut by the bisector of every link.
//
//            |    . n
//        ----+---------      Each cut removes the corners beyond the bisector and puts two
//   w .  |   c   |  . e      new ones on it. Every edge remembers the line it lies on, and
//        ----+---------      corners are intersections of lines: so they are as exact for
//            |    . s        small cells in large domains as elsewhere.
#include <cmath>
#include <limits>

#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

namespace {

/// The half plane normal . p <= limit, relative to the node.
struct HalfPlane {
  double x = 0.0, y = 0.0, limit = 0.0;
  double beyond(const Polygon::Corner& p) const { return x * p.x + y * p.y - limit; }
};

/// By edge number: faces 0 to 7, domain sides 8 to 15 (even ones).
using HalfPlanes = std::array<HalfPlane, 2 * nb_directions>;

Polygon::Corner intersection(const HalfPlanes& planes, int before, int after, int edge) {
  const HalfPlane& a = planes[static_cast<std::size_t>(before)];
  const HalfPlane& b = planes[static_cast<std::size_t>(after)];
  const double det = a.x * b.y - a.y * b.x;
  return {(a.limit * b.y - b.limit * a.y) / det, (a.x * b.limit - b.x * a.limit) / det, edge};
}

/// Distance from the node to the side in a straight direction.
double distance_to_side(const Domain& domain, const Cell& c, int side) {
  switch (side) {
    case north: return domain.y_max - c.y;
    case east: return domain.x_max - c.x;
    case south: return c.y - domain.y_min;
    default: return c.x - domain.x_min;
  }
}

/// A rectangle with sides at these distances.
Polygon rectangle_around(const std::array<double, 4>& distances, HalfPlanes& planes) {
  for (const int d : straight_directions) {
    const auto i = static_cast<std::size_t>(d);
    planes[i + 8] = {away_x[i], away_y[i], distances[i / 2]};
  }
  Polygon rectangle;
  for (const int d : {east, north, west, south}) {  // anticlockwise
    rectangle.add(intersection(planes, ((d + 2) & 7) + 8, d + 8, d + 8));
  }
  return rectangle;
}

/// Half plane of the points that are nearer to the node than to one that lies (dx, dy) away.
HalfPlane nearer_half(double dx, double dy) { return {dx, dy, 0.5 * (dx * dx + dy * dy)}; }

HalfPlane nearer_half(const Domain& domain, const Cell& c, const Cell& neighbour,
                      const Surroundings& s, int d) {
  double dx = neighbour.x - c.x, dy = neighbour.y - c.y;
  if (byte_at(s.levels, d) != off_lattice) {
    const double step = length_units(domain, s.spacing_level(d) + (d & 1))[0];
    dx = away_x[static_cast<std::size_t>(d)] * step;
    dy = away_y[static_cast<std::size_t>(d)] * step;
  }
  return nearer_half(dx, dy);
}

/// Cuts off what lies beyond the half plane of an edge, and gives the polygon that edge.
void cut(Polygon& polygon, const HalfPlanes& planes, int edge, double tolerance) {
  const HalfPlane& plane = planes[static_cast<std::size_t>(edge)];
  Polygon kept;
  for (std::size_t i = 0; i < polygon.n; ++i) {
    const Polygon::Corner& corner = polygon.corners[i];
    const bool inside = plane.beyond(corner) <= tolerance;
    const bool next_inside = plane.beyond(polygon.after(i)) <= tolerance;
    if (inside) kept.add(corner);
    if (inside && !next_inside) {
      kept.add(intersection(planes, corner.edge, edge, edge));
    } else if (!inside && next_inside) {
      kept.add(intersection(planes, edge, corner.edge, corner.edge));
    }
  }
  polygon = kept;
}

/// Most cells end well before the sides: these cuts leave them as they are.
void cut_by_domain(const Domain& domain, Polygon& polygon, HalfPlanes& planes, const Cell& c) {
  const double tolerance =
      side_tolerance * std::numeric_limits<double>::epsilon() * domain.largest_coordinate;
  for (const int d : straight_directions) {
    if (link(c, d).boundary() != nullptr) continue;
    planes[static_cast<std::size_t>(d) + 8].limit = std::max(0.0, distance_to_side(domain, c, d));
    cut(polygon, planes, d + 8, tolerance);
  }
}

/// Joins corners that differ by rounding only.
void drop_empty_edges(Polygon& polygon) {
  double longest = 0.0;
  const auto length = [&](std::size_t i) {
    const Polygon::Corner &a = polygon.corners[i], &b = polygon.after(i);
    return std::max(std::abs(b.x - a.x), std::abs(b.y - a.y));
  };
  for (std::size_t i = 0; i < polygon.n; ++i) longest = std::max(longest, length(i));
  Polygon kept;
  for (std::size_t i = 0; i < polygon.n; ++i) {
    if (length(i) > longest * corner_tolerance) kept.add(polygon.corners[i]);
  }
  polygon = kept;
}

}  // namespace

Polygon polygon_of(const Domain& domain, const Cell& c) {
  const Surroundings s = surroundings_of(domain, c);
  std::array<double, 4> distances;  // well beyond the sides that the node does not lie on
  for (const int d : straight_directions) {
    const bool on_side = link(c, d).boundary() != nullptr;
    distances[static_cast<std::size_t>(d / 2)] =
        on_side ? 0.0 : distance_to_side(domain, c, d) + domain.dist_0;
  }
  HalfPlanes planes;
  Polygon polygon = rectangle_around(distances, planes);
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* neighbour = link(c, d).cell();
    if (neighbour == nullptr) continue;
    const HalfPlane half = nearer_half(domain, c, *neighbour, s, d);
    if (!(half.limit > 0.0)) continue;  // a node at the same place has no bisector
    planes[static_cast<std::size_t>(d)] = half;
    cut(polygon, planes, d, 2.0 * half.limit * corner_tolerance);
  }
  cut_by_domain(domain, polygon, planes, c);
  drop_empty_edges(polygon);
  return polygon;
}

namespace {

/// Diagonal distances are in units of the diagonal length, which has the straight one along x and
/// y.
Polygon polygon_from(const KnownShape& shape) {
  constexpr double beyond_all = 4.0;
  std::array<double, 4> distances;
  for (const int side : straight_directions) {
    const bool on_side = byte_at(shape.surroundings.sides, side) != 0;
    distances[static_cast<std::size_t>(side / 2)] = on_side ? 0.0 : beyond_all;
  }
  HalfPlanes planes;
  Polygon polygon = rectangle_around(distances, planes);
  for (std::size_t d = 0; d < nb_directions; ++d) {
    if (byte_at(shape.surroundings.levels, static_cast<int>(d)) == 0) continue;
    planes[d] = nearer_half(away_x[d] * shape.distance[d], away_y[d] * shape.distance[d]);
    cut(polygon, planes, static_cast<int>(d), 2.0 * planes[d].limit * corner_tolerance);
  }
  drop_empty_edges(polygon);
  return polygon;
}

}  // namespace

const Polygon& polygon_of(const KnownShape& shape) {
  static const std::array<Polygon, nb_known_shapes> polygons = [] {
    std::array<Polygon, nb_known_shapes> made;
    for (const KnownShape& known : known_shapes()) made[known.index] = polygon_from(known);
    return made;
  }();
  return polygons[shape.index];
}

double area_of(const Polygon& polygon) {
  double twice = 0.0;
  for (std::size_t i = 0; i < polygon.n; ++i) {
    const Polygon::Corner &a = polygon.corners[i], &b = polygon.after(i);
    twice += a.x * b.y - a.y * b.x;
  }
  return 0.5 * twice;
}

void cell_polygon(const State& state, const Cell& c, std::array<Point, max_cell_corners>& corners,
                  std::int32_t& n) {
  const auto place = [&](const Polygon& polygon, double unit) {
    n = static_cast<std::int32_t>(polygon.n);
    for (std::size_t i = 0; i < polygon.n; ++i) {
      corners[i] = {c.x + polygon.corners[i].x * unit, c.y + polygon.corners[i].y * unit};
    }
  };
  if (const KnownShape* shape = look_at(state.domain, c).shape) {
    place(polygon_of(*shape), length_units(state.domain, c.level)[0]);
  } else {
    place(polygon_of(state.domain, c), 1.0);
  }
}

}  // namespace velmar_2d::detail
