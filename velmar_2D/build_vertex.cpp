// Which nodes refine the mesh around a node c: centres of squares and of diamonds without one.
//
//   square: closed by straight links,           diamond: closed by diagonal links; cut in half
//   its centre will be an odd-level node        by a side, its centre lies on that side
//
//        tmp1 --- tmp2                                 tmp1                      tmp1
//         |         |                                /      \                  /      \        .
//         |    +    |                               c    +    tmp2            c    +    tmp2
//         |         |                                \      /              ===================
//         c ----- tmp3                                 tmp3
#include <cassert>
#include <cmath>

#include "velmar_2D/internal.hpp"

namespace velmar_2d {

namespace {

using namespace detail;

/// Level of a vertex by the lattice: `offset` is 1 for the centre of a square with sides of length
/// delta, 2 for the centre of a diamond with a diagonal of that length.
std::int32_t lattice_level(double delta, int offset) {
  const double ratio = dist_0 / delta;
  // Most often the ratio is a power of two but for rounding; rounding the logarithm then gives just
  // its exponent.
  constexpr double power_tolerance = 1e-6;
  int exponent = 0;
  const double mantissa = std::frexp(ratio * (1.0 + power_tolerance), &exponent);
  if (mantissa >= 0.5 && mantissa < 0.5 * (1.0 + 2.0 * power_tolerance)) {
    return 2 * (exponent - 1) + offset;
  }
  return static_cast<std::int32_t>(std::lround(2.0 * detail::log2(ratio) + offset));
}

/// Whether a cell with few awaited neighbours lets the lattice decide.
bool nearly_complete(const Cell& c) {
  return c.reserve <= 2 && (c.reserve != 2 || !not_large_house_reserve_2(&c));
}

std::int32_t centre_level(const Cell& c, const Cell& tmp1, const Cell& tmp2, const Cell& tmp3,
                          double delta, int offset) {
  const bool by_lattice = c.level == tmp1.level && c.level == tmp2.level && c.level == tmp3.level &&
                          nearly_complete(c) && nearly_complete(tmp1) && nearly_complete(tmp2) &&
                          nearly_complete(tmp3);
  return by_lattice ? lattice_level(delta, offset)
                    : std::max({c.level, tmp1.level, tmp2.level, tmp3.level}) + 1;
}

/// The three cells of half a diamond. They are listed as c, tmp1, tmp2; `apex` is the one off the
/// boundary, the centre lies midway between the other two, a and b.
struct HalfDiamond {
  Cell &c, &tmp1, &tmp2;
  const Cell &a, &b, &apex;
  double delta;

  std::int32_t level() const {
    const bool by_lattice = c.level == tmp1.level && c.level == tmp2.level && a.reserve <= 1 &&
                            b.reserve <= 1 && nearly_complete(apex);
    return by_lattice ? lattice_level(delta, 2) : std::max({c.level, tmp1.level, tmp2.level}) + 1;
  }
};

/// Collects what is found into the list that the caller gets.
struct Proposals {
  std::array<Vertex, 4>& list;
  std::int32_t& n;

  static bool admits(const Cell& /*c*/) { return true; }

  /// Centre of the closed figure c, tmp1, tmp2, tmp3: a square or a full diamond.
  void add_centre(Cell& c, Cell& tmp1, Cell& tmp2, Cell& tmp3, double delta, int offset) {
    add(c, tmp2, centre_level(c, tmp1, tmp2, tmp3, delta, offset), {&c, &tmp1, &tmp2, &tmp3});
  }
  void add_half(const HalfDiamond& half) {
    add(half.a, half.b, half.level(), {&half.c, &half.tmp1, &half.tmp2, nullptr});
  }

 private:
  void add(const Cell& a, const Cell& b, std::int32_t level, const std::array<Cell*, 4>& parents) {
    // No node of a well-formed mesh has more than four; never write beyond the list.
    if (n == static_cast<std::int32_t>(list.size())) return;
    Vertex& v = list[static_cast<std::size_t>(n++)];
    v.x = (a.x + b.x) / 2.0;
    v.y = (a.y + b.y) / 2.0;
    v.level = level;
    v.p1 = parents[0];
    v.p2 = parents[1];
    v.p3 = parents[2];
    v.p4 = parents[3];
  }
};

/// Only tells whether anything is found that refine_cell() would insert in special mode. Most nodes
/// are turned down by their own fields or those of the first neighbour.
struct SpecialProbe {
  bool found = false;

  static bool admits(const Cell& c) { return c.reserve != 4; }

