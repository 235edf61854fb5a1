// One piece of a mesh that is kept in pieces: which places it needs of others, and what others need
// of it. Never installed.
#pragma once

#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

/// Half open.
struct Box {
  LatticePoint low, high;  ///< high: the first lines that do not belong to it

  bool contains(LatticePoint p) const {
    return p.x >= low.x && p.x < high.x && p.y >= low.y && p.y < high.y;
  }
};

/// In the wanted_level of a ghost: own nodes want it or rest on it, if only by way of other ghosts.
inline constexpr std::uint8_t is_needed = is_waiting;

struct PlacedSize {
  LatticePoint at;
  double size;
};

/// Wanted sizes of own nodes, graded over all pieces (piece_sizes.cpp): beyond the box they are
/// known as far as own nodes rest on others, or lie next to them on the grid.
class PieceSizes {
 public:
  PieceSizes(const State& state, double slope, const Box& box)
      : box_(box), graded_(state, slope, Lattice(state, deepest_level)) {}

  /// Parents first, as far as they are own nodes.
  void add(Cell& c, double size);
  void remove(const Cell& c) { graded_.remove(c); }
  /// With what is known of others.
  void grade();
  void forget_grading();

  /// Whether there is something to tell.
  bool has_news() const;
  /// Places of others that are new, or whose sizes are lower than they may know.
  std::vector<PlacedSize> take_those_of_others();
  /// Own nodes that this piece has told of, where it may not know how low their sizes are.
  std::vector<PlacedSize> take_own_for(std::size_t piece);
  /// What a piece tells. False where a node is not there.
  bool take_over(std::size_t piece, std::span<const PlacedSize> told);

  /// Nodes by number: those that are new or have other sizes since this was asked last, and those
  /// without a size of their own. Some may have gone, or be others'.
  std::vector<std::int32_t> take_changed();
  bool lacks_own_sizes() const { return !without_own_.empty(); }
  const GradedSizes& graded() const { return graded_; }

 private:
  struct Shared {
    std::int32_t number;
    double known;  ///< to both
    bool is_new;
  };
  struct SharedNodes {
    std::vector<Shared> nodes;
    std::unordered_map<std::int32_t, std::size_t> where;

    Shared& at(std::int32_t number, bool is_new);
  };
  bool is_news(const Shared& shared) const;
  std::vector<PlacedSize> take_news(SharedNodes& shared);
  void list_with_parents(std::size_t i);
  void note_lower(std::int32_t i);
  void lower_around(std::int32_t i);

  Box box_;
  GradedSizes graded_;
  SharedNodes others_;            ///< nodes of others
  std::vector<SharedNodes> own_;  ///< by piece
  std::vector<std::int32_t> first_child_,
      next_child_;             ///< the latter by number and place of parent
  std::size_t nb_graded_ = 0;  ///< of the numbers
  bool forgot_ = false;
  std::vector<std::int32_t> lowered_;  ///< what follows from these is to be found
  std::vector<char> is_lowered_;
  std::vector<std::int32_t> changed_, without_own_;
  std::vector<char> is_changed_;
};

/// Nodes apart from their mesh.
struct NodeValues {
  std::vector<LatticePoint> places;
  std::vector<double> rows;  ///< of each its data, gradient, second derivative and position
  std::vector<std::pair<std::int32_t, UserReference>> handles;

  void add(LatticePoint place, const Cell& c);
};

/// The steps of a common update, on the mesh of one window.
class PieceUpdate {
 public:
  /// With a box whose upper lines belong to it where the whole ends there.
  PieceUpdate(State& state, const Box& own, std::int32_t overlap);

  bool owns(LatticePoint p) const { return box_.contains(p); }
  /// Told by coordinates, which are within rounding where the node lies on a line of the grid.
  bool owns(const Cell& c) const {
    return c.x >= west_ && c.x < east_ && c.y >= south_ && c.y < north_;
  }
  /// Whether others may need this own node.
  bool is_near(const Cell& c) const;
  LatticePoint place_of(const Cell& c) const;
  /// None where the window has no node there.
  Cell* node_at(LatticePoint p);

  void begin(const size_function& size, const batch_size_function& sizes,
             const Resolution& resolution, init_data_function init_data);
  void ask();
  /// Gives nodes what they want by their graded sizes, as far as these have changed; those without
  /// a size the level that is there by now.
  void settle();
  /// Those of the own nodes; none where sizes are not graded.
  PieceSizes* graded_sizes() { return graded_ ? &*graded_ : nullptr; }
  const PieceSizes* graded_sizes() const { return graded_ ? &*graded_ : nullptr; }
  bool lacks_sizes() const { return graded_ ? graded_->lacks_own_sizes() : !without_size_.empty(); }
  void take_sizes(std::size_t piece, std::span<const PlacedSize> told);
  bool has_nodes_to_ask() const { return nb_asked_ < to_ask_.size(); }
  bool has_wants() const;
  std::vector<LatticePoint> take_wants();
  void hold(std::span<const LatticePoint> places);
  void release();
  std::vector<LatticePoint> find_needs();
  std::uint64_t needs_revision() const { return needs_revision_; }
  bool hold_only(std::span<const LatticePoint> places);

