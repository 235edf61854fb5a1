// Procedures and tables that the operation groups share. Never installed.
#pragma once

#include <string>

#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::detail {

// ---------------------------------------------------------------------------------------------
// Directions: numbers 0 to 7 clockwise from north, an eighth turn apart. Arithmetic wraps, so a
// rule for one side or quadrant is turned to the others by adding 2, 4 or 6.
// ---------------------------------------------------------------------------------------------

enum Direction : int { north, north_east, east, south_east, south, south_west, west, north_west };

inline constexpr int nb_directions = 8;

inline constexpr std::array<NeighbourLink Cell::*, nb_directions> link_members = {
    &Cell::n, &Cell::ne, &Cell::e, &Cell::se, &Cell::s, &Cell::sw, &Cell::w, &Cell::nw};
inline constexpr std::array<std::int32_t Cell::*, nb_directions> link_level_members = {
    &Cell::nl, &Cell::nel, &Cell::el, &Cell::sel, &Cell::sl, &Cell::swl, &Cell::wl, &Cell::nwl};

inline NeighbourLink& link(Cell& c, int direction) { return c.*link_members[direction & 7]; }
inline NeighbourLink link(const Cell& c, int direction) { return c.*link_members[direction & 7]; }
inline std::int32_t& link_level(Cell& c, int direction) {
  return c.*link_level_members[direction & 7];
}

inline constexpr int opposite(int direction) { return (direction + 4) & 7; }

/// Straight directions have even numbers, diagonal ones odd numbers.
inline constexpr std::array<int, 4> straight_directions = {north, east, south, west};
inline constexpr std::array<int, 4> diagonal_directions = {north_east, south_east, south_west,
                                                           north_west};

/// `signature` of a node on one side without finer neighbours, by side: n, e, s, w.
inline constexpr std::array<std::array<std::uint8_t, 2>, 4> side_signatures = {
    {{42, 8}, {138, 2}, {162, 128}, {168, 32}}};

/// Length of the way from a to b along a straight direction; negative where b lies behind.
inline double distance_along(int direction, const Cell& a, const Cell& b) {
  switch (direction & 7) {
    case north: return b.y - a.y;
    case east: return b.x - a.x;
    case south: return a.y - b.y;
    default: return a.x - b.x;
  }
}

// ---------------------------------------------------------------------------------------------
// The one door for text, the one for pauses, the one for the end (message.cpp)
// ---------------------------------------------------------------------------------------------

/// Prints the lines of a message block, each closed by a line end.
void message(std::string_view block);
/// Prints a prompt without a line end and waits for a line of input; goes on at its end.
void pause(std::string_view prompt);
/// Prints the message block, flushes and ends the process.
[[noreturn]] void fatal(std::string_view block);
/// Shortest decimal text that reads back as the same value.
std::string to_text(double value);

[[noreturn]] void allocation_failed(std::size_t bytes);
[[noreturn]] void release_of_missing(std::string_view name);

// ---------------------------------------------------------------------------------------------
// Nodes and their list (node_storage.cpp, level_lists.cpp)
// ---------------------------------------------------------------------------------------------

/// A node with default fields, an id of its own and n_cell_data values of 0.0, for a stretch that
/// it has yet to enter; counts it.
Cell* new_cell(std::int32_t stretch);
/// Gives a node back and clears the caller's reference; counts it.
void release_cell(Cell*& c);
/// Gives back every node, in list order, and the memory that they lived in; leaves the list and its
/// stretches empty. Returns the number of nodes.
std::int32_t release_all_nodes();

/// Whether the node list is cut into one list per stretch.
inline bool lists_are_split() { return mesh_beg == nullptr && nb_nodes > 0; }
/// Joins the list at the end of a scope that splits it, however the scope is left.
struct JoinAtEnd {
  JoinAtEnd() = default;
  JoinAtEnd(const JoinAtEnd&) = delete;
  JoinAtEnd& operator=(const JoinAtEnd&) = delete;
  ~JoinAtEnd() {
    if (lists_are_split()) join_sublists();
  }
};
/// Puts a node at the head of the stretch of its ipos, in the joined and in the split state.
void enter_stretch(Cell& c);
/// Takes a node out of its stretch, in the joined and in the split state.
void leave_stretch(Cell& c);
/// Whether some link may not be mutual any more, because a caller inserted a node among nodes that
/// do not surround it. From then on removals search the mesh for links to the node; false again
/// with the next mesh.
extern bool links_may_be_one_way;
/// Links `from` to whatever replaces the node between them; notes if that cuts another link.
inline void relink(Cell& from, int direction, NeighbourLink to) {
  NeighbourLink& there = link(from, direction);
  if (!there.empty() && there != to) links_may_be_one_way = true;
  there = to;
}
/// Takes a node out of the mesh and gives it back. Its neighbours no longer link to it.
void drop_cell(Cell*& c);
/// Ends the process with a message that names the operation if there is no mesh.
void require_mesh(std::string_view operation);
/// Gives the level arrays room for a limit, keeping their entries.
void make_level_arrays(std::int32_t subdiv_max);
/// Ends the process if the limit is beyond any use.
void check_subdiv_max(std::string_view operation, std::int32_t subdiv_max);

