// Where the nodes of a mesh live, what its walks remember of one another, and how they prefetch.
// Nothing here decides anything: without it the meshes would be the same. Never installed.
#pragma once

#include <atomic>
#include <memory>

#include "velmar_2D/base/base.hpp"

namespace velmar_2d::detail {

// ---------------------------------------------------------------------------------------------
// Where nodes live (node_memory.cpp)
// ---------------------------------------------------------------------------------------------

struct NodeBlock;
struct NodeSlab;

/// Nodes lie in blocks, at multiples of their size.
inline constexpr std::size_t slots_per_block = 64;
inline constexpr std::size_t block_bytes = slots_per_block * sizeof(Cell);

/// A block, by its number in the address space, and a bit for each of its slots that holds a node.
struct TakenSlots {
  std::uintptr_t block;
  std::uint64_t slots;
};

/// The memory of the nodes of one mesh.
class NodeMemory {
 public:
  NodeMemory();
  NodeMemory(const NodeMemory&) = delete;
  NodeMemory& operator=(const NodeMemory&) = delete;
  ~NodeMemory();

  /// Memory for one node of a stretch, near that of the last one; nullptr where there is none.
  void* take(std::int32_t stretch);
  /// Takes back the memory of a node that is no more.
  void give_back(void* slot);
  /// Returns memory to the system where no node lies in it.
  void release_empty_slabs();
  /// Returns all memory to the system. Needs: every slot has been given back.
  void release_all();
  /// Nodes by the numbers of their slots, cut to 32 bits; no node at all where one of them holds
  /// none. May throw std::bad_alloc.
  std::vector<Cell*> nodes_in(std::span<const std::uint32_t> slots) const;
  /// Where all nodes are. May throw std::bad_alloc.
  std::vector<TakenSlots> taken_slots() const;

 private:
  struct Blocks {
    NodeBlock *first = nullptr, *last = nullptr;
  };
  static constexpr std::size_t nb_kinds = 5;  ///< by the part of their slots that is free

  bool add_slab();
  bool has_room_to_spare() const;
  Blocks& blocks_to_fill();
  NodeBlock* block_of_another_stretch();
  NodeBlock* open_block(NodeBlock* filled);
  static void append(Blocks& list, NodeBlock& block);
  static void remove(Blocks& list, NodeBlock& block);

  NodeSlab* slabs_ = nullptr;
  std::size_t bytes_in_slabs_ = 0;
  std::int64_t nb_slots_ = 0;
  std::int64_t nb_taken_ = 0;  ///< nodes that live here
  std::int64_t nb_given_ = 0;  ///< how often a slot has been given back
  std::array<Blocks, nb_kinds> blocks_;
  /// Where the next node of a stretch goes. Few meshes have so many stretches that two share a
  /// block.
  std::array<NodeBlock*, 64> open_blocks_{};
};

// ---------------------------------------------------------------------------------------------
// What a walk leaves for the next ones (traversal_history.cpp)
// ---------------------------------------------------------------------------------------------

/// The nodes that the last coarsening left, in the order of the list: the next walks meet nearly
/// the same ones. No node is read through it, so it may be out of date.
class TraversalHistory {
 public:
  /// The number of a node's slot in memory, cut to 32 bits.
  using Entry = std::uint32_t;
  static Entry entry_of(const Cell* c) {
    return static_cast<Entry>(reinterpret_cast<std::uintptr_t>(c) / sizeof(Cell));
  }
  /// Where the node of an entry lies, seen from one that is less than half a terabyte away.
  static std::uintptr_t address(Entry entry, const Cell* from) {
    const std::int64_t slots = static_cast<std::int32_t>(entry - entry_of(from));
    return reinterpret_cast<std::uintptr_t>(from) +
           static_cast<std::uintptr_t>(slots * std::int64_t{sizeof(Cell)});
  }

  std::ptrdiff_t size() const { return static_cast<std::ptrdiff_t>(entries_.size()); }
  Entry operator[](std::ptrdiff_t i) const { return entries_[static_cast<std::size_t>(i)]; }