  void compute_derivatives();
  std::span<Cell* const> own_nodes() {
    list_if_changed();
    return own_nodes_;
  }
  std::span<Cell* const> ghosts() {
    list_if_changed();
    if (!ghosts_are_listed_) list_ghosts();
    return ghosts_;
  }
  /// Of a node near a cut among own_nodes(), -1 where there is none. Needs: these asked for since
  /// nodes came or went.
  std::int64_t row_of(LatticePoint p);

  void hold_all(std::span<const LatticePoint> places);

  struct Near {
    Cell* cell;
    LatticePoint at;
    bool rests_beyond;  ///< on a node of another
  };
  std::vector<Near> border(const Box& of, int layers);
  /// Of each of the boxes.
  std::vector<std::vector<LatticePoint>> children_of(std::span<const Box> of, bool of_all);
  std::vector<std::vector<LatticePoint>> borders(std::span<const Box> of, bool of_all);
  void hold_ghosts(std::span<const LatticePoint> places);
  void keep_ghosts() { keeps_ghosts_ = true; }
  bool has_changed() const;
  void end_unchanged();
  bool has_freed() const { return !freed_.empty(); }
  std::vector<LatticePoint> gone_near(const Box& from) const;
  void remove_ghosts(std::span<const LatticePoint> places);
  void change_ghosts(std::span<const LatticePoint> come, std::span<const LatticePoint> gone);
  /// Calls `use` with each ghost, its place and whether it is linked to own nodes.
  template <typename Use>
  void for_ghosts(const Use& use);
  void hand_on_data(const std::function<bool(const Cell&)>& is_known, std::size_t first);
  bool has_come(const Cell& c) const { return c.id >= first_new_id_; }
  std::span<Cell* const> newcomers() const { return newcomers_; }
  /// Own nodes as they were at begin().
  NodeValues nodes_before() const;
  const UpdateStatistics& statistics() const { return statistics_; }
  bool reaches_cut() const { return reaches_cut_; }

  /// Runs what lowers or raises it.
  void set_limit(const std::function<void()>& set);

  void keep_window();
  /// Runs what changes all of the window.
  void update_window(
      const batch_size_function& sizes,
      const std::function<UpdateStatistics(const batch_size_function& counted)>& update);
  void order_by_age(std::span<const LatticePoint> oldest_first);
  void take_nodes(std::span<const Cell> oldest_first);
  void place_anew(const std::function<bool(const Cell&)>& is_meant);
  void restore(const std::function<bool(const Cell&)>& is_restored,
               const init_data_function& init_data);

  // Values by what lay under a cell, with other pieces (remap.cpp). Nothing is done where that is
  // not wanted.
  /// Notes all own cells, for an update of nodes that are made anew elsewhere.
  void keep_cells();
  /// Goes on with what another piece has noted of all its cells. Needs: its own nodes, and others.
  void take_cells(PieceUpdate& from);
  void forget_cells();
  /// What the cells covered that own nodes have no more.
  Bounds begin_remap();
  /// Of own nodes: cells that are new and reach there, as a message.
  std::vector<double> cells_over(const Bounds& there);
  /// What lay here under cells of another piece.
  std::vector<double> parts_under(std::span<const double> cells) const;
  /// With the answers to cells_over(), in the order in which it was asked.
  void end_remap(std::span<const std::vector<double>> told);

 private:
  class Insertion;
  class Removal;
  class Counting;
  Box closed_at_sides(Box box) const;
  void begin_remapping();
  void find_sides_of_box();
  void look_at_limit();
  double of_dist_0(std::int64_t units) const;
  Near near_of(Cell& c) const;
  std::vector<const Cell*> ghosts_at_newcomers() const;
  bool rests_beyond(LatticePoint at, std::int32_t ipos) const;
  bool rests_on(const Box& box, LatticePoint at, std::int32_t ipos) const;
  double distance_to_cut(const Cell& c) const;
  void list(Cell& c, const Near* near_cut);
  void list_new(Cell& c);
  void list_all();
  void list_changes();
  void list_nodes();
  void list_if_changed();
  void tabulate_near();
  Cell* near_node_at(LatticePoint p);
  void tabulate_ghosts();
  void list_ghosts();
  std::int32_t number_of_ghost(LatticePoint p) const;
  std::int32_t add_ghost(Cell& c);
  void need(std::int32_t ghost, std::int32_t more);
  void count_wants(const Cell& c, std::int32_t before, std::int32_t after);
  void note_parents(const Cell& c, std::size_t newcomer);
  void forget_ghost(const Cell& c);
  void forget_own(const Cell& c);
  void remove_idle();
  void forget_places();
  bool knows_places() const;
  /// A ghost that nothing here needs, and of which no owner tells.
  bool is_idle(const Cell& c) const {
    return (c.wanted_level & (is_held | is_needed)) == 0 && !owns(c) && is_surplus(c);
  }
  void ask(Cell& c, double size);
  Want settle(Cell& c, double size, std::int32_t lowest);
  void end_grading();
  void note_newcomers();
  void remove(Cell& c);
  void forget_gone();
  void release_everywhere();
  void release_around_fallen();
  void release_freed();
  /// The node at a place, made with all that it rests on where it is missing.
  Cell* make(LatticePoint p);
  Point point_at(LatticePoint p) const;

