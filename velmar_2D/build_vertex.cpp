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

#include "velmar_2D/insertion.hpp"

namespace velmar_2d {

namespace {

using namespace detail;

/// Highest position index that true_ipos() tells without an expansion, see there.
constexpr std::int32_t highest_exact_ipos = 28;

/// Level of a new node by the lattice: `offset` is 1 for the centre of a square with sides of
/// length delta, 2 for the centre of a diamond with a diagonal of that length.
std::int32_t lattice_level(double delta, int offset) {
  return static_cast<std::int32_t>(std::lround(2.0 * detail::log2(dist_0 / delta) + offset));
}

/// Whether a cell with few awaited neighbours lets the lattice decide.
bool nearly_complete(const Cell& c) {
  return c.reserve <= 2 && (c.reserve != 2 || !not_large_house_reserve_2(&c));
}

/// A closed figure. Its axis runs from the first corner to the second one of a square, to the third
/// one of a diamond.
struct ClosedFigure {
  std::array<Cell*, 4> corners;
  int axis, offset;

  /// Position index of the centre, as long as domain.lattice_is_whole; -1 where the corners do not
  /// tell it. Those of a figure with sides of length dist_0 / 2^k, or half a diagonal of it, are
  ///
  ///      2k ---- lower            2k-1
  ///       |        |             /    \            .
  ///       |        |         lower    lower
  ///       |        |             \    /
  ///     2k-1 ---- 2k              2k-1
  ///
  /// in one of the turns. Others occur where a node was removed from among finer ones.
  std::int32_t ipos() const {
    std::int32_t a = corners[0]->ipos, b = corners[1]->ipos, a2 = corners[2]->ipos,
                 b2 = corners[3]->ipos;
    if (std::max(a, a2) < std::max(b, b2)) {
      std::swap(a, b);
      std::swap(a2, b2);
    }
    if (a != a2 || a > highest_exact_ipos) return -1;
    const std::int32_t lower = std::max(b, b2), lowest = std::min(b, b2);
    const bool in_square = a % 2 == 0 && (a == 0 || (lower == a - 1 && lowest < lower));
    const bool in_diamond = a % 2 == 1 && lower < a;
    return (offset == 1 ? in_square : in_diamond) ? a + 1 : -1;
  }

  std::int32_t level(std::int32_t ipos) const {
    const Cell &p1 = *corners[0], &p2 = *corners[1], &p3 = *corners[2], &p4 = *corners[3];
    if (!(p1.level == p2.level && p1.level == p3.level && p1.level == p4.level &&
          nearly_complete(p1) && nearly_complete(p2) && nearly_complete(p3) &&
          nearly_complete(p4))) {
      return std::max({p1.level, p2.level, p3.level, p4.level}) + 1;
    }
    if (ipos >= 0) return ipos;
    return lattice_level(distance_along(axis, p1, offset == 1 ? p2 : p3), offset);
  }
};

/// The three cells of half a diamond. The centre lies midway between the cells a and b on the
/// boundary, the one on the way from a to b along the axis; `apex` is the one off the boundary.
struct HalfDiamond {
  std::array<Cell*, 4> corners;
  const Cell &a, &b, &apex;
  int axis;

  /// As for a diamond.
  std::int32_t ipos() const {
    const std::int32_t highest = apex.ipos;
    return highest % 2 == 1 && highest <= highest_exact_ipos && a.ipos < highest && b.ipos < highest
               ? highest + 1
               : -1;
  }

  std::int32_t level(std::int32_t ipos) const {
    if (!(a.level == b.level && a.level == apex.level && a.reserve <= 1 && b.reserve <= 1 &&
          nearly_complete(apex))) {
      return std::max({a.level, b.level, apex.level}) + 1;
    }
    return ipos >= 0 ? ipos : lattice_level(distance_along(axis, a, b), 2);
  }
};

template <typename Figure>
std::int32_t ipos_of(const Figure& figure) {
  return domain.lattice_is_whole ? figure.ipos() : -1;
}

/// Collects what is found.
struct Collector {
  std::array<Site, 4>& sites;
  std::int32_t& n;

  static bool admits(const Cell& /*c*/) { return true; }

  /// `towards_first` is the direction from the centre to the first corner; the others follow
  /// clockwise.
  void add(const ClosedFigure& figure, int towards_first) {
    Site* site = next();
    if (site == nullptr) return;
    const Cell &a = *figure.corners[0], &b = *figure.corners[2];
    for (std::size_t i = 0; i < 4; ++i) {
      site->directions[i] = (towards_first + 2 * static_cast<int>(i)) & 7;
    }
    fill(*site, figure, a, b);
  }
  void add(const HalfDiamond& half, const std::array<int, 3>& directions) {
    Site* site = next();
    if (site == nullptr) return;
    for (std::size_t i = 0; i < 3; ++i) site->directions[i] = directions[i] & 7;
    fill(*site, half, half.a, half.b);
  }

