// What the files of resolving tell one another: the update that leaves no node coarser than wanted,
// rings, the lattice and graded sizes. Never installed.
#pragma once

#include <cmath>
#include <optional>

#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

void resolve_mesh_init(State& state, const size_function& size_fun, init_data_function init_data,
                       const Resolution& resolution);
void resolve_mesh_init(State& state, const batch_size_function& size_fun,
                       init_data_function init_data, const Resolution& resolution);
void resolve_mesh_no_init(State& state, const size_function& size_fun,
                          const Resolution& resolution);
void resolve_mesh_no_init(State& state, const batch_size_function& size_fun,
                          const Resolution& resolution);

/// The least mesh that does what is asked (resolve.cpp). Derivatives, if they are wanted, are
/// computed once the mesh is in order: broken ones have nodes that have none.
void resolve_mesh_body(State& state, const size_function& size_fun, const Resolution& resolution,
                       bool with_derivatives);
void resolve_mesh_body(State& state, const batch_size_function& size_fun,
                       const Resolution& resolution, bool with_derivatives);

// ---------------------------------------------------------------------------------------------
// What nodes want (by several threads: ask_nodes.cpp)
// ---------------------------------------------------------------------------------------------

/// While this scope lasts, nodes that come have no derivatives yet: they get them when all that
/// come with them are there, so that it does not matter in which order they came.
class DeriveLater {
 public:
  explicit DeriveLater(State& state, std::int32_t threads = 1) : state_(state), threads_(threads) {
    state.derives_later = true;
  }
  DeriveLater(const DeriveLater&) = delete;
  DeriveLater& operator=(const DeriveLater&) = delete;
  ~DeriveLater() { state_.derives_later = false; }

  /// Those of some nodes, where there are data.
  void derive(std::span<Cell* const> nodes) const {
    if (state_.n_cell_data > 0) compute_data_at_nodes(state_, nodes, threads_);
  }

 private:
  State& state_;
  std::int32_t threads_;
};

/// What a size means for a node.
struct Want {
  std::int32_t level;  ///< up to which rings are completed
  std::int32_t kept;   ///< up to which members of rings stay; or as_it_is
  bool is_refused;     ///< the limit forbids what is wanted
};

/// Beside the wanted level that a node keeps: it waits to be removed, or stays whatever is wanted.
inline constexpr std::uint8_t is_waiting = 0x80, is_held = 0x40;
/// In place of it: the level that the node has when what others want has come, which so does not
/// depend on the order in which nodes are asked. Nodes that go leave it, since rings that are
/// complete stay.
inline constexpr std::uint8_t as_it_is = 0x3f;
static_assert(((is_waiting | is_held) & as_it_is) == 0 && as_it_is > highest_wanted_level);
inline std::int32_t wanted_level(const Cell& c, std::int32_t kept) {
  return kept == as_it_is ? c.level : kept;
}
inline std::int32_t wanted_level(const Cell& c) {
  return wanted_level(c, c.wanted_level & ~(is_waiting | is_held));
}

class WantedLevels {
 public:
  WantedLevels(const State& state, double margin)
      : dist_0_(state.domain.dist_0),
        margin_ratio_(margin > 0.0 ? std::exp2(margin / 2.0) : 1.0),
        limit_(std::min(state.level_max, highest_wanted_level)) {}

  /// A size that is none wants the level that is there.
  Want of(const Cell& c, double size, std::int32_t lowest) const {
    if (!(size >= 0.0)) return {c.level, as_it_is, false};
    const double ratio = std::abs(dist_0_ / size);
    const std::int32_t level = level_wanted_by(ratio);
    const std::int32_t kept = margin_ratio_ == 1.0 ? level : level_wanted_by(ratio * margin_ratio_);
    return {std::clamp(level, lowest, limit_), std::clamp(kept, lowest, limit_), level > limit_};
  }

 private:
  double dist_0_, margin_ratio_;
  std::int32_t limit_;
};