  State& state_;
  std::int32_t overlap_;
  Lattice wants_;  ///< holds nothing: tells what lies where
  Box box_;
  double west_ = 0.0, east_ = 0.0, south_ = 0.0,
         north_ = 0.0;               ///< a little before the box; infinite where the whole ends
  std::int32_t level_of_sides_ = 0;  ///< that nodes may have for these
  size_function size_;
  batch_size_function sizes_;
  Resolution resolution_;
  std::vector<Cell*> held_;
  std::vector<Cell*> own_nodes_;         ///< in the order of the list
  std::vector<Cell*> own_nodes_before_;  ///< its memory is kept
  std::vector<std::size_t> first_rows_;  ///< of each stretch, in own_nodes_
  /// Own nodes that others may need, and some more: those that are listed, some of which may have
  /// gone in an update, and those that have come.
  std::vector<Near> near_;
  std::size_t nb_near_before_ = 0;      ///< of those, at begin()
  std::vector<std::size_t> near_rows_;  ///< where they stand among own_nodes_, as far as listed
  std::optional<Lattice> near_table_;   ///< of near_, in its order, once it is asked for
  /// Ghosts, and places where some were: those have no node.
  std::optional<Lattice> ghost_table_;
  /// Of each: own nodes that want it, own nodes and needed ghosts that rest on it.
  std::vector<std::int32_t> nb_needing_;
  std::vector<std::int32_t> new_ghosts_;  ///< since begin(); some may have gone
  std::size_t nb_ghosts_gone_ = 0;        ///< places without a node in the table
  std::vector<Cell*> ghosts_;             ///< in the order of the table, once they are asked for
  bool ghosts_are_listed_ = false;
  std::vector<Cell*> idle_;                  ///< ghosts that may not be of use any more
  std::vector<LatticePoint> gone_near_;      ///< places of own nodes, since release() began
  std::vector<LatticePoint> waiting_to_go_;  ///< ghosts that have gone at their owners
  std::uint64_t needs_revision_ = 0;
  bool is_listed_ = false, is_updating_ = false;
  bool knows_changes_ = false;  ///< since they were listed: the newcomers, and those that have gone
  std::vector<const Cell*> gone_own_;
  NodeValues gone_before_;  ///< own nodes that were there at begin()
  std::uint64_t listed_revision_ = 0;
  std::vector<const Cell*> fallen_;  ///< own nodes that want less than before
  std::vector<Cell*> without_size_;  ///< own nodes, where sizes are not graded
  std::vector<Cell*> freed_;         ///< that may be surplus, besides those around the fallen
  std::unordered_set<const Cell*> gone_;
  std::optional<Lattice> nodes_by_place_;  ///< while many are made
  std::int64_t first_new_id_ = 0;
  std::vector<Cell*> newcomers_;
  std::vector<std::array<Cell*, 4>> parents_;  ///< of the newcomers
  std::vector<Cell*> to_ask_;                  ///< own nodes, in the order of their coming
  std::size_t nb_asked_ = 0;                   ///< of those
  std::size_t nb_noted_ = 0, nb_told_ = 0;     ///< of the newcomers, the latter to others
  init_data_function init_data_;
  std::optional<PieceSizes> graded_;  ///< from begin() to the last ghosts
  std::unique_ptr<Remapping> remapping_;
  std::vector<std::vector<std::size_t>> asked_;  ///< by piece, of the changed cells
  UpdateStatistics statistics_;
  bool reaches_cut_ = false;
  bool surplus_has_gone_ = false;   ///< with the last update
  bool knows_fallen_ = false;       ///< all that may go is around those whose wants have fallen
  bool keeps_ghosts_ = false;       ///< from update to update
  bool ghosts_are_needed_ = false;  ///< those that are not have gone
  bool keeps_windows_ = false;      ///< others need all nodes in theirs
};

template <typename Use>
void PieceUpdate::for_ghosts(const Use& use) {
  list_if_changed();
  constexpr std::size_t ahead = 8;
  const std::vector<Lattice::Entry>& entries = ghost_table_->entries();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const Lattice::Entry& entry = entries[i];
    if (i + ahead < entries.size()) prefetch_lines(entries[i + ahead].cell, 2);
    if (entry.cell == nullptr) continue;
    bool is_linked = false;
    for (int d = 0; d < nb_directions && !is_linked; ++d) {
      const Cell* there = link(*entry.cell, d).cell();
      is_linked = there != nullptr && owns(*there);
    }
    use(entry.cell, entry.at, is_linked);
  }
}

}  // namespace velmar_2d::detail