  /// Makes room for the nodes of a walk backwards, behind the entries that there are. The walk can
  /// read those to their end: it never has more nodes before it than entries unread.
  void begin_recording(std::int32_t nb_nodes);
  void record(const Cell* c) { record(entry_of(c)); }
  void record(Entry entry) {
    if (begin_ > 0) entries_[--begin_] = entry;
  }
  void end_recording(std::uint64_t revision);
  /// Follows a change of the mesh. Needs: the history was that of the list before.
  ///
  /// @param heads  the first nodes of the stretches before, 0 where there was none
  /// @param come   to each stretch, at the head, in this order
  /// @param gone   nodes that have left
  void follow(std::span<const Entry> heads, std::span<const std::vector<Entry>> come,
              std::span<const Entry> gone, std::uint64_t revision, ProgressTeller& progress);
  /// Whether it holds so many nodes, and no other has come or gone since.
  bool is_of(std::uint64_t revision, std::int32_t nb_nodes) const {
    return revision == revision_ && size() == nb_nodes;
  }
  /// Gives the memory back.
  void forget() { std::vector<Entry>().swap(entries_); }

 private:
  std::vector<Entry> entries_;
  std::size_t begin_ = 0;       ///< of what is being recorded
  std::uint64_t revision_ = 0;  ///< of the mesh
};

// ---------------------------------------------------------------------------------------------
// Walks
// ---------------------------------------------------------------------------------------------

/// The first lines of a node's record.
VELMAR_2D_ALWAYS_INLINE void prefetch_lines(const Cell* c, std::size_t nb_lines) {
  if (c == nullptr) return;
  for (std::size_t i = 0; i < nb_lines; ++i) {
    prefetch(reinterpret_cast<const std::byte*>(c) + i * cache_line);
  }
}

/// Prefetches the corners of the squares and diamonds that could get a centre next to c, as far as
/// they are no neighbours of c. Reads the links of c and of its neighbours.
VELMAR_2D_ALWAYS_INLINE void prefetch_far_corners(const Cell& c) {
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* corner = link(c, d).cell();
    if (corner == nullptr || !link(c, d + 1).empty()) continue;
    const auto far = reinterpret_cast<std::uintptr_t>(link(*corner, d + 2).cell());  // 0: none
    prefetch(reinterpret_cast<const void*>(far));
    prefetch(reinterpret_cast<const void*>(far + cache_line));
  }
}

/// What is read first of the neighbours of c.
VELMAR_2D_ALWAYS_INLINE void prefetch_neighbours(const Cell& c) {
  for (int d = 0; d < nb_directions; ++d) prefetch_lines(link(c, d).cell(), 2);
}

/// The far corner of a regular square around c, the first one that is tried. No link of c leads
/// there. Reads the links of c and of a neighbour.
VELMAR_2D_ALWAYS_INLINE void prefetch_corner_of_square(const Cell& c) {
  if (c.reserve != 4) return;
  const int to_a = c.level % 2 == 0 ? north : north_east;
  const Cell* a = link(c, to_a).cell();
  if (a != nullptr) prefetch(link(*a, to_a + 2).cell());
}

/// A walk through the stretches of a list, one after the other:
///
///     Walk walk = Walk::to_refine(history);
///     for (Cell& c : walk(first_of_stretch)) ...
///
/// The node after the current one is taken down before the loop's body runs, which may remove the
/// current one and insert others at the heads of stretches.
///
/// Runs a few nodes ahead of itself and prefetches what will be read there. Nodes in the history
/// are known long before. New ones mostly lie one slot apart, so that the place of one further
/// ahead can be guessed, unless the walk was told all its nodes; a wrong guess costs nothing but
/// the prefetch.
class Walk {
 public:
  /// Forwards, for a pass that reads fields of most nodes and changes the mesh around some.
  static Walk to_refine(const TraversalHistory& history) {
    return {&Cell::next, history, 0, 1, Reads::fields};
  }
  /// Forwards from the node with this number: reads fields of the nodes alone.
  static Walk to_ask(const TraversalHistory& history, std::ptrdiff_t number = 0) {
    return {&Cell::next, history, number, 1, Reads::record};
  }
  /// Backwards, likewise; records the nodes that stay, from begin_recording() on.
  static Walk to_coarsen(TraversalHistory& history) {
    Walk walk{&Cell::prev, history, history.size() - 1, -1, Reads::fields};
    walk.recorded_ = &history;
    return walk;
  }
  /// Forwards from the node with this number, for derivatives: reads all neighbours of all nodes.
  static Walk to_derive(const TraversalHistory& history, std::ptrdiff_t number = 0) {
    return {&Cell::next, history, number, 1, Reads::neighbours};
  }
  /// Backwards, quick; records all nodes, from begin_recording() on.
  static Walk to_record(TraversalHistory& history) {
    Walk walk = to_list(history);
    walk.recorded_ = &history;
    return walk;
  }
  /// Forwards, quick, for those who tell the nodes to others.
  static Walk to_share(const TraversalHistory& history) {
    return {&Cell::next, history, 0, 1, Reads::list};
  }
  /// Backwards, quick: reads the list alone, and so is at the next node soon.
  static Walk to_list(const TraversalHistory& history) {
    return {&Cell::prev, history, history.size() - 1, -1, Reads::list};
  }
  /// A walk through newcomers, which the history does not know.
  static Walk to_list_newcomers(const TraversalHistory& history) {
    return {&Cell::prev, history, -1, -1, Reads::list};
  }

