// Values at points between the nodes.
#include <cmath>
#include <limits>

#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

namespace {

// ---------------------------------------------------------------------------------------------
// Linear on triangles
// ---------------------------------------------------------------------------------------------

/// A triangle, and what share each of its corners has in a point. The least share tells how far
/// outside the point lies, if it does.
struct Share {
  std::array<const Cell*, 3> corners{};
  std::array<double, 3> shares{};
  double least = -std::numeric_limits<double>::infinity();
};

void try_triangle(const Cell& a, const Cell& b, const Cell& c, Point p, Share& best) {
  const double ax = a.x - p.x, ay = a.y - p.y, bx = b.x - p.x, by = b.y - p.y;
  const double cx = c.x - p.x, cy = c.y - p.y;
  const double whole = doubled_area(a, b, c);
  const std::array<double, 3> shares = {(bx * cy - cx * by) / whole, (cx * ay - ax * cy) / whole,
                                        (ax * by - bx * ay) / whole};
  const double least = std::min({shares[0], shares[1], shares[2]});
  if (least > best.least) best = {{&a, &b, &c}, shares, least};
}

void try_face(const Face& face, Point p, Share& best) {
  CutFace cut;
  cut_into_triangles(face, cut);
  for (std::size_t i = 0; i < cut.n; ++i) {
    const auto& t = cut.triangles[i];
    try_triangle(*face.corners[t[0]], *face.corners[t[1]], *face.corners[t[2]], p, best);
  }
}

void try_faces_around(const Cell& c, Point p, Share& best) {
  Face face;
  for (int d = 0; d < nb_directions; ++d) {
    if (face_left_of(c, d, face)) try_face(face, p, best);
  }
}

/// The direction that is met first clockwise from the way to a point.
int direction_clockwise_of(double dx, double dy) {
  const bool steep = std::abs(dx) < std::abs(dy);
  if (dx >= 0.0 && dy > 0.0) return steep ? north_east : east;
  if (dx > 0.0) return steep ? south : south_east;
  if (dy < 0.0) return steep ? south_west : west;
  return steep ? north : north_west;
}

/// The face around a node that a point lies in, most probably.
void try_likely_face(const Cell& c, Point p, Share& best) {
  Face face;
  const int first = direction_clockwise_of(p.x - c.x, p.y - c.y);
  for (int d = first; d < first + nb_directions; ++d) {
    if (face_left_of(c, d & 7, face)) return try_face(face, p, best);
    if (link(c, d).cell() != nullptr) return;
  }
}

Blend linear_blend(const Cell& c, Point p) {
  constexpr double rounding = -1e-12;
  Share best;
  try_likely_face(c, p, best);
  if (best.least < rounding) try_faces_around(c, p, best);
  for (int d = 0; d < nb_directions && best.least < rounding; ++d) {
    if (const Cell* there = link(c, d).cell()) try_faces_around(*there, p, best);
  }
  Blend blend{.base = &c};
  constexpr double far_outside = -0.5;  // which happens only where links were broken
  if (best.least < far_outside) return blend;
  blend.base = best.corners[0];
  // Beyond the last triangle by a rounding, values must not leave the range of the corners.
  for (std::size_t i = 1; i < 3; ++i) {
    const double share = std::clamp(best.shares[i], 0.0, 1.0);
    if (share > 0.0) blend.add(best.corners[i], share);
  }
  return blend;
}

// ---------------------------------------------------------------------------------------------
// With a gradient
// ---------------------------------------------------------------------------------------------

/// What the gradient at a node makes of a way (x, y): weights for how the linked nodes' values
/// differ from the node's. The gradient is that with the least squares of what those values then
/// are off, each divided by its distance: exact for linear fields. False where all links lie on one
/// line, across which nothing is known.
bool weigh_differences(const Cell& c, double x, double y, Blend& blend) {
  constexpr double singular = 1e-9;
  struct Row {
    const Cell* node;
    double x, y, weight;
  };
  std::array<Row, nb_directions> rows{};
  std::size_t n = 0;
  double xx = 0.0, xy = 0.0, yy = 0.0;
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* there = link(c, d).cell();
    if (there == nullptr) continue;
    const double dx = there->x - c.x, dy = there->y - c.y, weight = 1.0 / (dx * dx + dy * dy);
    if (!std::isfinite(weight)) continue;
    xx += weight * dx * dx;
    xy += weight * dx * dy;
    yy += weight * dy * dy;
    rows[n++] = {there, dx, dy, weight};
  }
  const double trace = xx + yy, det = xx * yy - xy * xy;
  if (!(det > singular * trace * trace)) return false;
  const double to_x = (yy * x - xy * y) / det, to_y = (xx * y - xy * x) / det;
  blend = {.base = &c};
  for (std::size_t i = 0; i < n; ++i) {
    blend.add(rows[i].node, rows[i].weight * (to_x * rows[i].x + to_y * rows[i].y));
  }
  return true;
}

Blend gradient_blend(const Cell& c, Point p) {
  const double x = p.x - c.x, y = p.y - c.y;
  Blend blend{.base = &c};
  if (weigh_differences(c, x, y, blend)) return blend;
  // A corner of the domain may have one link only; the gradient is then that of the node there.
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* there = link(c, d).cell();
    Blend at_neighbour;
    if (there == nullptr || !weigh_differences(*there, x, y, at_neighbour)) continue;
    double sum = 0.0;
    for (std::size_t i = 0; i < static_cast<std::size_t>(at_neighbour.n); ++i) {
      sum += at_neighbour.weights[i];
      if (at_neighbour.others[i] == &c) {
        at_neighbour.others[i] = there;
        at_neighbour.weights[i] = 0.0;
      }
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(at_neighbour.n); ++i) {
      if (at_neighbour.others[i] == there) at_neighbour.weights[i] = -sum;
    }
    at_neighbour.base = &c;
    return at_neighbour;
  }
  return blend;
}

}  // namespace

Blend blend_at(const Cell& c, Point p, Interpolation how) {
  const bool at_node = p.x == c.x && p.y == c.y;
  if (how == Interpolation::constant || at_node) return {.base = &c};
  return how == Interpolation::linear ? linear_blend(c, p) : gradient_blend(c, p);
}

double value_at(const State& state, Point p, std::int32_t value, Interpolation how,
                const Cell* start) {
  if (value < 0 || value >= state.n_cell_data) {
    fatal(state.handlers, "(velmar_2D/value_at:) ERROR: there is no value " +
                              std::to_string(value) + ", the nodes have " +
                              std::to_string(state.n_cell_data));
  }
  const Cell* c = locate(state, p, start);
  if (c == nullptr) return std::numeric_limits<double>::quiet_NaN();
  return blend_at(*c, p, how).value(static_cast<std::size_t>(value));
}

void values_at(const State& state, std::span<const Point> points, Interpolation how,
               std::span<double> values) {
  const auto nb_values = static_cast<std::size_t>(state.n_cell_data);
  std::vector<const Cell*> found = make_table<const Cell*>(state, points.size());
  locate_many(state, points, found);
  for (std::size_t i = 0; i < points.size(); ++i) {
    const std::span<double> here = values.subspan(i * nb_values, nb_values);
    if (found[i] == nullptr) {
      std::fill(here.begin(), here.end(), std::numeric_limits<double>::quiet_NaN());
      continue;
    }
    const Blend blend = blend_at(*found[i], points[i], how);
    for (std::size_t k = 0; k < nb_values; ++k) here[k] = blend.value(k);
  }
}

}  // namespace velmar_2d::detail