// ---------------------------------------------------------------------------------------------
// Checking (check_mesh.cpp, validate.cpp)
// ---------------------------------------------------------------------------------------------

/// As check_mesh(), but exhausted memory leaves it as std::bad_alloc.
void find_broken_rules(std::vector<Finding>& findings);

/// The scope of an exported procedure that changes the mesh. In a build with VELMAR_2D_VALIDATE the
/// mesh is checked at the end of the outermost one, and the process ended with the first finding;
/// unless an exception leaves it, or the mesh was broken before. Single steps take the caller's
/// word for what they insert and remove, and are held to the rules of list and links only. In other
/// builds it is nothing.
class MeshChange {
 public:
#if defined(VELMAR_2D_VALIDATE)
  explicit MeshChange(std::string_view operation);
  ~MeshChange() noexcept(false);
  MeshChange(const MeshChange&) = delete;
  MeshChange& operator=(const MeshChange&) = delete;

 private:
  std::string_view operation_;
  int exceptions_before_;
  bool was_whole_ = false;
#else
  explicit MeshChange(std::string_view /*operation*/) {}
#endif
};

// ---------------------------------------------------------------------------------------------
// Positions and levels
// ---------------------------------------------------------------------------------------------

/// Base-2 logarithm: natural logarithm divided by log_of_2.
double log2(double x);
/// 2^level as a signed 32-bit integer where 0 <= level <= 31 (negative at 31), otherwise 0.
double power_of_2(std::int32_t level);

/// What init_mesh() found out about the domain.
struct Domain {
  double x_max = 0.0, y_max = 0.0;
  /// Largest absolute coordinate of the four sides: decides how well a position can be told.
  double largest_coordinate = 0.0;
  /// No link is longer than this along x or y: the spacing of level 0, as long as all its nodes are
  /// there.
  double longest_link = 0.0;
  /// Positions can be told exactly, and all squares and diamonds of linked nodes are some: no node
  /// of level 0 was removed, and callers inserted nodes only where refinement would.
  bool lattice_is_whole = false;
};
extern Domain domain;

/// Whether a link of this node can lead to a node on a side, told from its position alone.
inline bool may_have_neighbour_on_side(const Cell& c) {
  const double reach = domain.longest_link;
  return c.x - x_min <= reach || domain.x_max - c.x <= reach || c.y - y_min <= reach ||
         domain.y_max - c.y <= reach;
}

std::int32_t true_ipos(double x, double y);
/// Whether true_ipos() tells positions apart without the tolerance that a domain far away needs.
bool positions_are_exact();
void real_to_rat(std::int32_t& n, std::int32_t& d, double x, const double* tol = nullptr);
std::int32_t log2_special(std::int32_t n);

void update_level(Cell* c, const Cell* orig);
std::int32_t count_nb_sides(const Cell* c);
bool side_on_opposite(const Cell* c, const Cell* orig);
bool have_sharp_corner_near_boundary(const Cell* c);
void downdate_level(Cell* c, std::int32_t orig_level);

// ---------------------------------------------------------------------------------------------
// Refinement and insertion
// ---------------------------------------------------------------------------------------------

bool not_large_house_reserve_2(const Cell* c);
/// Whether refine_cell() in special mode would insert anything around c. Reads as few neighbours as
/// it can.
bool special_refinement_possible(Cell& c);
void refine_cell(Cell*& c, bool special = false);
void special_sort_level(std::int32_t l);

/// The record of a side that bc_type_ptr selects at (x, y), or an empty link where the kind is none
/// of the three. `direction` is the straight direction of the side.
NeighbourLink side_link(int direction, double x, double y);

// ---------------------------------------------------------------------------------------------
// Data of new nodes
// ---------------------------------------------------------------------------------------------

void interp_3pts(const Cell* c1, const Cell* c2, const Cell* c3, Cell* c);
void interp_4pts(const Cell* c1, const Cell* c2, const Cell* c3, const Cell* c4, Cell* c);

/// data(1) of a node; one without data counts as holding 0.0.
inline double first_data(const Cell& c) { return c.data.empty() ? 0.0 : c.data[0]; }

}  // namespace velmar_2d::detail