  bool goes_forwards() const { return direction_ > 0; }

  /// Tells what the next stretch consists of, in the order of the walk.
  void know(std::span<const Cell* const> nodes) {
    known_ = nodes;
    next_known_ = 0;
  }

  /// Told at each node: whether the mesh is about to be changed here. Then it will probably be at
  /// the next nodes too, and more of them is prefetched.
  void changes_mesh_here(bool changes) { busy_ = changes; }
  /// Told at the last node of interest of a stretch.
  void end_here() { following_ = nullptr; }
  /// Told where the current node has been removed.
  void removed_node() { removed_ = true; }

  class Iterator {
   public:
    explicit Iterator(Walk* walk) : walk_(walk) {}
    Cell& operator*() const { return *walk_->current_; }
    Iterator& operator++() {
      walk_->go_on();
      return *this;
    }
    bool operator!=(std::nullptr_t) const { return walk_->current_ != nullptr; }

   private:
    Walk* walk_;
  };
  struct Stretch {
    Walk* walk;
    Iterator begin() const { return Iterator(walk); }
    static std::nullptr_t end() { return nullptr; }
  };
  /// The stretch that begins, in the order of the walk, with this node, which may be none.
  Stretch operator()(Cell* first) {
    begin_stretch(first);
    return {this};
  }

 private:
  /// What the loop reads at each node: more and more.
  enum class Reads { list, record, fields, neighbours };

  static constexpr int near_ahead = 4, far_ahead = 8, guessed_ahead = 6, entries_ahead = 8,
                       quick_entries_ahead = 32, corners_ahead = 2;

  Walk(Cell* Cell::*step, const TraversalHistory& history, std::ptrdiff_t start,
       std::ptrdiff_t direction, Reads reads)
      : step_(step), history_(&history), expected_(start), direction_(direction), reads_(reads) {
    if (reads == Reads::neighbours) busy_ = true;
  }

  void begin_stretch(Cell* first) {
    current_ = far_ = near_ = corner_ = first;
    removed_ = false;
    if (reads_ != Reads::neighbours) busy_ = direction_ > 0;
    if (first == nullptr) return;
    prefetch_after(*first, *first);
    for (int i = 0; i < far_ahead; ++i) advance_far(true);
    for (int i = 0; i < near_ahead; ++i) advance_near(true);
    for (int i = 0; i < corners_ahead && corner_ != nullptr; ++i) corner_ = corner_->*step_;
    arrive();
  }

  void go_on() {
    if (recorded_ != nullptr && !removed_) recorded_->record(current_);
    removed_ = false;
    current_ = following_;
    if (current_ != nullptr) arrive();
  }

  void arrive() {
    following_ = current_->*step_;
    advance_far(busy_);
    if (reads_ < Reads::fields) return;
    advance_near(busy_);
    if (reads_ == Reads::neighbours) {
      advance_corner();
    } else if (busy_ && direction_ > 0 && following_ != nullptr) {
      prefetch_far_corners(*following_);
    }
  }

