// What the files of adaptation tell one another: levels, sites, insertion, removal, passes and the
// limit. Never installed.
#pragma once

#include "velmar_2D/derivatives/derivatives.hpp"
#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

// ---------------------------------------------------------------------------------------------
// Updates (update_mesh.cpp)
// ---------------------------------------------------------------------------------------------

void update_mesh_init(State& state, const size_function& size_fun, init_data_function init_data);
void update_mesh_init(State& state, const batch_size_function& size_fun,
                      init_data_function init_data);
void update_mesh_no_init(State& state, const size_function& size_fun);
void update_mesh_no_init(State& state, const batch_size_function& size_fun);

/// What all updates begin with, by where data of new nodes come from. `operation` is named in
/// messages.
void begin_with_init(State& state, std::string_view operation, bool has_size_fun,
                     init_data_function& init_data);
void begin_with_interpolation(State& state, std::string_view operation, bool has_size_fun);

/// One refinement pass upwards and one coarsening pass downwards, on the split list
/// (update_mesh_body.cpp).
void update_mesh_body(State& state, const size_function& size_fun);
void update_mesh_body(State& state, const batch_size_function& size_fun);

/// The second of them alone, without memory, to make room where it is exhausted.
void coarsen_to_make_room(State& state, const size_function& size_fun);
void coarsen_to_make_room(State& state, const batch_size_function& size_fun);

/// Asks for the wanted spacing of each node as a walk comes to it.
class SizesOneByOne {
 public:
  explicit SizesOneByOne(const size_function& size_fun) : size_fun_(size_fun) {}

  void begin_walk(std::size_t /*stretch*/, const Walk& /*walk*/) {}
  double at(const Cell& c) const {
    return size_fun_(c.x, c.y, std::span(c.data.data(), c.data.size()), c.grad_data, c.grad2_data);
  }

 private:
  const size_function& size_fun_;
};

/// Asks for those of a few nodes at a time: batches that need no memory.
class SizesInSmallBatches {
 public:
  explicit SizesInSmallBatches(const batch_size_function& size_fun) : size_fun_(size_fun) {}

  void begin_walk(std::size_t /*stretch*/, const Walk& walk) {
    step_ = walk.goes_forwards() ? &Cell::next : &Cell::prev;
    n_ = next_ = 0;
  }
  /// Needs: the nodes of the walk in their order; some may be left out.
  double at(const Cell& c) {
    while (next_ < n_ && nodes_[next_] != &c) ++next_;
    if (next_ == n_) ask_from(c);
    return sizes_[next_++];
  }

 private:
  void ask_from(const Cell& first) {
    n_ = next_ = 0;
    for (const Cell* c = &first; c != nullptr && n_ < most; c = c->*step_) nodes_[n_++] = c;
    sizes_.fill(std::numeric_limits<double>::quiet_NaN());
    size_fun_({nodes_.data(), n_}, {sizes_.data(), n_});
  }

  static constexpr std::size_t most = 64;
  const batch_size_function& size_fun_;
  Cell* Cell::*step_ = &Cell::next;
  std::array<const Cell*, most> nodes_{};
  std::array<double, most> sizes_{};
  std::size_t n_ = 0, next_ = 0;
};

inline SizesOneByOne without_memory(const size_function& size_fun) {
  return SizesOneByOne(size_fun);
}
inline SizesInSmallBatches without_memory(const batch_size_function& size_fun) {
  return SizesInSmallBatches(size_fun);
}

/// Every node that came or went is one step of mesh_revision: with the change of their number that
/// gives both counts, also where the update is left by an exception.
class CountAtEnd {
 public:
  explicit CountAtEnd(State& state)
      : state_(state), revision_before_(state.mesh_revision), nb_nodes_before_(state.nb_nodes) {}
  CountAtEnd(const CountAtEnd&) = delete;
  CountAtEnd& operator=(const CountAtEnd&) = delete;
  ~CountAtEnd() {
    const auto changes = static_cast<std::int64_t>(state_.mesh_revision - revision_before_);
    const std::int64_t growth = std::int64_t{state_.nb_nodes} - nb_nodes_before_;
    state_.update_statistics.inserted = (changes + growth) / 2;
    state_.update_statistics.removed = (changes - growth) / 2;
  }

