// One piece of a mesh that is kept in pieces: which places it needs of others, and what others need
// of it. Never installed.
#pragma once

#include <optional>

#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

/// A box of grid cells, half open but where the whole ends.
struct Box {
  LatticePoint low, high;  ///< high: the first lines that do not belong to it

  bool contains(LatticePoint p) const {
    return p.x >= low.x && p.x < high.x && p.y >= low.y && p.y < high.y;
  }
  /// The distance along x or y, whichever is larger; 0 inside.
  std::int64_t distance_to(LatticePoint p) const;
};

/// The steps of a common update, on the mesh of one window.
class PieceUpdate {
 public:
  PieceUpdate(State& state, const Window& own, std::int32_t nx, std::int32_t ny);

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
  bool has_wants() const { return !new_wants_.empty(); }
  std::vector<LatticePoint> take_wants() { return std::exchange(new_wants_, {}); }
  void hold(std::span<const LatticePoint> places);
  void release();
  void find_needs();
  bool hold_only(std::span<const LatticePoint> places);

  void hold_all(std::span<const LatticePoint> places);

  std::vector<Cell*> border(const Window& of, int layers);
  void hold_ghosts(std::span<const LatticePoint> places);
  void hand_on_data(const std::function<bool(const Cell&)>& is_known, std::size_t first);
  bool has_come(const Cell& c) const { return c.id >= first_new_id_; }
  std::span<Cell* const> newcomers() const { return newcomers_; }
  const UpdateStatistics& statistics() const { return statistics_; }
  bool reaches_cut() const { return reaches_cut_; }

 private:
  class Insertion;
  void forget_wants();
  template <typename MayGo>
  void remove_surplus(const MayGo& may_go);
  Box box_of(const Window& window) const;
  void find_sides_of_box();
  void find_near();
  double distance_to_cut(const Cell& c) const;
  void ask(Cell& c, double size);
  void note_newcomers();
  void forget_newcomers(const std::unordered_set<const Cell*>& gone);
  void want_rings_beyond(const Cell& c, std::int32_t level);
  void want(LatticePoint p);
  /// The node at a place, made with all that it rests on where it is missing.
  Cell* make(LatticePoint p);
  Point point_at(LatticePoint p) const;

  State& state_;
  Window own_;
  std::int32_t nx_, ny_;
  Lattice wants_;  ///< places of others, with all that they rest on there
  Box box_;
  double west_ = 0.0, east_ = 0.0, south_ = 0.0,
         north_ = 0.0;  ///< a little before the box; infinite where the whole ends
  size_function size_;
  batch_size_function sizes_;
  Resolution resolution_;
  std::vector<LatticePoint> new_wants_;
  std::vector<Cell*> held_, held_ghosts_;
  std::vector<Cell*> near_;  ///< own nodes that others may need, and some more
  bool near_is_current_ = false;
  std::optional<Lattice> nodes_by_place_;  ///< while many are made
  std::int64_t first_new_id_ = 0;
  std::vector<Cell*> newcomers_;
  std::vector<std::array<Cell*, 4>> parents_;  ///< of the newcomers
  std::vector<Cell*> to_ask_;                  ///< own nodes, in the order of their coming
  std::size_t nb_asked_ = 0, nb_noted_ = 0;    ///< of those, and of the newcomers
  init_data_function init_data_;
  UpdateStatistics statistics_;
  bool reaches_cut_ = false, surplus_has_gone_ = false;
};

}  // namespace velmar_2d::detail
