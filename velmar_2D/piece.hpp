// velmar_2d::Piece: a part of a mesh that several processes, or threads, keep together.
//
//     +-----------+-----------+   Each piece owns the nodes of a box of the rectangle, and keeps
//     |           |           |   beyond it those that its own nodes need, in a window a few
//     |   own  . .|. .        |   cells wider than the box. The nodes that all pieces own are
//     |        .  |  . window |   together those of one mesh, to the last bit: positions,
//     +--------.--+--.--------+   links, levels, control cells, and data where those are
//     |        . .|. .        |   exchanged.
//     |           |           |   Who moves what from piece to piece is the caller's matter:
//     +-----------+-----------+   velmar_2d::mpi does it with messages between processes.
//
// An update of all pieces together:
//
//     for each piece:  begin(size)
//     until no piece has nodes to ask:
//       for each piece:  ask()
//       until no piece has wants:  for each piece: take wants(), give them to their owners' hold()
//       where sizes depend on derivatives: exchange ghosts and data, see below
//     where some piece lacks_sizes(): exchange ghosts, and settle() each piece
//     for each piece:    give needs() to their owners' hold_only()
//     until no piece has lost a hold:
//       for each piece:  release()
//       for each piece:  give needs() to their owners' hold_only()
//     for each pair:   the one's border(of the other's box) to the other's hold_ghosts()
//     where Resolution::slope is above 0, see PlacedSize
//     data:            ghosts that have not just come get those of their owners, then
//                      hand_on_data(), then all ghosts get those of their owners
//     with Transfer::remap, see begin_remap()
//
// It is `resolve`: a closure, where wants only add positions and positions only add wants, so that
// it can be computed in pieces that hand each other the positions that lie elsewhere.
#pragma once

#include "velmar_2D/mesh.hpp"

namespace velmar_2d {

/// A position in units of dist_0 / places_per_cell, from the lower left corner of the whole.
inline constexpr std::int64_t places_per_cell = std::int64_t{1} << 31;
struct Place {
  std::int64_t x = 0, y = 0;
  friend bool operator==(const Place&, const Place&) = default;
  friend bool operator<(const Place& a, const Place& b) {
    return a.x != b.x ? a.x < b.x : a.y < b.y;
  }
};

/// What a piece owns: the nodes from the west to before the east line of a box, and from its south
/// to before its north line; those on the line too where the whole ends there. Lines may lie
/// anywhere between those of the grid, at any multiple of the finest spacing.
struct PlaceBox {
  Place low, high;

  PlaceBox(Place from, Place to) : low(from), high(to) {}
  /// From a line of the grid to another.
  PlaceBox(std::int32_t west, std::int32_t east, std::int32_t south, std::int32_t north)
      : low{west * places_per_cell, south * places_per_cell},
        high{east * places_per_cell, north * places_per_cell} {}
  PlaceBox(const Window& of)  // implicit: a Window is a box
      : PlaceBox(of.west, of.east, of.south, of.north) {}
  /// The cells of the grid that it reaches into.
  Window cells() const {
    const auto line = [](std::int64_t at) {
      return static_cast<std::int32_t>(at / places_per_cell);
    };
    constexpr std::int64_t almost = places_per_cell - 1;
    return {line(low.x), line(high.x + almost), line(low.y), line(high.y + almost)};
  }
  friend bool operator==(const PlaceBox&, const PlaceBox&) = default;
};

/// Nodes apart from their mesh, in any order.
struct PieceNodes {
  std::vector<Place> places;
  std::vector<double> rows;  ///< of each its data, gradient, second derivative and position
  std::vector<std::pair<std::int32_t, UserReference>>
      handles;  ///< of each `used`, `data_ptr`; or empty
};

namespace detail {
class PieceUpdate;
}

/// A wanted size at a place, graded as Resolution::slope tells. Sizes are graded over all pieces,
/// in these places of the update:
///
///     after the pieces' ask():
///       until no piece has_sizes_to_tell():
///         for each piece: give sizes_for_owners() to these owners, sizes_for() to the others, who
///                         take_sizes(); all are taken out before one is taken over
///       for each piece:   settle(), which makes nodes to ask
///     before the border() that ends the update: as long as the last release() of some piece, with
///       what followed, removed nodes:
///       for each piece: forget_grading(); sizes as above; settle(); release() as before
///
/// Without data a piece may settle() and ask() by turns first, until it has nothing to ask.
struct PlacedSize {
  Place place;
  double size = 0.0;
};

class VELMAR_2D_API VELMAR_2D_WITH_VECTORS Piece {
 public:
  /// Makes the grid of the piece and of what surrounds it.
  ///
  /// @param whole    the rectangle of all pieces
  /// @param grid     of the whole
  /// @param own      the box
  /// @param overlap  cells of the grid between those of the box and the end of the window: at least
  ///                 3
  ///
  /// Throws Error as Mesh does, and where the box is empty or leaves the grid.
  Piece(const Rectangle& whole, const Grid& grid, const PlaceBox& own, std::int32_t overlap = 3);
  Piece(Piece&& from) noexcept;
  Piece& operator=(Piece&& from) noexcept;
  ~Piece();