  /// Links or levels changed where no node came or went.
  void links_changed() {
    ++state_.mesh_revision;
    ++revision_before_;
  }

 private:
  State& state_;
  std::uint64_t revision_before_;
  std::int32_t nb_nodes_before_;
};

// ---------------------------------------------------------------------------------------------
// Wanted levels (wanted_level.cpp): the spacing dist_0 / ratio is that of level 2 log2(ratio), a
// real number, compared and never rounded
// ---------------------------------------------------------------------------------------------

/// Whether the wanted level exceeds a node's.
bool is_too_coarse(double ratio, std::int32_t level);
/// Whether a node's level exceeds the wanted one by more than the margin.
bool is_too_fine(double ratio, std::int32_t level);
/// The same, mostly without a logarithm (wanted_level_thresholds.cpp).
bool is_too_coarse_by_threshold(double ratio, std::int32_t level);
bool is_too_fine_by_threshold(double ratio, std::int32_t level);

/// No update asks for more: above every limit, so that what a limit refuses is seen.
inline constexpr std::int32_t highest_wanted_level = 62;
/// The lowest level with a spacing of at most dist_0 / ratio. Ratios within a billionth of a
/// level's own give that level, so that rounding does not decide.
std::int32_t level_wanted_by(double ratio);

// ---------------------------------------------------------------------------------------------
// How levels rise and fall (update_level.cpp, downdate_level.cpp)
// ---------------------------------------------------------------------------------------------

void update_level(Cell* c, const Cell* orig);
std::int32_t count_nb_sides(const Cell* c);
bool side_on_opposite(const Cell* c, const Cell* orig);
bool have_sharp_corner_near_boundary(const Cell* c);
void downdate_level(Cell* c, std::int32_t orig_level);

// ---------------------------------------------------------------------------------------------
// Where nodes can be inserted (build_vertex.cpp)
// ---------------------------------------------------------------------------------------------

/// A node to come and the nodes around it: what refinement finds, and what an insertion makes of a
/// Vertex.
struct Site {
  double x, y;
  std::int32_t level;
  std::int32_t ipos;              ///< -1 where the nodes around do not tell it, see site_ipos.cpp
  std::array<Cell*, 4> parents;   ///< the last one is none on a side
  std::array<int, 4> directions;  ///< in which the parents lie, seen from the node to come

  /// Odd levels are centres of squares, even ones of diamonds. Levels that were raised by a
  /// caller's insertions need not keep to that.
  bool level_fits() const { return ((level ^ directions[0]) & 1) == 0; }
};

/// Centres of the squares and diamonds around c that have none, at most four.
void find_sites(const State& state, Cell& c, std::array<Site, 4>& sites, std::int32_t& n);
/// The site as a caller sees it.
Vertex vertex_at(const Site& site);
void build_vertex(const State& state, Cell& c, std::array<Vertex, 4>& vertex_list, std::int32_t& n);
bool not_large_house_reserve_2(const Cell* c);

// ---------------------------------------------------------------------------------------------
// Figures: squares and diamonds around a node c that have no centre yet, the sites of new nodes
//
//   square: closed by straight links,           diamond: closed by diagonal links; cut in half
//   its centre will be an odd-level node        by a side, its centre lies on that side
//
//        tmp1 --- tmp2                                 tmp1                      tmp1
//         |         |                                /      \                  /      \        .
//         |    +    |                               c    +    tmp2            c    +    tmp2
//         |         |                                \      /              ===================
//         c ----- tmp3                                 tmp3
// ---------------------------------------------------------------------------------------------

/// A closed figure. Its axis runs from the first corner to the second one of a square, to the third
/// one of a diamond.
struct ClosedFigure {
  std::array<Cell*, 4> corners;
  int axis;
  int offset;  ///< 1 for a square, 2 for a diamond

  /// Level of the new node (build_vertex.cpp). `ipos` is that of the centre, or -1.
  std::int32_t level(const State& state, std::int32_t ipos) const;
  /// Position index of the centre, as long as the lattice is whole; -1 where the corners do not
  /// tell it (site_ipos.cpp).
  std::int32_t ipos() const;
};

