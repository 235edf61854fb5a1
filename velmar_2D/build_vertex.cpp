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
#include "velmar_2D/internal.hpp"

#include <cassert>
#include <cmath>

namespace velmar_2d {

namespace {

using namespace detail;

/// The list that the caller gets, and the place of the next entry.
struct Proposals {
  std::array<Vertex, 4>& list;
  std::int32_t& n;

  /// The entry for a new vertex midway between a and b.
  Vertex* add(const Cell& a, const Cell& b, std::int32_t level) {
    // No node of a well-formed mesh has more than four; never write beyond the list.
    if (n == static_cast<std::int32_t>(list.size())) return nullptr;
    Vertex* v = &list[static_cast<std::size_t>(n++)];
    v->x = (a.x + b.x) / 2.0;
    v->y = (a.y + b.y) / 2.0;
    v->level = level;
    return v;
  }
};

/// Level of a vertex by the lattice: `offset` is 1 for the centre of a square with sides of length
/// delta, 2 for the centre of a diamond with a diagonal of that length.
std::int32_t lattice_level(double delta, double offset) {
  return static_cast<std::int32_t>(std::lround(2.0 * detail::log2(dist_0 / delta) + offset));
}

/// Whether a cell with few awaited neighbours lets the lattice decide.
bool nearly_complete(const Cell& c) {
  return c.reserve <= 2 && (c.reserve != 2 || !not_large_house_reserve_2(&c));
}

/// Centre of the closed figure c, tmp1, tmp2, tmp3: a square or a full diamond.
void propose_centre(Proposals& proposals, Cell& c, Cell& tmp1, Cell& tmp2, Cell& tmp3,
                    double delta, double offset) {
  const bool by_lattice = c.level == tmp1.level && c.level == tmp2.level &&
                          c.level == tmp3.level && nearly_complete(c) && nearly_complete(tmp1) &&
                          nearly_complete(tmp2) && nearly_complete(tmp3);
  const std::int32_t level = by_lattice
                                 ? lattice_level(delta, offset)
                                 : std::max({c.level, tmp1.level, tmp2.level, tmp3.level}) + 1;
  if (Vertex* v = proposals.add(c, tmp2, level)) {
    v->p1 = &c;
    v->p2 = &tmp1;
    v->p3 = &tmp2;
    v->p4 = &tmp3;
  }
}

/// Centre of half a diamond, midway between its two cells a and b on the boundary. The parents are
/// listed as c, tmp1, tmp2, whichever of them is the apex.
void propose_half(Proposals& proposals, Cell& c, Cell& tmp1, Cell& tmp2, const Cell& a,
                  const Cell& b, const Cell& apex, double delta) {
  const bool by_lattice = c.level == tmp1.level && c.level == tmp2.level && a.reserve <= 1 &&
                          b.reserve <= 1 && nearly_complete(apex);
  const std::int32_t level = by_lattice ? lattice_level(delta, 2.0)
                                        : std::max({c.level, tmp1.level, tmp2.level}) + 1;
  if (Vertex* v = proposals.add(a, b, level)) {
    v->p1 = &c;
    v->p2 = &tmp1;
    v->p3 = &tmp2;
    v->p4 = nullptr;
  }
}

/// The square that has c as a corner and lies in the diagonal direction d from it.
void try_square(Proposals& proposals, Cell& c, int d) {
  if (!link(c, d).empty()) return;
  Cell* tmp1 = link(c, d - 1).cell();
  if (tmp1 == nullptr) return;
  Cell* tmp2 = link(*tmp1, d + 1).cell();
  if (tmp2 == nullptr) return;
  Cell* tmp3 = link(*tmp2, d + 3).cell();
  if (tmp3 == nullptr) return;
  const Cell* back = link(*tmp3, d + 5).cell();
  if (back == nullptr || back->id != c.id) return;
  propose_centre(proposals, c, *tmp1, *tmp2, *tmp3, distance_along(d - 1, c, *tmp1), 1.0);
}

/// The diamond clockwise from the diagonal link d of c, whose axis runs in the direction d + 1. It
/// is full, or half with c on the boundary, or half with c as the apex.
void try_diamond(Proposals& proposals, Cell& c, Cell& tmp1, int d) {
  const int axis = d + 1, across = d + 3;
  if (!link(c, axis).empty()) return;
  const NeighbourLink far_link = link(tmp1, d + 2);
  if (!far_link.empty()) {
    Cell* tmp2 = far_link.cell();
    if (tmp2 == nullptr) return;
    const NeighbourLink below = link(*tmp2, d + 4);
    if (!below.empty()) {
      Cell* tmp3 = below.cell();
      if (tmp3 == nullptr) return;
      const Cell* back = link(*tmp3, d + 6).cell();
      if (back == nullptr || back->id != c.id) return;
      propose_centre(proposals, c, tmp1, *tmp2, *tmp3, distance_along(axis, c, *tmp2), 2.0);
    } else if (link(*tmp2, across).boundary() != nullptr &&
               link(c, across).boundary() != nullptr) {
      propose_half(proposals, c, tmp1, *tmp2, c, *tmp2, tmp1, distance_along(axis, c, *tmp2));
    }
    return;
  }
  if (link(tmp1, axis).boundary() == nullptr) return;
  Cell* tmp2 = link(c, d + 2).cell();
  if (tmp2 == nullptr || link(*tmp2, axis).boundary() == nullptr) return;
  propose_half(proposals, c, tmp1, *tmp2, tmp1, *tmp2, c, distance_along(d - 1, *tmp2, tmp1));
}

/// The half diamond anticlockwise from the diagonal link d of c, with c and tmp2 on the boundary.
void try_half_diamond(Proposals& proposals, Cell& c, Cell& tmp1, int d) {
  const int axis = d - 1, across = d - 3;
  if (!link(c, axis).empty()) return;
  Cell* tmp2 = link(tmp1, d - 2).cell();
  if (tmp2 == nullptr || link(*tmp2, across).boundary() == nullptr ||
      link(c, across).boundary() == nullptr) {
    return;
  }
  propose_half(proposals, c, tmp1, *tmp2, c, *tmp2, tmp1, distance_along(axis, c, *tmp2));
}

}  // namespace

namespace detail {

bool not_large_house_reserve_2(const Cell* c) {
  return !(c->reserve == 2 && count_nb_sides(c) == 5);
}

}  // namespace detail

void build_vertex(Cell* c, std::array<Vertex, 4>& vertex_list, std::int32_t& n) {
  n = 0;
  Proposals proposals{vertex_list, n};
  for (const int d : diagonal_directions) try_square(proposals, *c, d);
  for (const int d : diagonal_directions) {
    Cell* tmp1 = link(*c, d).cell();
    if (tmp1 == nullptr) continue;
    try_diamond(proposals, *c, *tmp1, d);
    try_half_diamond(proposals, *c, *tmp1, d);
  }
}

}  // namespace velmar_2d