/// Whether nothing rests on a node and no parent wants it. Needs: a mesh in order.
inline bool is_surplus(const Cell& c) {
  const std::int32_t ipos = c.ipos;
  if (ipos == 0 || c.level != ipos || (c.wanted_level & is_held) != 0) return false;
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* linked = link(c, d).cell();
    if (linked != nullptr && (linked->ipos > ipos || wanted_level(*linked) >= ipos)) return false;
  }
  return true;
}

/// Whether members of rings around a node may no longer be wanted by it. What was wanted up to ipos
/// concerns parents only.
inline bool may_release(const Cell& c, const Want& want) {
  return wanted_level(c, want.kept) < wanted_level(c) && wanted_level(c) > c.ipos;
}

/// Whether wants have fallen at so many nodes that all nodes had better be looked at for what may
/// go.
inline bool are_many(std::size_t nb_fallen, std::size_t nb_nodes) {
  constexpr std::size_t one_in = 12;
  return nb_fallen > nb_nodes / one_in;
}

/// A node that is still to be settled.
struct Demand {
  Cell* node;
  double size;
};
/// Whether that is so, or to note what a node wants is all.
inline bool is_demand(const Cell& c, const Want& want) {
  return want.level > c.level || want.is_refused;
}
struct AskedNodes {
  std::vector<Demand> demands;  ///< of nodes that are to be raised, mostly
  std::vector<Cell*> fallen;    ///< of the others, those around which nodes may be released
  std::int64_t nb_asked = 0;
  std::exception_ptr thrown;  ///< by the size function; the demands are those of the nodes before
};
/// Asks all nodes by so many threads, and notes what they want but for those with demands.
/// Needs: a joined list.
/// @return nothing where there is no memory for it, or a caller has changed the list
std::optional<AskedNodes> ask_all_nodes(State& state, const size_function& size_fun,
                                        const WantedLevels& wants, std::int32_t threads);
/// The same with some nodes.
std::optional<AskedNodes> ask_nodes(State& state, std::span<Cell* const> nodes,
                                    const size_function& size_fun, const WantedLevels& wants,
                                    std::int32_t threads);
/// The next node but a few that will be asked.
VELMAR_2D_ALWAYS_INLINE void prefetch_node_to_ask(std::span<Cell* const> nodes, std::size_t i) {
  constexpr std::size_t ahead = 8;
  if (i + ahead < nodes.size()) prefetch_lines(nodes[i + ahead], 2);
}

// ---------------------------------------------------------------------------------------------
// Rings (rings.cpp, restore_rings.cpp)
//
// Ring l of a node p are the positions at the distance of level l from it, as far as they lie in
// the rectangle: diagonally for odd l, straight for even l. For l = ipos they are what p rests on,
// its parents; those for l > ipos rest on p, and each of them is the centre of a figure:
//
//      left --- far            left                  p's next neighbours in the ring below are
//        |       |            /    \                 left and right, far is one of the ring below
//        |   +   |           p   +  far              that; on a side, left, right or far may be
//        |       |            \    /                 missing
//        p --- right           right
//
// The mesh is in order where every node has its parents and `level` is the last ring that is
// complete. Then a nearer ring rests on a farther one, and links tell which members there are.
// ---------------------------------------------------------------------------------------------

/// Makes members of rings. Needs: a mesh in order, and keeps it so.
class RingMaker {
 public:
  /// @param newcomers   receives the nodes that are made
  /// @param most_nodes  of the mesh; 0: no matter
  RingMaker(State& state, std::vector<Cell*>& newcomers, std::int64_t most_nodes)
      : state_(state), newcomers_(newcomers), most_nodes_(most_nodes) {}

  /// Completes the rings around p up to this level, and around others what those rest on.
  void raise(Cell& p, std::int32_t level);
  /// Whether nodes may have come that nothing rests on: those around were no figure.
  bool has_failed() const { return has_failed_; }
  /// Makes one node at the middle of its parents, those around it by direction.
  void make_between(const std::array<Cell*, nb_directions>& around, std::int32_t ipos);

