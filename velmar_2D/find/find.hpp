// Finding things by place: the node whose control cell holds a point, values between the nodes,
// what a line crosses, what lies under another mesh. Reads a mesh and changes nothing. Never
// installed.
#pragma once

#include "velmar_2D/cells/cells.hpp"
#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

// ---------------------------------------------------------------------------------------------
// The node at a point (locate.cpp, locate_many.cpp)
// ---------------------------------------------------------------------------------------------

/// Whether a point lies in the rectangle, its sides included. False for not-a-number.
inline bool holds(const Domain& domain, Point p) {
  return p.x >= domain.x_min && p.x <= domain.x_max && p.y >= domain.y_min && p.y <= domain.y_max;
}

/// The node whose control cell holds a point, from a start that should be near; nullptr outside the
/// rectangle.
const Cell* locate(const State& state, Point p, const Cell* start = nullptr);
/// For many points, in any order. `progress` is told of each.
void locate_many(const State& state, std::span<const Point> points, std::span<const Cell*> found,
                 ProgressTeller* progress = nullptr);

/// Throws what the mesh throws where memory is exhausted.
template <typename T>
std::vector<T> make_table(const State& state, std::size_t size, const T& value = {}) {
  try {
    return std::vector<T>(size, value);
  } catch (const std::exception&) {  // no memory, or more than can be addressed
    // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer
    allocation_failed(state.handlers, size * sizeof(T));
  }
}

/// Hands each node of the list, joined or split, to a procedure.
template <typename Use>
void for_each_node(const State& state, const Use& use) {
  for (std::size_t stretch = 0; stretch < state.level_beg.size(); ++stretch) {
    const Cell* last = state.level_end[stretch].next;
    for (Cell* c = state.level_beg[stretch].next; c != nullptr; c = c->next) {
      use(*c);
      if (c == last) break;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Triangles between the nodes (faces.cpp, triangulation.cpp)
// ---------------------------------------------------------------------------------------------

/// A face: what links enclose. Corners anticlockwise, each with the direction to the next one.
struct Face {
  /// No face of a whole mesh has more than a few; around holes there can be many.
  static constexpr std::size_t capacity = 64;
  std::size_t n = 0;
  std::array<const Cell*, capacity> corners{};
  std::array<std::uint8_t, capacity> directions{};
};

/// The face to the left of the way from a node in a direction, which is that of a link or leads
/// along a side to the next node there. False where there is no such way, no face, or one with too
/// many corners.
bool face_left_of(const Cell& c, int direction, Face& face);

/// A face cut into triangles, by the numbers of its corners, anticlockwise.
struct CutFace {
  std::size_t n = 0;
  std::array<std::array<std::uint8_t, 3>, Face::capacity> triangles{};
};
void cut_into_triangles(const Face& face, CutFace& cut);

/// Twice the area of a triangle, positive where it runs anticlockwise.
inline double doubled_area(const Cell& a, const Cell& b, const Cell& c) {
  return (b.x - a.x) * (c.y - a.y) - (c.x - a.x) * (b.y - a.y);
}

void triangulate(const State& state, Triangulation& result);

// ---------------------------------------------------------------------------------------------
// Values at points (value_at.cpp)
// ---------------------------------------------------------------------------------------------

/// How the values at a point come from those of nodes: of one, plus weights times how those of
/// others differ from it. A constant field is kept to the last bit.
struct Blend {
  const Cell* base = nullptr;
  int n = 0;
  std::array<const Cell*, nb_directions> others{};
  std::array<double, nb_directions> weights{};

  void add(const Cell* other, double weight) {
    others[static_cast<std::size_t>(n)] = other;
    weights[static_cast<std::size_t>(n++)] = weight;
  }
  double value(std::size_t k) const {
    const auto of = [k](const Cell& c) { return k < c.data.size() ? c.data[k] : 0.0; };
    const double at_base = of(*base);
    double sum = at_base;
    for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
      sum += weights[i] * (of(*others[i]) - at_base);
    }
    return sum;
  }
};

/// Needs: the node that locate() gives for the point.
Blend blend_at(const Cell& c, Point p, Interpolation how);

/// One value at a point; not-a-number outside the rectangle. Ends the process where there is no
/// value of this number.
double value_at(const State& state, Point p, std::int32_t value, Interpolation how,
                const Cell* start);
/// All values of each point, one point after the other; not-a-number outside the rectangle.
void values_at(const State& state, std::span<const Point> points, Interpolation how,
               std::span<double> values);

// ---------------------------------------------------------------------------------------------
// Lines (line_cut.cpp) and other meshes (transfer.cpp)
// ---------------------------------------------------------------------------------------------

void line_cut(const State& state, Point a, Point b, std::vector<LinePiece>& pieces);

/// Both return the number of nodes that got values.
std::int64_t transfer(const State& from, State& to, Interpolation how);
std::int64_t transfer_conservative(const State& from, State& to);

}  // namespace velmar_2d::detail
