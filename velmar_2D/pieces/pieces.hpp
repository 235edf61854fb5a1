// One piece of a mesh that is kept in pieces: which places it needs of others, and what others need
// of it. Never installed.
#pragma once

#include <optional>
#include <unordered_set>

#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

/// A box of grid cells, half open but where the whole ends.
struct Box {
  LatticePoint low, high;  ///< high: the first lines that do not belong to it

  bool contains(LatticePoint p) const {
    return p.x >= low.x && p.x < high.x && p.y >= low.y && p.y < high.y;
  }
};

/// Nodes apart from their mesh.
struct NodeValues {
  std::vector<LatticePoint> places;
  std::vector<double> rows;  ///< of each its data, gradient and second derivative
  std::vector<std::pair<std::int32_t, UserReference>> handles;

  void add(LatticePoint place, const Cell& c);
};

/// The steps of a common update, on the mesh of one window.
class PieceUpdate {
 public:
  PieceUpdate(State& state, const Window& own, std::int32_t overlap, std::int32_t nx,
              std::int32_t ny);

  const Window& own() const { return own_; }
  bool owns(LatticePoint p) const { return box_.contains(p); }
  /// Told by coordinates, which are within rounding where the node lies on a line of the grid.
  bool owns(const Cell& c) const {
    return c.x >= west_ && c.x < east_ && c.y >= south_ && c.y < north_;
  }
  /// Whether others may need this own node.
  bool is_near(const Cell& c) const;
  LatticePoint place_of(const Cell& c) const;
  /// None where the window has no node there.
  Cell* node_at(LatticePoint p) const;

  void begin(const size_function& size, const batch_size_function& sizes,
             const Resolution& resolution, init_data_function init_data);
  void ask();
  bool has_nodes_to_ask() const { return nb_asked_ < to_ask_.size(); }
  bool has_wants() const;
  std::vector<LatticePoint> take_wants();
  void hold(std::span<const LatticePoint> places);
  void release();
  std::vector<LatticePoint> find_needs();
  bool hold_only(std::span<const LatticePoint> places);

  void compute_derivatives();
  std::span<Cell* const> own_nodes() {
    list_if_changed();
    return own_nodes_;
  }
  std::span<Cell* const> ghosts() {
    list_if_changed();
    return ghosts_;
  }
  /// Of a node near a cut among own_nodes(), -1 where there is none. Needs: these asked for since
  /// nodes came or went.
  std::int64_t row_of(LatticePoint p);

  void hold_all(std::span<const LatticePoint> places);

  std::vector<Cell*> border(const Window& of, int layers);
  void hold_ghosts(std::span<const LatticePoint> places);
  void hand_on_data(const std::function<bool(const Cell&)>& is_known, std::size_t first);
  bool has_come(const Cell& c) const { return c.id >= first_new_id_; }
  std::span<Cell* const> newcomers() const { return newcomers_; }
  /// Own nodes as they were at begin().
  NodeValues nodes_before() const;
  const UpdateStatistics& statistics() const { return statistics_; }
  bool reaches_cut() const { return reaches_cut_; }

  void keep_window();
  /// Runs what changes all of the window.
  void update_window(const std::function<UpdateStatistics()>& update);
  void order_by_age(std::span<const LatticePoint> oldest_first);
  void take_nodes(std::span<const Cell> oldest_first);

 private:
  class Insertion;
  class Removal;
  class Counting;
  Box box_of(const Window& window) const;
  void find_sides_of_box();
  double distance_to_cut(const Cell& c) const;
  void list(Cell& c, bool is_near_cut);
  void list_all();
  void list_changes();
  void list_nodes();
  void list_if_changed();
  void tabulate_near();
  Cell* near_node_at(LatticePoint p);
  void ask(Cell& c, double size);
  void note_newcomers();
  void remove(Cell& c);
  void forget_gone();
  void release_everywhere();
  void release_around_fallen();
  /// The node at a place, made with all that it rests on where it is missing.
  Cell* make(LatticePoint p);
  Point point_at(LatticePoint p) const;

  State& state_;
  Window own_;
  std::int32_t overlap_, nx_, ny_;
  Lattice wants_;  ///< holds nothing: tells what lies where
  Box box_;
  double west_ = 0.0, east_ = 0.0, south_ = 0.0,
         north_ = 0.0;  ///< a little before the box; infinite where the whole ends
  size_function size_;
  batch_size_function sizes_;
  Resolution resolution_;
  std::vector<Cell*> held_, held_ghosts_;
  std::vector<Cell*> own_nodes_, ghosts_;  ///< in the order of the list
  std::vector<Cell*> own_nodes_before_;    ///< its memory is kept
  std::vector<std::size_t> first_rows_;    ///< of each stretch, in own_nodes_
  std::vector<Cell*> near_;                ///< own nodes that others may need, and some more
  std::vector<std::size_t> near_rows_;     ///< where they stand among own_nodes_, as far as listed
  std::optional<Lattice> near_table_;      ///< of near_, in its order, once it is asked for
  bool is_listed_ = false, is_updating_ = false;
  bool knows_changes_ = false;  ///< since they were listed: the newcomers, and those that have gone
  std::vector<const Cell*> gone_own_;
  NodeValues gone_before_;  ///< own nodes that were there at begin()
  std::uint64_t listed_revision_ = 0;
  std::vector<const Cell*> fallen_;  ///< own nodes that want less than before
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
  UpdateStatistics statistics_;
  bool reaches_cut_ = false;
  bool surplus_has_gone_ = false;   ///< with the last update
  bool knows_fallen_ = false;       ///< all that may go is around those whose wants have fallen
  bool ghosts_are_needed_ = false;  ///< those that are not have gone
  bool keeps_windows_ = false;      ///< others need all nodes in theirs
};

}  // namespace velmar_2d::detail