 private:
  struct Member {
    Cell* of;
    int direction;
    std::int32_t level;
  };

  static bool is_missing(const Cell& p, int direction, std::int32_t level);
  bool make(Cell& p, int direction, std::int32_t level);
  bool make_or_defer(const Member& member);
  void insert(const Member& member, Cell* left, Cell* far, Cell* right);

  State& state_;
  std::vector<Cell*>& newcomers_;
  std::int64_t most_nodes_;
  /// Until what they rest on is there. Each is a level lower than the one before.
  std::array<Member, highest_wanted_level + 1> deferred_;
  std::size_t nb_deferred_ = 0;
  bool has_failed_ = false;
};

/// Ends the update: the mesh would need more nodes than it may have.
[[noreturn]] void too_many_nodes(const State& state, std::int64_t most_nodes);

/// A position in units of the finest spacing, from the lower left corner of the frame.
struct LatticePoint {
  std::int64_t x, y;
  friend bool operator==(const LatticePoint&, const LatticePoint&) = default;
};

/// The lattice of a mesh, and which of its positions are taken (lattice.cpp). Procedures that take
/// memory may throw std::bad_alloc.
class Lattice {
 public:
  struct Entry {
    LatticePoint at;
    Cell* cell;         ///< none as long as it is to be made, or when it has gone
    std::int32_t ipos;  ///< as the position tells
  };

  /// With room for the nodes of the mesh; the other form for so many.
  Lattice(const State& state, std::int32_t highest_ipos);
  static Lattice of_few(const State& state, std::size_t nb_nodes = 0) {
    return {state, deepest_level, nb_nodes};
  }

  std::vector<Entry>& entries() { return entries_; }
  const std::vector<Entry>& entries() const { return entries_; }
  /// The grid line at an offset from the corner of the frame.
  std::int64_t line_at(double offset) const;
  std::int64_t grid_step() const { return std::int64_t{1} << halvings_; }
  /// The lower left and the upper right corner of the domain.
  LatticePoint first() const { return first_; }
  LatticePoint last() const { return last_; }
  /// The upper right corner of the frame.
  LatticePoint frame_last() const { return frame_last_; }
  /// The member of a ring that lies in this direction.
  LatticePoint neighbour(LatticePoint p, int direction, std::int32_t level) const;
  bool contains(LatticePoint p) const;
  /// Whether a position lies in the frame, beyond the domain or not.
  bool is_in_frame(LatticePoint p) const;
  bool is_on_side(LatticePoint p, int straight_direction) const;
  std::int32_t ipos(LatticePoint p) const;
  /// False where a node lies off the lattice.
  bool find_place(const Cell& c, LatticePoint& p) const;
  /// Number of the entry, -1 where there is none.
  std::int32_t find(LatticePoint p) const { return slots_[slot_of(p)]; }
  bool holds(LatticePoint p) const { return contains(p) && find(p) >= 0; }
  /// Number of the new entry, -1 where there was one.
  std::int32_t add(const Entry& entry);

 private:
  Lattice(const State& state, std::int32_t highest_ipos, std::size_t nb_nodes);
  std::int32_t halvings_of(std::int64_t offset) const;
  std::size_t slot_of(LatticePoint p) const;
  void double_slots();

  const Domain* domain_;
  ProgressTeller* progress_;
  std::int32_t halvings_;  ///< of dist_0: one more than the nodes have
  LatticePoint first_, last_, frame_last_;
  std::vector<Entry> entries_;
  std::vector<std::int32_t> slots_;
};

/// The wanted sizes of all nodes, graded over the mesh (graded_sizes.cpp). Nodes have the numbers
/// in which they are added, parents first.
class GradedSizes {
 public:
  using Parents = std::array<std::int32_t, 4>;

  GradedSizes(const State& state, double slope);
  /// With places of another lattice, that is empty.
  GradedSizes(const State& state, double slope, Lattice lattice);