  void add_centre(const Cell& c, const Cell& tmp1, const Cell& tmp2, const Cell& tmp3, double delta,
                  int offset) {
    if (admits(tmp3) && centre_level(c, tmp1, tmp2, tmp3, delta, offset) <= level_max) {
      found = true;
    }
  }
  void add_half(const HalfDiamond& half) { found = found || half.level() <= level_max; }
};

/// The square that has c as a corner and lies in the diagonal direction d from it.
template <typename Sink>
void try_square(Sink& sink, Cell& c, int d) {
  if (!link(c, d).empty()) return;
  Cell* tmp1 = link(c, d - 1).cell();
  if (tmp1 == nullptr || !Sink::admits(*tmp1)) return;
  Cell* tmp2 = link(*tmp1, d + 1).cell();
  if (tmp2 == nullptr || !Sink::admits(*tmp2)) return;
  Cell* tmp3 = link(*tmp2, d + 3).cell();
  if (tmp3 == nullptr) return;
  const Cell* back = link(*tmp3, d + 5).cell();
  if (back == nullptr || back->id != c.id) return;
  sink.add_centre(c, *tmp1, *tmp2, *tmp3, distance_along(d - 1, c, *tmp1), 1);
}

/// The diamond clockwise from the diagonal link d of c, whose axis runs in the direction d + 1. It
/// is full, or half with c on the boundary, or half with c as the apex.
template <typename Sink>
void try_diamond(Sink& sink, Cell& c, Cell& tmp1, int d) {
  const int axis = d + 1, across = d + 3;
  if (!link(c, axis).empty()) return;
  const NeighbourLink far_link = link(tmp1, d + 2);
  if (!far_link.empty()) {
    Cell* tmp2 = far_link.cell();
    if (tmp2 == nullptr) return;
    const NeighbourLink below = link(*tmp2, d + 4);
    if (!below.empty()) {
      if (!Sink::admits(c) || !Sink::admits(tmp1) || !Sink::admits(*tmp2)) return;
      Cell* tmp3 = below.cell();
      if (tmp3 == nullptr) return;
      const Cell* back = link(*tmp3, d + 6).cell();
      if (back == nullptr || back->id != c.id) return;
      sink.add_centre(c, tmp1, *tmp2, *tmp3, distance_along(axis, c, *tmp2), 2);
    } else if (link(*tmp2, across).boundary() != nullptr && link(c, across).boundary() != nullptr) {
      sink.add_half({c, tmp1, *tmp2, c, *tmp2, tmp1, distance_along(axis, c, *tmp2)});
    }
    return;
  }
  if (link(tmp1, axis).boundary() == nullptr) return;
  Cell* tmp2 = link(c, d + 2).cell();
  if (tmp2 == nullptr || link(*tmp2, axis).boundary() == nullptr) return;
  sink.add_half({c, tmp1, *tmp2, tmp1, *tmp2, c, distance_along(d - 1, *tmp2, tmp1)});
}

/// The half diamond anticlockwise from the diagonal link d of c, with c and tmp2 on the boundary.
template <typename Sink>
void try_half_diamond(Sink& sink, Cell& c, Cell& tmp1, int d) {
  const int axis = d - 1, across = d - 3;
  if (!link(c, axis).empty()) return;
  Cell* tmp2 = link(tmp1, d - 2).cell();
  if (tmp2 == nullptr || link(*tmp2, across).boundary() == nullptr ||
      link(c, across).boundary() == nullptr) {
    return;
  }
  sink.add_half({c, tmp1, *tmp2, c, *tmp2, tmp1, distance_along(axis, c, *tmp2)});
}

template <typename Sink>
void try_all(Sink& sink, Cell& c) {
  if (Sink::admits(c)) {
    for (const int d : diagonal_directions) try_square(sink, c, d);
  }
  for (const int d : diagonal_directions) {
    Cell* tmp1 = link(c, d).cell();
    if (tmp1 == nullptr) continue;
    try_diamond(sink, c, *tmp1, d);
    try_half_diamond(sink, c, *tmp1, d);
  }
}

}  // namespace

namespace detail {

bool not_large_house_reserve_2(const Cell* c) {
  return !(c->reserve == 2 && count_nb_sides(c) == 5);
}

bool special_refinement_possible(Cell& c) {
  // Closed figures are out where c awaits all its neighbours; half ones lie at the sides.
  if (!SpecialProbe::admits(c) && !may_have_neighbour_on_side(c)) return false;
  SpecialProbe probe;
  try_all(probe, c);
  return probe.found;
}

}  // namespace detail

void build_vertex(Cell* c, std::array<Vertex, 4>& vertex_list, std::int32_t& n) {
  n = 0;
  Proposals proposals{vertex_list, n};
  try_all(proposals, *c);
}

}  // namespace velmar_2d
