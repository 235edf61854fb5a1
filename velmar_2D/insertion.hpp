// What refinement and the two kinds of insertion share. Never installed.
#pragma once

#include "velmar_2D/internal.hpp"

namespace velmar_2d::detail {

/// A node to come and the nodes around it: what refinement finds, and what an insertion makes of a
/// Vertex.
struct Site {
  double x, y;
  std::int32_t level;
  std::int32_t ipos;
  std::array<Cell*, 4> parents;   ///< the last one is none on a side
  std::array<int, 4> directions;  ///< in which the parents lie, seen from the node to come

  /// Odd levels are centres of squares, even ones of diamonds. Levels that were raised by a
  /// caller's insertions need not keep to that.
  bool level_fits() const { return ((level ^ directions[0]) & 1) == 0; }
};

/// Centres of the squares and diamonds around c that have none, at most four.
void find_sites(Cell& c, std::array<Site, 4>& sites, std::int32_t& n);

/// The site as a caller sees it.
Vertex vertex_at(const Site& site);

/// Inserts as a caller would: at an odd level the centre of a square, at an even one of a diamond.
void insert_by_level(const Vertex& v);

/// Inserts the centre of a square whose corners are its parents.
void insert_centre(const Site& site);
/// Inserts the midpoint of an edge, the centre of a diamond that a side may cut in half.
void insert_midpoint(const Site& site);

// Steps of an insertion, in their order. All that can fail, callbacks included, comes before the
// first link is changed.

/// The site of a caller's vertex, which may be none: ends the process unless it has its first
/// `nb_parents` parents and a level within the limit. `direction_to` tells where a parent lies.
Site site_of(std::string_view operation, const Vertex& v, int nb_parents,
             int (*direction_to)(const Cell& parent, const Vertex& v));
/// First data value of the new node, where it does not come from its parents.
double initial_data(const Site& site);
/// A node at the site, in its stretch but without links. Ends the process if its position has no
/// place in the level arrays.
Cell* new_cell_at(const Site& site);
/// Whether the parents surround a caller's new node: the links between them lead nowhere else, and
/// back. Wanted before and after links are cut; both kinds of node alike, see insert_node.cpp.
void check_surroundings(const Cell& c, const std::array<int, 4>& directions);

/// Links the new node and a parent that lies in this direction from it.
inline void link_parent(Cell& c, int direction, Cell& parent) {
  NeighbourLink& back = link(parent, opposite(direction));
  if (!link(c, direction).empty() || !back.empty()) links_may_be_one_way = true;
  link(c, direction) = &parent;
  back = &c;
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

}  // namespace velmar_2d::detail