  std::size_t size() const { return nodes_.size(); }
  const Lattice& lattice() const { return lattice_; }
  /// A size that is negative or not a number is none.
  void add(Cell& c, double size);
  /// A place that holds no node here, without a size.
  void add_place(LatticePoint at);
  /// Needs: no node rests on this one.
  void remove(const Cell& c);
  void grade();
  /// What is graded next is graded from the nodes' own sizes.
  void forget_grading();
  /// The node with a number, which may have gone, and its size.
  Cell* cell_of(std::size_t i) const { return lattice_.entries()[i].cell; }
  double size_of(std::size_t i) const { return nodes_[i].graded; }
  bool has_own(std::size_t i) const { return nodes_[i].has_own; }
  /// Those there were when it was added, -1 for none, and the way to them.
  const Parents& parents_of(std::size_t i) const { return nodes_[i].parents; }
  double rise_of(std::size_t i) const { return rise_[static_cast<std::size_t>(nodes_[i].ipos)]; }
  /// Whether that lowers the size of a node.
  bool lower(std::size_t i, double size) {
    if (!(size < nodes_[i].graded)) return false;
    nodes_[i].graded = size;
    return true;
  }

 private:
  struct Node {
    double own = 0.0, graded = 0.0;
    Parents parents{-1, -1, -1, -1};  ///< and neighbours on the grid
    std::int32_t ipos = 0;
    bool has_own = false;
  };
  bool relax(Node& node);

  ProgressTeller& progress_;
  Lattice lattice_;
  std::array<double, highest_wanted_level + 1> rise_{};  ///< to a parent, by ipos
  std::vector<Node> nodes_;
};

/// Releases what nothing rests on and nothing wants, once all are raised (release.cpp). Made before
/// that, and told what happens meanwhile.
class Releaser {
 public:
  /// @param knows_fallen  all that may go is around those whose wants will have fallen
  Releaser(State& state, bool knows_fallen);

  /// The first nodes of the stretches, of those that were there at first. None above holds nodes.
  std::span<Cell* const> heads() const { return std::span(heads_).first(nb_stretches_); }

  /// A node has come.
  void note_come(const Cell& c);
  bool knows_fallen() const { return knows_fallen_; }
  void note_fallen(Cell& c);
  void note_fallen(std::vector<Cell*>&& nodes) { fallen_ = std::move(nodes); }
  void forget_fallen() { knows_fallen_ = false; }

  /// Stretches downwards, or around those whose wants have fallen.
  ///
  /// @param come_are_needed  the nodes that have come are wanted, or rested on: they are left out
  ///                         where they are known
  void release_surplus(bool come_are_needed);
  /// Stretches downwards. Returns whether a node went.
  bool release_everywhere(bool come_are_needed, GradedSizes* graded = nullptr);

 private:
  void release_around_fallen();
  void release_waiting();
  void await_removal(Cell& c);
  void note_gone(const Cell& c);

  State& state_;
  std::array<Cell*, highest_wanted_level + 1> heads_{};
  std::array<TraversalHistory::Entry, highest_wanted_level + 1> head_entries_{};
  std::size_t nb_stretches_;
  /// Those that have come, by stretch.
  std::array<std::vector<TraversalHistory::Entry>, highest_wanted_level + 1> come_to_;
  std::int64_t nb_come_ = 0;
  std::vector<TraversalHistory::Entry> gone_;
  std::vector<Cell*> fallen_, surplus_;
  bool knows_come_ = true;  ///< no memory was short for those that have come
  bool knows_fallen_;
};

/// Puts a mesh in order that anything may have happened to, from the positions of its nodes alone:
/// makes parents that are missing, sets links, link levels, levels and reserves, and releases nodes
/// that lie off the lattice. Mostly changes nothing. All that can fail comes first.
/// @return whether links or levels changed
bool restore_rings(State& state, std::int64_t most_nodes);

}  // namespace velmar_2d::detail
