// Which control cells a straight line runs through.
//
// Seen from a point at the share t of the way from a to b, the squared distance of a node is a
// function of t that all nodes have the same curvature of, so that the nearest nodes, one after the
// other, are the lower envelope of straight lines: each lies further along the way than the last
// one. The walk steps to such nodes alone and so comes to its end on any mesh.
#include <cmath>
#include <limits>

#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

namespace {

/// The part of the way from a to b that lies in the rectangle, in shares; empty: begin > end.
struct Stretch {
  double begin = 0.0, end = 1.0;

  /// What lies between two lines across the way.
  void clip(double start, double step, double low, double high) {
    if (step == 0.0) {
      if (start < low || start > high) end = -1.0;
      return;
    }
    const double t_low = (low - start) / step, t_high = (high - start) / step;
    begin = std::max(begin, std::min(t_low, t_high));
    end = std::min(end, std::max(t_low, t_high));
  }
};

struct Way {
  Point a;
  double dx, dy;

  Point at(double t) const { return {a.x + t * dx, a.y + t * dy}; }
  /// How far along the way a node lies, for comparing.
  double progress(const Cell& c) const { return dx * (c.x - a.x) + dy * (c.y - a.y); }
};

/// Where the way leaves a control cell, and for which.
struct Exit {
  const Cell* next = nullptr;
  double t = std::numeric_limits<double>::infinity();
  double progress = 0.0;
};

Exit exit_of(const Cell& c, const Way& way) {
  Exit exit;
  const double here = way.progress(c);
  const double x = way.a.x - c.x, y = way.a.y - c.y;
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* there = link(c, d).cell();
    if (there == nullptr) continue;
    const double progress = way.progress(*there);
    const double nx = there->x - c.x, ny = there->y - c.y;
    const double speed = nx * way.dx + ny * way.dy;
    if (!(progress > here && speed > 0.0)) continue;
    const double t = (0.5 * (nx * nx + ny * ny) - (nx * x + ny * y)) / speed;
    if (t < exit.t || (t == exit.t && progress > exit.progress)) exit = {there, t, progress};
  }
  return exit;
}

Point into(const Domain& domain, Point p) {
  return {std::clamp(p.x, domain.x_min, domain.x_max), std::clamp(p.y, domain.y_min, domain.y_max)};
}

}  // namespace

void line_cut(const State& state, Point a, Point b, std::vector<LinePiece>& pieces) {
  pieces.clear();
  const Domain& domain = state.domain;
  const Way way{a, b.x - a.x, b.y - a.y};
  const double length = std::hypot(way.dx, way.dy);
  if (!std::isfinite(length)) return;
  Stretch inside;
  inside.clip(a.x, way.dx, domain.x_min, domain.x_max);
  inside.clip(a.y, way.dy, domain.y_min, domain.y_max);
  if (!(inside.begin <= inside.end)) return;
  // The ends of the way are where the caller has them, to the last bit.
  const auto place = [&](double t) {
    return into(domain, t == 0.0 ? a : t == 1.0 ? b : way.at(t));
  };
  double t = inside.begin;
  const Cell* c = locate(state, place(t));
  while (c != nullptr) {
    const Exit exit = exit_of(*c, way);
    const bool is_last = exit.next == nullptr || !(exit.t < inside.end);
    const double end = is_last ? inside.end : std::max(t, exit.t);
    if (end > t || is_last) {
      pieces.push_back({c, t * length, end * length, place(t), place(end)});
    }
    t = end;
    c = is_last ? nullptr : exit.next;
  }
  // A last piece without a length is one only where it is all there is.
  if (pieces.size() > 1 && !(pieces.back().leave > pieces.back().enter)) pieces.pop_back();
}

}  // namespace velmar_2d::detail