  /// The nodes of the window: own ones and ghosts. Links to records of kind bc_type_cut, at ghosts
  /// only, are no sides.
  Mesh& mesh();
  const Mesh& mesh() const;
  const PlaceBox& box() const;
  const Window& own() const;  ///< the cells of the grid that the box reaches into
  bool owns(const Cell& c) const;
  bool owns(Place place) const;
  Place place_of(const Cell& c) const;
  /// None where the window has no node there.
  Cell* node_at(Place place);
  /// In the order of the list; good until nodes come or go.
  std::span<Cell* const> own_nodes();
  std::span<Cell* const> ghosts();
  /// Of a node that another piece has a ghost of: its number among own_nodes(); -1 where none of
  /// these is there. Needs: own_nodes() since nodes came or went.
  std::int64_t row_of(Place place);
  /// Of data[0], at own nodes.
  void compute_derivatives();

  /// Begins an update. Needs: the ghosts of the last one, with their data, and derivatives of own
  /// nodes where sizes depend on them.
  void begin(const size_function& size, const Resolution& resolution = {},
             init_data_function init_data = {});
  /// The same, asked for many nodes at once: all own ones, then those of each generation.
  void begin_batched(const batch_size_function& sizes, const Resolution& resolution = {},
                     init_data_function init_data = {});
  /// Asks own nodes that have not been asked for the spacing that they want, and makes what that
  /// takes in the window. With data, nodes that come by that are left to the next call.
  void ask();
  bool has_nodes_to_ask() const;
  bool has_wants() const;
  /// Places of others that have been found to be needed since this was asked last.
  std::vector<Place> wants();
  /// Makes own nodes that other pieces need.
  void hold(std::span<const Place> places);
  /// Sizes at places of others that own nodes rest on, or lie next to on the grid: as far as their
  /// owners may not know these.
  std::vector<PlacedSize> sizes_for_owners();
  /// Sizes of own nodes that are lower than another piece has told or been told. Pieces have the
  /// caller's numbers, from 0 on.
  std::vector<PlacedSize> sizes_for(std::size_t piece);
  bool has_sizes_to_tell() const;
  /// What another piece tells. Needs: all nodes asked that others know of.
  void take_sizes(std::size_t piece, std::span<const PlacedSize> told);
  /// Gives own nodes what they want by the graded sizes, as ask() does where these are not graded;
  /// and those without a size the level that is there by now.
  void settle();
  /// Whether own nodes want the level that is there, which ghosts tell.
  bool lacks_sizes() const;
  /// Sizes are graded anew from what nodes told: without those that went they may be larger.
  void forget_grading();
  /// Lets go what neither the piece nor the others need, all ghosts among them that no own node
  /// rests on.
  void release();
  /// All places of others that are needed. Lets go the other ghosts.
  std::vector<Place> needs();
  /// From now on other pieces need no own nodes but these, as far as they are there.
  /// @return whether some node is not needed any more
  bool hold_only(std::span<const Place> places);

  /// Own nodes that a piece with this box needs to know: those linked to its nodes, and for
  /// layers = 2 those linked to these.
  std::vector<Cell*> border(const PlaceBox& box, int layers = 2);
  /// Makes ghosts of the border of other pieces.
  void hold_ghosts(std::span<const Place> places);

  // Pieces that tell one another only what has changed: needs() lets no ghost go, and between
  // release() and border() owners tell what has gone. They can tell more precisely, too, what a
  // piece needs to know: children_places() first, then, when all pieces have those of the others,
  // border_places(), where border() tells all that it may need.

  /// From now on ghosts stay from update to update.
  void keep_ghosts();
  /// For each box, own nodes that rest on its nodes.
  ///
  /// @param boxes   of other pieces
  /// @param of_all  else of those alone that have come since begin()
  std::vector<std::vector<Place>> children_places(std::span<const PlaceBox> boxes, bool of_all);
  /// For each box, own nodes that rest on its nodes, or are linked to these or to nodes that are;
  /// some twice. Needs: children_places() of the other pieces.
  ///
  /// @param boxes   of other pieces
  /// @param of_all  else of those alone that have become so since begin(), with some others; before
  ///                release()
  std::vector<std::vector<Place>> border_places(std::span<const PlaceBox> boxes, bool of_all);
  /// Whether nodes have come since begin(), or may go. Where that is so on no piece, and needs()
  /// are those of before, nothing remains to be done but end_unchanged().
  bool has_changed() const;
  void end_unchanged();
  /// Whether nodes may go that were kept by the last release().
  bool has_freed() const;
  /// Another one wherever needs() are others.
  std::uint64_t needs_revision() const;
  /// Own nodes that the last release() let go, as far as the piece with this box may know them.
  std::vector<Place> gone_near(const PlaceBox& box) const;
  /// Lets ghosts go that have gone at their owners, as soon as nothing rests on them.
  void remove_ghosts(std::span<const Place> places);
  /// Makes ghosts of what has come to the border of other pieces, and, after release(), lets those
  /// go that do not belong to it any more, unless they are needed.
  void change_ghosts(std::span<const Place> come, std::span<const Place> gone);
  /// Calls `use` with each ghost, its place and whether it is linked to an own node.
  void for_ghosts(const std::function<void(Cell& ghost, Place place, bool is_linked)>& use);

