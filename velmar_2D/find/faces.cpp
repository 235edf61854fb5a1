// The links divide the domain into faces: triangles, squares, diamonds, houses. Each is walked
// round, anticlockwise, by turning at every node into the first link clockwise from where one came:
//
//            d <--- c        came from b to c, so at c the link next clockwise from
//            |      ^        c -> b is taken, which is c -> d
//            v      |
//            a ---> b        and then cut into triangles.
//
// Along a side of the domain two neighbours need not be linked. There the walk comes to an end
// a; a walk backwards from its beginning comes to the other end b, and the side closes the face:
//
//             c
//            / \             the way a -> b leads along the side
//        ---a . b---
#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

namespace {

/// The node that a link leads to where both nodes agree on it.
const Cell* mutual(const Cell& c, int direction) {
  const Cell* there = link(c, direction).cell();
  return there != nullptr && link(*there, opposite(direction)).cell() == &c ? there : nullptr;
}

bool ends_here(const Cell& c, int direction) { return link(c, direction).boundary() != nullptr; }

/// One half of a walk: where it goes on, or the side of the domain that it has reached.
struct Turn {
  int direction = -1;  ///< of a link; -1 where there is none
  int side = -1;
};

/// The next link clockwise (step 1) or anticlockwise (step -1) from a direction.
Turn turn(const Cell& c, int from, int step) {
  for (int k = 1; k <= nb_directions; ++k) {
    const int d = (from + step * k) & 7;
    if (mutual(c, d) != nullptr) return {d, -1};
    // The way along the side must lie in between, or the outside does.
    if (ends_here(c, d)) return {-1, k > 2 ? d : -1};
  }
  return {};
}

bool add(Face& face, const Cell& c, int direction) {
  if (face.n == Face::capacity) return false;
  face.corners[face.n] = &c;
  face.directions[face.n++] = static_cast<std::uint8_t>(direction);
  return true;
}

/// The face of a link.
bool walk_round(const Cell& c, int direction, Face& face) {
  face.n = 0;
  const Cell* node = &c;
  int side = -1;
  for (int d = direction;;) {
    if (!add(face, *node, d)) return false;
    node = mutual(*node, d);
    const Turn next = turn(*node, opposite(d), 1);
    if (next.side >= 0) {
      side = next.side;
      if (!add(face, *node, (side - 2) & 7)) return false;
      break;
    }
    if (next.direction < 0) return false;
    d = next.direction;
    if (node == &c && d == direction) return true;
  }
  // Open: the rest is found backwards, and then comes first.
  const std::size_t nb_forwards = face.n;
  node = &c;
  for (int d = direction;;) {
    const Turn before = turn(*node, d, -1);
    if (before.side >= 0) {
      if (before.side != side) return false;
      break;
    }
    if (before.direction < 0) return false;
    node = mutual(*node, before.direction);
    d = opposite(before.direction);
    if (!add(face, *node, d)) return false;
  }
  const auto middle = static_cast<std::ptrdiff_t>(nb_forwards);
  const auto end = static_cast<std::ptrdiff_t>(face.n);
  std::reverse(face.corners.begin() + middle, face.corners.begin() + end);
  std::reverse(face.directions.begin() + middle, face.directions.begin() + end);
  std::rotate(face.corners.begin(), face.corners.begin() + middle, face.corners.begin() + end);
  std::rotate(face.directions.begin(), face.directions.begin() + middle,
              face.directions.begin() + end);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Triangles
// ---------------------------------------------------------------------------------------------

double squared_distance(const Cell& a, const Cell& b) {
  return (a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y);
}

/// How far from flat a triangle is: 1 is a right angle with equal legs, 0 or less is none at all.
double quality(const Cell& a, const Cell& b, const Cell& c) {
  return 2.0 * doubled_area(a, b, c) /
         std::max({squared_distance(a, b), squared_distance(b, c), squared_distance(c, a)});
}
/// Positions carry rounding errors: flatter triangles than this lie on a line.
constexpr double flat = 1e-6;

/// The corners of a face that have not been cut off.
struct Remainder {
  const Face& face;
  std::size_t n = 0;
  std::array<std::uint8_t, Face::capacity> corners{};

  std::uint8_t before(std::size_t i) const { return corners[(i + n - 1) % n]; }
  std::uint8_t after(std::size_t i) const { return corners[(i + 1) % n]; }
  const Cell& node(std::uint8_t corner) const { return *face.corners[corner]; }

  /// Quality of the triangle that a corner forms with its two neighbours, 0 where it may not be
  /// cut off because another corner lies in it or on its edge.
  double ear_quality(std::size_t i) const {
    const Cell &a = node(before(i)), &b = node(corners[i]), &c = node(after(i));
    const double result = quality(a, b, c);
    if (result <= flat) return 0.0;
    for (std::size_t k = 0; k < n; ++k) {
      const Cell& p = node(corners[k]);
      if (&p == &a || &p == &b || &p == &c) continue;
      if (quality(a, b, p) >= -flat && quality(b, c, p) >= -flat && quality(c, a, p) >= -flat) {
        return 0.0;
      }
    }
    return result;
  }

  void cut_off(std::size_t i) {
    std::copy(corners.begin() + i + 1, corners.begin() + n, corners.begin() + i);
    --n;
  }
};

}  // namespace

bool face_left_of(const Cell& c, int direction, Face& face) {
  if (mutual(c, direction) != nullptr) return walk_round(c, direction, face);
  if (direction % 2 != 0 || !ends_here(c, direction + 2)) return false;
  // Along the side: the face is also that of the link by which one comes here.
  const Turn before = turn(c, direction, -1);
  if (before.direction < 0) return false;
  return walk_round(*mutual(c, before.direction), opposite(before.direction), face);
}

// The roundest corner first. The start of the walk is a matter of chance; the lowest corner is not,
// so that equal faces are cut equally.
void cut_into_triangles(const Face& face, CutFace& cut) {
  cut.n = 0;
  Remainder left{face, face.n, {}};
  std::size_t lowest = 0;
  for (std::size_t i = 1; i < face.n; ++i) {
    const Cell &p = *face.corners[i], &q = *face.corners[lowest];
    if (p.y < q.y || (p.y == q.y && p.x < q.x)) lowest = i;
  }
  for (std::size_t i = 0; i < face.n; ++i) {
    left.corners[i] = static_cast<std::uint8_t>((lowest + i) % face.n);
  }
  while (left.n >= 3) {
    std::size_t best = left.n;
    double best_quality = flat;
    for (std::size_t i = 0; i < left.n; ++i) {
      const double ear = left.ear_quality(i);
      if (ear > best_quality * (1.0 + flat)) {
        best = i;
        best_quality = ear;
      }
    }
    if (best == left.n) return;  // what is left lies on a line
    cut.triangles[cut.n++] = {left.before(best), left.corners[best], left.after(best)};
    left.cut_off(best);
  }
}

}  // namespace velmar_2d::detail