 private:
  /// No node of a well-formed mesh has more than four; never write beyond the list.
  Site* next() {
    const auto used = static_cast<std::size_t>(n);
    if (used == sites.size()) return nullptr;
    ++n;
    return &sites[used];
  }

  template <typename Figure>
  static void fill(Site& site, const Figure& figure, const Cell& a, const Cell& b) {
    site.x = (a.x + b.x) / 2.0;
    site.y = (a.y + b.y) / 2.0;
    site.ipos = ipos_of(figure);
    site.level = figure.level(site.ipos);
    site.parents = figure.corners;
  }
};

/// Only tells whether anything is found that refine_cell() would insert in special mode. Most nodes
/// are turned down by their own fields or those of the first neighbour.
struct SpecialProbe {
  bool found = false;

  static bool admits(const Cell& c) { return c.reserve != 4; }

  void add(const ClosedFigure& figure, int /*towards_first*/) {
    if (admits(*figure.corners[3]) && figure.level(ipos_of(figure)) <= level_max) {
      found = true;
    }
  }
  void add(const HalfDiamond& half, const std::array<int, 3>& /*directions*/) {
    found = found || half.level(ipos_of(half)) <= level_max;
  }
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
  if (tmp3 == nullptr || link(*tmp3, d + 5).cell() != &c) return;
  sink.add(ClosedFigure{{&c, tmp1, tmp2, tmp3}, d - 1, 1}, d + 4);
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
      if (tmp3 == nullptr || link(*tmp3, d + 6).cell() != &c) return;
      sink.add(ClosedFigure{{&c, &tmp1, tmp2, tmp3}, axis, 2}, axis + 4);
    } else if (link(*tmp2, across).boundary() != nullptr && link(c, across).boundary() != nullptr) {
      sink.add(HalfDiamond{{&c, &tmp1, tmp2, nullptr}, c, *tmp2, tmp1, axis},
               {axis + 4, axis + 6, axis});
    }
    return;
  }
  if (link(tmp1, axis).boundary() == nullptr) return;
  Cell* tmp2 = link(c, d + 2).cell();
  if (tmp2 == nullptr || link(*tmp2, axis).boundary() == nullptr) return;
  sink.add(HalfDiamond{{&c, &tmp1, tmp2, nullptr}, *tmp2, tmp1, c, d - 1},
           {axis + 4, axis - 2, axis + 2});
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
  sink.add(HalfDiamond{{&c, &tmp1, tmp2, nullptr}, c, *tmp2, tmp1, axis},
           {axis + 4, axis + 2, axis});
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
  if (may_have_neighbour_on_side(c) || links_may_be_one_way) {
    SpecialProbe probe;
    try_all(probe, c);
    return probe.found;
  }
  if (!SpecialProbe::admits(c)) return false;
  // A figure has two neighbours of c a quarter turn apart, with no link of c between them. Most
  // often the only ones that have begun to rise lie on a line with c.
  std::array<bool, nb_directions> risen{};
  for (std::size_t d = 0; d < nb_directions; ++d) {
    const Cell* neighbour = link(c, static_cast<int>(d)).cell();
    risen[d] = neighbour != nullptr && SpecialProbe::admits(*neighbour);
  }
  SpecialProbe probe;
  for (std::size_t i = 0; i < nb_directions && !probe.found; ++i) {
    if (!risen[i] || !risen[(i + 2) % nb_directions]) continue;
    const int d = static_cast<int>(i);
    if (d % 2 == 0) {
      try_square(probe, c, d + 1);
    } else {
      try_diamond(probe, c, *link(c, d).cell(), d);
    }
  }
  return probe.found;
}

Vertex vertex_at(const Site& site) {
  Vertex v;
  v.x = site.x;
  v.y = site.y;
  v.level = site.level;
  v.p1 = site.parents[0];
  v.p2 = site.parents[1];
  v.p3 = site.parents[2];
  v.p4 = site.parents[3];
  return v;
}

void find_sites(Cell& c, std::array<Site, 4>& sites, std::int32_t& n) {
  n = 0;
  Collector collector{sites, n};
  try_all(collector, c);
}

}  // namespace detail

void build_vertex(Cell* c, std::array<Vertex, 4>& vertex_list, std::int32_t& n) {
  std::array<Site, 4> sites;
  find_sites(*c, sites, n);
  for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
    // The caller's values stay.
    CellData data = std::move(vertex_list[i].data);
    vertex_list[i] = vertex_at(sites[i]);
    vertex_list[i].data = std::move(data);
  }
}

}  // namespace velmar_2d