  /// Values of nodes that have come since begin(), from those of their parents anew, in the order
  /// in which they came: once the data of ghosts that others had before are known.
  ///
  /// @param is_known  nodes that keep theirs
  /// @param first     of newcomers(): those before it keep theirs, too
  void hand_on_data(const std::function<bool(const Cell&)>& is_known, std::size_t first = 0);
  /// Nodes that have come since begin(), parents first.
  std::span<Cell* const> newcomers() const;
  bool has_come(const Cell& c) const;

  // Transfer::remap: what lies under a cell may be others'. begin() and update() begin to note
  // cells, whose values change at the end of it all, once own nodes and ghosts are what they are to
  // be: each piece tells the others what begin_remap() returns; then these, what of its
  // cells_over() that reaches them; they answer with their parts_under() that; and with all answers
  // follows end_remap(). Then ghosts get values of their owners. Without it new nodes have means.

  /// What own cells covered that are not what they were; empty where x_min > x_max.
  Rectangle begin_remap();
  /// Cells that may cover something there, as numbers for one of the other pieces.
  std::vector<double> cells_over(const Rectangle& there);
  /// What another piece wants to know about its cells.
  std::vector<double> parts_under(std::span<const double> cells) const;
  /// @param parts  the answers, in the order in which cells_over() was called
  void end_remap(std::span<const std::vector<double>> parts);
  /// Notes all own cells at once, where own nodes are made anew on another piece before they are
  /// updated: it takes these cells over. Does nothing without Transfer::remap.
  void keep_cells();
  void take_cells(Piece& from);

  /// Makes own nodes of a mesh that was resolved, on a piece that has its grid only: the same nodes
  /// in the same order, whatever the order of the places. Their data are 0.
  void hold_all(std::span<const Place> places);
  /// Takes over what another piece was told: what becomes of data, hooks and handlers, values of
  /// sides.
  void take_settings(Piece& from);
  /// Whether a mesh is as resolve() or hold_all() have left it.
  static bool is_resolved(const Mesh& mesh);
  /// The mesh of a piece that is the whole.
  Mesh release_mesh() &&;

  /// Own nodes as they were at begin(), with what they held: for a caller who begins the update
  /// anew in a wider window. Good until the next begin().
  PieceNodes nodes_before() const;

  /// What the own nodes went through since begin().
  const UpdateStatistics& statistics() const;

  /// Mesh::set_limit() of the window. Afterwards owners tell borders as at the end of an update.
  void set_limit(std::int32_t limit);

  /// Whether some node came to lie where the window is cut: it is too narrow for the update.
  bool reaches_cut() const;

  /// From now on the window is whole, and update() alone changes it: ghosts are all nodes of it
  /// that are not own ones, and row_of() knows own nodes as far from the box's sides as windows
  /// reach. Needs: nothing but the grid. What a plain update makes depends on how nodes came
  /// before.
  void keep_window();
  /// Mesh::update_batched() of the window. Ghosts near its cuts are not what the whole has there:
  /// who owns them must tell.
  void update(const batch_size_function& sizes);
  void update(const batch_size_function& sizes, init_data_function init_data);
  /// From now on nodes at these places count as having come in this order, after the grid and
  /// before all others, for what updates make of them.
  void order_by_age(std::span<const Place> oldest_first);
  /// Makes all nodes of the whole from copies, with all that they hold but ids. Needs: a window
  /// that is the whole, with its grid only; and copies with links to one another and to records of
  /// sides.
  void take_nodes(std::span<const Cell> oldest_first);
  /// Positions of nodes that have come, or that hold_all() has made, anew: plain updates may have
  /// left those that they rest on a rounding off the lattice. Needs: the others hold theirs.
  void place_anew(const std::function<bool(const Cell&)>& is_meant);
  /// The same with values, as resolve() makes what nodes rest on and what has gone.
  ///
  /// @param is_restored  nodes that get them from those that they rest on
  /// @param init_data    of data[0]; empty: it is a mean, too
  void restore(const std::function<bool(const Cell&)>& is_restored,
               const init_data_function& init_data);

 private:
  Mesh mesh_;
  PlaceBox box_;
  Window cells_;
  std::unique_ptr<detail::PieceUpdate> update_;
};

}  // namespace velmar_2d