  bool reads_links(const Cell& c) const { return direction_ > 0 && c.reserve != 4; }
  static std::uintptr_t address_of(const Cell* c) { return reinterpret_cast<std::uintptr_t>(c); }
  VELMAR_2D_ALWAYS_INLINE static void prefetch_at(std::uintptr_t address) {
    prefetch(reinterpret_cast<const void*>(address));
  }

  /// The next node but a few comes into sight: its first line tells whether more of it is needed.
  VELMAR_2D_ALWAYS_INLINE void advance_far(bool busy) {
    if (far_ == nullptr) return;
    Cell* following = far_->*step_;
    if (following != nullptr) prefetch_after(*following, *far_);
    if (reads_ >= Reads::fields && (busy || reads_links(*far_))) {
      prefetch_at(address_of(far_) + cache_line);
    }
    if (reads_ >= Reads::fields && busy) prefetch_at(address_of(far_) + 2 * cache_line);
    far_ = following;
  }
  /// The neighbours of a node that is about to be reached.
  VELMAR_2D_ALWAYS_INLINE void advance_near(bool busy) {
    if (near_ == nullptr || reads_ < Reads::fields) return;
    near_ = near_->*step_;
    if (near_ == nullptr) return;
    if (busy && direction_ < 0) {
      for (int d = 0; d < nb_directions; ++d) prefetch_lines(link(*near_, d).cell(), 3);
    } else if (busy || reads_links(*near_)) {
      prefetch_neighbours(*near_);
    }
  }
  /// The far corner of a regular square, the first one that is tried. No link of the node leads
  /// there. The neighbours of this node have been prefetched a while ago, its own links before.
  VELMAR_2D_ALWAYS_INLINE void advance_corner() {
    if (corner_ == nullptr) return;
    const Cell& c = *corner_;
    corner_ = corner_->*step_;
    prefetch_corner_of_square(c);
  }

  bool in_history(std::ptrdiff_t i) const { return i >= 0 && i < history_->size(); }

  VELMAR_2D_ALWAYS_INLINE void prefetch_after(const Cell& c, const Cell& previous) {
    std::uintptr_t ahead = 0;
    if (in_history(expected_) && (*history_)[expected_] == TraversalHistory::entry_of(&c)) {
      const std::ptrdiff_t i =
          expected_ + direction_ * (reads_ == Reads::list ? quick_entries_ahead : entries_ahead);
      if (in_history(i)) ahead = TraversalHistory::address((*history_)[i], &c);
      expected_ += direction_;
    } else if (!known_.empty()) {
      while (next_known_ < known_.size() && known_[next_known_] != &c) ++next_known_;
      ahead = address_of(known_[std::min(next_known_ + entries_ahead, known_.size() - 1)]);
    } else {
      ahead = address_of(&c) + guessed_ahead * (address_of(&c) - address_of(&previous));
    }
    prefetch_at(ahead);
    // The size function is handed the indicators; removals and insertions read more there.
    if (reads_ != Reads::list) prefetch_at(ahead + 2 * cache_line);
  }

  Cell *current_ = nullptr, *following_ = nullptr;
  Cell *far_ = nullptr, *near_ = nullptr, *corner_ = nullptr;
  Cell* Cell::*step_;
  const TraversalHistory* history_;
  TraversalHistory* recorded_ = nullptr;
  std::ptrdiff_t expected_;  ///< number of the node that comes next in the history
  std::ptrdiff_t direction_;
  Reads reads_;
  std::span<const Cell* const> known_;
  std::size_t next_known_ = 0;
  bool busy_ = false, removed_ = false;
};

// ---------------------------------------------------------------------------------------------
// The nodes as they lie in the plane (space_order.cpp)
// ---------------------------------------------------------------------------------------------

