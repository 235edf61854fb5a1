// The nodes of each stretch in an array, for walks that want to have them all beforehand. Never
// installed.
#pragma once

#include "velmar_2D/scout.hpp"

namespace velmar_2d::detail {

/// Calls up the nodes of each stretch, the last one first: a node that comes enters its stretch at
/// the head, and so the roll at its end.
///
/// The roll stays from one update to the next, and is good as long as no node has come or gone in
/// between.
class Roll {
 public:
  /// Calls up all nodes of the split list, unless they are known. From then on none may leave the
  /// mesh but those that are struck off.
  void open();
  bool is_open() const { return is_open_; }
  /// Notes a node that has just entered the head of its stretch: later it would have to be searched
  /// for in the memory. Needs: the roll is open.
  void enter(const Cell& c);
  /// The nodes of a stretch, with those that have entered it since it was last asked for. The
  /// caller strikes one off by making it none. Good until the next call.
  std::span<const Cell*> of_stretch(std::size_t stretch);
  void close();
  /// Gives the memory back.
  void forget();

 private:
  void call_up(std::size_t stretch, Cell* first, Scout& scout);

  std::vector<std::vector<const Cell*>> stretches_;
  std::uint64_t revision_ = 0;  ///< of the mesh that the closed roll is good for; 0: of none
  bool is_open_ = false, has_room_ = true;
};
extern Roll roll;

}  // namespace velmar_2d::detail
