// Which nodes refine the mesh around a node: centres of squares and of diamonds without one.
#include <cmath>

#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

bool not_large_house_reserve_2(const Cell* c) {
  return !(c->reserve == 2 && count_nb_sides(c) == 5);
}

namespace {

/// Level of a new node by the lattice: `offset` is 1 for the centre of a square with sides of
/// length delta, 2 for the centre of a diamond with a diagonal of that length.
std::int32_t lattice_level(const Domain& domain, double delta, int offset) {
  return static_cast<std::int32_t>(std::lround(2.0 * log2(domain.dist_0 / delta) + offset));
}

/// Whether a cell with few awaited neighbours lets the lattice decide.
bool nearly_complete(const Cell& c) {
  return c.reserve <= 2 && (c.reserve != 2 || !not_large_house_reserve_2(&c));
}

}  // namespace

std::int32_t ClosedFigure::level(const State& state, std::int32_t ipos) const {
  const Cell &p1 = *corners[0], &p2 = *corners[1], &p3 = *corners[2], &p4 = *corners[3];
  if (!(p1.level == p2.level && p1.level == p3.level && p1.level == p4.level &&
        nearly_complete(p1) && nearly_complete(p2) && nearly_complete(p3) && nearly_complete(p4))) {
    return std::max({p1.level, p2.level, p3.level, p4.level}) + 1;
  }
  if (ipos >= 0) return ipos;
  return lattice_level(state.domain, distance_along(axis, p1, offset == 1 ? p2 : p3), offset);
}

std::int32_t HalfDiamond::level(const State& state, std::int32_t ipos) const {
  if (!(a.level == b.level && a.level == apex.level && a.reserve <= 1 && b.reserve <= 1 &&
        nearly_complete(apex))) {
    return std::max({a.level, b.level, apex.level}) + 1;
  }
  return ipos >= 0 ? ipos : lattice_level(state.domain, distance_along(axis, a, b), 2);
}

namespace {

/// Collects what is found.
struct Collector {
  const State& state;
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
  void fill(Site& site, const Figure& figure, const Cell& a, const Cell& b) const {
    site.x = (a.x + b.x) / 2.0;
    site.y = (a.y + b.y) / 2.0;
    site.ipos = ipos_of(state, figure);
    site.level = figure.level(state, site.ipos);
    site.parents = figure.corners;
  }
};

}  // namespace

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

void find_sites(const State& state, Cell& c, std::array<Site, 4>& sites, std::int32_t& n) {
  n = 0;
  Collector collector{state, sites, n};
  try_all(collector, c);
}

void build_vertex(const State& state, Cell& c, std::array<Vertex, 4>& vertex_list,
                  std::int32_t& n) {
  std::array<Site, 4> sites;
  find_sites(state, c, sites, n);
  for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
    // The caller's values stay.
    CellData data = std::move(vertex_list[i].data);
    vertex_list[i] = vertex_at(sites[i]);
    vertex_list[i].data = std::move(data);
  }
}

}  // namespace velmar_2d::detail