/// The three cells of half a diamond. The centre lies midway between the cells a and b on the
/// boundary, the one on the way from a to b along the axis; `apex` is the one off the boundary.
struct HalfDiamond {
  std::array<Cell*, 4> corners;
  const Cell &a, &b, &apex;
  int axis;

  /// As for a closed figure.
  std::int32_t level(const State& state, std::int32_t ipos) const;
  std::int32_t ipos() const;
};

template <typename Figure>
std::int32_t ipos_of(const State& state, const Figure& figure) {
  return state.domain.lattice_is_whole ? figure.ipos() : -1;
}

/// The square that has c as a corner and lies in the diagonal direction d from it.
template <typename Sink>
void try_square(Sink& sink, Cell& c, int d) {
  if (!link(c, d).empty()) return;
  Cell* tmp1 = link(c, d - 1).cell();
  if (tmp1 == nullptr || !Sink::admits(*tmp1)) return;
  Cell* tmp2 = link(*tmp1, d + 1).cell();
  if (tmp2 == nullptr || !Sink::admits(*tmp2)) return;
  Cell* tmp3 = link(*tmp2, d + 3).cell();
  if (tmp3 == nullptr || !is_node(c, link(*tmp3, d + 5).cell())) return;
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
      if (tmp3 == nullptr || !is_node(c, link(*tmp3, d + 6).cell())) return;
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

// ---------------------------------------------------------------------------------------------
// Refinement (refine_cell.cpp)
// ---------------------------------------------------------------------------------------------

void refine_cell(State& state, Cell*& c, bool special = false);
/// Whether refine_cell() inserts at this site.
bool is_wanted(const State& state, const Site& site, bool special);
/// Whether refine_cell() in special mode would insert anything around c. Reads as few neighbours as
/// it can (special_probe.cpp).
bool special_refinement_possible(const State& state, Cell& c);
void special_sort_level(State& state, std::int32_t l);

// ---------------------------------------------------------------------------------------------
// Insertion (insert_node.cpp, insert_node_odd_level.cpp, insert_node_even_level.cpp)
// ---------------------------------------------------------------------------------------------

/// The new node. Its parents may be anywhere.
Cell& insert_node_odd_level(State& state, const Vertex& v);
Cell& insert_node_even_level(State& state, const Vertex& v);
/// Inserts as a caller would: at an odd level the centre of a square, at an even one of a diamond.
Cell& insert_by_level(State& state, const Vertex& v);

/// Inserts the centre of a square whose corners are its parents.
void insert_centre(State& state, const Site& site);
/// Inserts the midpoint of an edge, the centre of a diamond that a side may cut in half.
void insert_midpoint(State& state, const Site& site);

/// Areas of the parents' cells before a node comes between them, where those are wanted.
struct ParentCells {
  std::array<double, 4> areas{};
};

// Steps of an insertion, in their order. All that can fail, callbacks included, comes before the
// first link is changed.

/// The site of a caller's vertex, which may be none: ends the process unless it has its first
/// `nb_parents` parents and a level within the limit. `direction_to` tells where a parent lies.
Site site_of(State& state, std::string_view operation, const Vertex& v, int nb_parents,
             int (*direction_to)(const Domain& domain, const Cell& parent, const Vertex& v));
/// First data value of the new node, where it does not come from its parents.
double initial_data(const State& state, const Site& site);
/// What data of a new node, and of its parents, need to know of the time before it.
ParentCells parent_cells(const State& state, const Site& site);
/// A node at the site, in its stretch but without links. Ends the process if its position has no
/// place in the level arrays.
Cell& new_cell_at(State& state, const Site& site);
/// Whether the parents surround a caller's new node: the links between them lead nowhere else, and
/// back. Wanted before and after links are cut; both kinds of node alike, see insert_node.cpp.
void check_surroundings(State& state, const Cell& c, const std::array<int, 4>& directions);
/// Data and derivatives of the new node. All is in place: it may throw what a hook throws.
void set_data(const State& state, const Site& site, Cell& c, double first_value,
              const ParentCells& before);

/// Prefetches what an insertion reads and changes around a figure: the rest of the parents'
/// records, and the links of the nodes beyond its sides, which tell what prune_link() cuts.
VELMAR_2D_ALWAYS_INLINE void prefetch_surroundings(const Site& site) {
  for (std::size_t i = 0; i < site.parents.size(); ++i) {
    const Cell* parent = site.parents[i];
    if (parent == nullptr) continue;
    const auto beyond =
        reinterpret_cast<std::uintptr_t>(link(*parent, site.directions[i] + 2).cell());
    prefetch(reinterpret_cast<const std::byte*>(parent) + 2 * cache_line);
    prefetch(reinterpret_cast<const void*>(beyond + cache_line));
  }
}

/// Links the new node and a parent that lies in this direction from it.
inline void link_parent(State& state, Cell& c, int direction, Cell& parent) {
  NeighbourLink &there = link(c, direction), &back = link(parent, opposite(direction));
  if (!there.empty() || !back.empty()) state.links_may_be_one_way = true;
  there = &parent;
  back = &c;
  if (state.link_sources != nullptr) {
    state.link_sources->add(&parent, &c);
    state.link_sources->add(&c, &parent);
  }
}

/// Cuts the link of a new node's parent in the direction `cut`, which the new node crosses, once it
/// is crossed from both hands: the node X beyond, at `to_beyond` from the parent, has no link
/// `back` across it. Keeps the link's level. Does nothing without a parent.
inline void prune_link(Cell* parent, int to_beyond, int back, int cut) {
  if (parent == nullptr) return;
  const Cell* beyond = link(*parent, to_beyond).cell();
  if (beyond != nullptr && link(*beyond, back).empty()) {
    link(*parent, cut) = nullptr;
    link_level(*parent, cut) = 2;
  } else if (!link(*parent, cut).empty()) {
    link_level(*parent, cut) = 1;
  }
}

/// Tells a parent about its new neighbour.
inline void announce_to(Cell* parent, const Cell& c) {
  update_level(parent, &c);
  parent->area = -1.0;
}

// First data value of a new node, and the same for any value (interpolation.cpp)
double mean_of_parents(const std::array<Cell*, 4>& parents, std::size_t value);
void interp_3pts(const Cell* c1, const Cell* c2, const Cell* c3, Cell* c);
void interp_4pts(const Cell* c1, const Cell* c2, const Cell* c3, const Cell* c4, Cell* c);

// ---------------------------------------------------------------------------------------------
// Data of nodes that come and go (transfer.cpp)
// ---------------------------------------------------------------------------------------------

/// A value of a node; 0.0 where it has none.
inline double value_of(const Cell& c, std::size_t value) {
  return value < c.data.size() ? c.data[value] : 0.0;
}
inline bool conserves(const State& state) {
  return state.transfer == Transfer::conservative && state.n_cell_data > 0;
}
/// As cell_area() gives it, at every level and without a word about shapes that are unknown.
double control_area(const State& state, Cell& c);

/// Values of a new node from the parts of its parents' cells that have become its own, from the
/// value with this number on.
void take_from_cells(const State& state, std::span<Cell* const> parents,
                     const std::array<double, 4>& areas_before, Cell& c, std::size_t first);

/// What a node that goes leaves behind, and to whom.
class Legacy {
 public:
  /// Asks the hook. Needs: the node with all its links; `first` is the direction of one of the four
  /// that may lead to neighbours.
  Legacy(const State& state, Cell& c, int first);
  /// Needs: the neighbours are linked as they will be.
  void distribute(const State& state) const {
    if (area_ > 0.0) give_to_heirs(state);
    if (state.remapping != nullptr) state.remapping->goes(c_);
  }

 private:
  void give_to_heirs(const State& state) const;

  Cell& c_;
  std::array<Cell*, 4> heirs_;
  std::array<double, 4> areas_;
  std::size_t n_ = 0;
  double area_ = 0.0;  ///< 0 where nothing is left to anyone
};

// ---------------------------------------------------------------------------------------------
// Removal and the limit (remove_node_odd_level.cpp, remove_node_even_level.cpp, level_max.cpp)
// ---------------------------------------------------------------------------------------------

void remove_node_odd_level(State& state, Cell*& c);
void remove_node_even_level(State& state, Cell*& c);
/// Removes with the operation of the node's level.
void remove_by_level(State& state, Cell*& c);

void set_subdiv_max(State& state, std::int32_t subdiv_max);

}  // namespace velmar_2d::detail