/// An order for passes that read the neighbours of all nodes and change no mesh: nodes that are
/// close in the plane follow one another, along a curve, so that a node comes into the cache once.
/// In the order of the list it comes for itself and for each stretch of its neighbours.
///
/// To make it costs a little more than it saves one pass, so that the first pass through a mesh
/// goes without; the second one makes it, and it stays as long as the mesh is the same.
class SpaceOrder {
 public:
  /// Told that a pass through all nodes begins. Returns whether this order is there for it: not
  /// where the mesh has changed since the last one or is small, nor where memory is exhausted.
  bool begin_pass(Cell* mesh_beg, std::int32_t nb_nodes, std::uint64_t revision,
                  const Domain& domain, const TraversalHistory& history);
  /// Needs: the order is there for the pass that has begun.
  std::span<Cell* const> nodes() const { return nodes_; }
  /// Gives the memory back.
  void forget();

 private:
  bool make(Cell* mesh_beg, std::size_t nb_nodes, const Domain& domain,
            const TraversalHistory& history);

  std::vector<Cell*> nodes_;  ///< none: there is no order
  bool has_passed_ = false;
  std::uint64_t revision_ = 0;  ///< of the mesh that the last pass went through
};

// ---------------------------------------------------------------------------------------------
// The nodes of each stretch in an array (stretch_nodes.cpp)
// ---------------------------------------------------------------------------------------------

/// Lists the nodes of each stretch, the last one first: a node that comes enters its stretch at
/// the head, and so the array at its end.
///
/// The arrays stay from one update to the next, and are good as long as no node has come or gone in
/// between. All procedures that take memory may throw std::bad_alloc.
class StretchNodes {
 public:
  /// Lists all nodes of the split list, unless they are known. From then on none may leave the mesh
  /// but those whose entry is made none.
  void open(const std::vector<Handle>& level_end, const TraversalHistory& history,
            std::uint64_t revision, ProgressTeller& progress);
  bool is_open() const { return is_open_; }
  /// Notes a node that has just entered the head of its stretch: later it would have to be searched
  /// for in the memory. Needs: the arrays are open.
  void enter(const Cell& c);
  /// The nodes of a stretch, with those that have entered it since it was last asked for. The
  /// caller makes the entry of one that is removed none. Good until the next call.
  std::span<const Cell*> of_stretch(std::size_t stretch, Cell* last,
                                    const TraversalHistory& history, ProgressTeller& progress);
  void close(std::uint64_t revision);
  /// Gives the memory back.
  void forget();

 private:
  void list(std::size_t stretch, Cell* first, Walk& walk, ProgressTeller& progress);

  std::vector<std::vector<const Cell*>> stretches_;
  std::uint64_t revision_ = 0;  ///< of the mesh that the closed arrays are good for; 0: of none
  bool is_open_ = false, has_room_ = true;
};

// ---------------------------------------------------------------------------------------------
// Weights of fits (fit_operators.cpp)
// ---------------------------------------------------------------------------------------------

/// Weights of a stencil, per unit of its lattice. Nothing is set from the start: most workspaces
/// never use theirs.
struct FitOperator {
  std::uint64_t key;  ///< the shape of the stencil, packed
  bool accepted;      ///< by the centred criterion; the weights are set then only
  /// Of each row but the node's, for its value less that of the node: dx, dy, dx2, dy2, dxdy.
  std::array<std::array<double, 5>, 8> weights;
};

/// The operators that a mesh has met, by key. Any number of threads may look up and add at the same
/// time: what is there stays, and stays the same, until the mesh is gone.
class FitOperators {
 public:
  FitOperators() = default;
  FitOperators(const FitOperators&) = delete;
  FitOperators& operator=(const FitOperators&) = delete;
  ~FitOperators();

  /// The operator of a key other than 0, or nullptr.
  const FitOperator* find(std::uint64_t key) const;
  /// Keeps a copy. nullptr where there is no place or no memory for it.
  const FitOperator* keep(const FitOperator& op);
  /// Gives the memory back. Needs: no one else looks up or adds.
  void forget();

 private:
  /// An operator lies in one of a few places behind that of its key. A moving front needs two
  /// hundred; at random a thousand and more occur.
  static constexpr std::size_t nb_places = 4096, places_of_a_key = 8;
  static std::size_t first_place(std::uint64_t key) {
    constexpr std::uint64_t golden_ratio = 0x9e3779b97f4a7c15;
    return static_cast<std::size_t>((key * golden_ratio) >> 52);
  }

  std::array<std::atomic<const FitOperator*>, nb_places> places_{};
};

}  // namespace velmar_2d::detail
