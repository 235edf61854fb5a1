// Asking the memory early for what a walk over the nodes will read. Never installed.
#pragma once

#include "velmar_2D/internal.hpp"

namespace velmar_2d::detail {

/// The nodes that the last coarsening left, in the order of the list: the next walks meet nearly
/// the same ones. No node is read through it, so it may be out of date.
class Trail {
 public:
  /// The number of a node's slot in memory, cut to 32 bits.
  using Mark = std::uint32_t;
  static Mark mark_of(const Cell* c) {
    return static_cast<Mark>(reinterpret_cast<std::uintptr_t>(c) / sizeof(Cell));
  }
  /// Where the node of a mark lies, seen from one that is less than half a terabyte away.
  static std::uintptr_t address(Mark mark, const Cell* from) {
    const std::int64_t slots = static_cast<std::int32_t>(mark - mark_of(from));
    return reinterpret_cast<std::uintptr_t>(from) +
           static_cast<std::uintptr_t>(slots * std::int64_t{sizeof(Cell)});
  }

  std::ptrdiff_t size() const { return static_cast<std::ptrdiff_t>(marks_.size()); }
  Mark operator[](std::ptrdiff_t i) const { return marks_[static_cast<std::size_t>(i)]; }

  /// Makes room for the nodes of a walk backwards, behind the marks that there are. The walk can
  /// read those to their end: it never has more nodes before it than marks unread.
  void begin_recording();
  void record(const Cell* c) {
    if (begin_ > 0) marks_[--begin_] = mark_of(c);
  }
  void end_recording();
  /// Gives the memory back.
  void forget() { std::vector<Mark>().swap(marks_); }

 private:
  std::vector<Mark> marks_;
  std::size_t begin_ = 0;  ///< of what is being recorded
};
extern Trail trail;

/// Asks for the corners of the squares and diamonds that could get a centre next to c, as far as
/// they are no neighbours of c. Reads the links of c and of its neighbours. Always a part of its
/// caller: to g++ a procedure that only asks the memory has no effect, and calls of it none either.
[[gnu::always_inline]] inline void request_far_corners(const Cell& c) {
  constexpr std::uintptr_t line = 64;
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* corner = link(c, d).cell();
    if (corner == nullptr || !link(c, d + 1).empty()) continue;
    const auto far = reinterpret_cast<std::uintptr_t>(link(*corner, d + 2).cell());
    __builtin_prefetch(reinterpret_cast<const void*>(far));
    __builtin_prefetch(reinterpret_cast<const void*>(far + line));
  }
}

/// Runs a few nodes ahead of a walk through the stretches and asks the memory for what the walk
/// will read there.
///
/// Nodes on the trail are known long before. New ones mostly lie one slot apart, so that the place
/// of one further ahead can be guessed, unless the walk knows all its nodes; a wrong guess costs
/// nothing but the request.
class Scout {
 public:
  static Scout forwards() { return {&Cell::next, 0, 1}; }
  static Scout backwards() { return {&Cell::prev, trail.size() - 1, -1}; }

  /// For a quick walk that reads first lines only, and so is at the next node soon.
  Scout in_haste() const {
    Scout scout = *this;
    scout.hasty_ = true;
    scout.known_ = {};
    return scout;
  }

  bool goes_forwards() const { return direction_ > 0; }

  /// Tells what the next stretch consists of, in the order of the walk.
  void know(std::span<const Cell* const> nodes) {
    known_ = nodes;
    next_known_ = 0;
  }

  /// The node that the walk comes to after c.
  const Cell* after(const Cell& c) const { return c.*step_; }

  void begin_stretch(Cell* first) {
    far_ = near_ = first;
    if (first != nullptr) request_after(*first, *first);
    for (int i = 0; i < far_ahead; ++i) advance_far(true);
    for (int i = 0; i < near_ahead; ++i) advance_near(true);
  }

  /// One step; `busy` tells that the walk works with links and neighbours of the nodes here.
  void advance(bool busy) {
    advance_far(busy);
    advance_near(busy);
  }

 private:
  static constexpr int near_ahead = 4, far_ahead = 8, guessed_ahead = 6, marks_ahead = 8,
                       hasty_marks_ahead = 32;

  Scout(Cell* Cell::*step, std::ptrdiff_t start, std::ptrdiff_t direction)
      : step_(step), mark_(start), direction_(direction) {}

  static constexpr std::uintptr_t line = 64;

  bool reads_links(const Cell& c) const { return direction_ > 0 && c.reserve != 4; }
  static std::uintptr_t address_of(const Cell* c) { return reinterpret_cast<std::uintptr_t>(c); }
  static void request_neighbours(const Cell& c) {
    for (int d = 0; d < nb_directions; ++d) {
      const Cell* neighbour = link(c, d).cell();
      if (neighbour == nullptr) continue;
      request(address_of(neighbour));
      request(address_of(neighbour) + line);
    }
  }

  /// The next node but a few comes into sight: its first line tells whether more of it is needed.
  void advance_far(bool busy) {
    if (far_ == nullptr) return;
    Cell* following = far_->*step_;
    if (following != nullptr) request_after(*following, *far_);
    if (!hasty_ && (busy || reads_links(*far_))) request(address_of(far_) + line);
    if (!hasty_ && busy) request(address_of(far_) + 2 * line);
    far_ = following;
  }
  /// The neighbours of a node that is about to be reached.
  void advance_near(bool busy) {
    if (near_ == nullptr || hasty_) return;
    near_ = near_->*step_;
    if (near_ != nullptr && (busy || reads_links(*near_))) request_neighbours(*near_);
  }

  static void request(std::uintptr_t address) {
    __builtin_prefetch(reinterpret_cast<const void*>(address));
  }
  static bool on_trail(std::ptrdiff_t i) { return i >= 0 && i < trail.size(); }

  void request_after(const Cell& c, const Cell& previous) {
    std::uintptr_t ahead = 0;
    if (on_trail(mark_) && trail[mark_] == Trail::mark_of(&c)) {
      const std::ptrdiff_t i = mark_ + direction_ * (hasty_ ? hasty_marks_ahead : marks_ahead);
      if (on_trail(i)) ahead = Trail::address(trail[i], &c);
      mark_ += direction_;
    } else if (!known_.empty()) {
      while (known_[next_known_] != &c) ++next_known_;
      ahead = address_of(known_[std::min(next_known_ + marks_ahead, known_.size() - 1)]);
    } else {
      ahead = address_of(&c) + guessed_ahead * (address_of(&c) - address_of(&previous));
    }
    request(ahead);
    if (reads_derivatives_ && !hasty_) request(ahead + 2 * line);
  }

  Cell *far_ = nullptr, *near_ = nullptr;
  Cell* Cell::*step_;
  std::ptrdiff_t mark_;  ///< of the node that the scout expects next on the trail
  std::ptrdiff_t direction_;
  std::span<const Cell* const> known_;
  std::size_t next_known_ = 0;
  bool hasty_ = false;
  bool reads_derivatives_ = n_cell_data > 0;  ///< for the size function; those of no values are 0
};

}  // namespace velmar_2d::detail
