// All that belongs to one mesh, and the procedures that keep its list, its nodes and its sides.
// Every procedure of this room and of those above is handed the state it works on; nothing about a
// mesh is remembered elsewhere. Never installed.
#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "velmar_2D/memory/memory.hpp"

namespace velmar_2d::detail {

class LinkSources;
class Remapping;
struct State;

/// The nodes of the grid by their place, for those who begin a search there. Made when it is first
/// asked, by whichever reader comes first, and again where a node of the grid has come or gone.
class GridNodes {
 public:
  /// A node of the grid that is among the nearest, or some other node where the grid has none.
  /// Needs: a mesh, and a point in its rectangle.
  const Cell* nearest(const State& state, Point p);
  /// Told where a node of the grid comes or goes. Needs: no one else asks.
  void forget() { made_.store(false, std::memory_order_relaxed); }

 private:
  void make(const State& state);

  std::mutex making_;
  std::atomic<bool> made_ = false;
  std::size_t columns_ = 0, rows_ = 0;
  std::vector<const Cell*> nodes_;  ///< row by row from the south-west
};

/// Which nodes derivatives prefer where several are as near: the oldest, or those farthest to the
/// south, and of those to the east.
enum class CandidateOrder { by_age, by_place };

/// One mesh. Made and gone with it, so that forgetting is destruction.
struct State {
  State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State();

  // The node list. It runs by stretches: all nodes with ipos 0, then those with ipos 1, and so on.
  Cell *mesh_beg = nullptr, *mesh_end = nullptr;
  std::vector<Handle> level_beg, level_end;  ///< by ipos; empty while there is no mesh
  std::array<std::int32_t, 2> level_range{0, 0};
  std::int32_t level_max = -1;
  std::int32_t nb_nodes = 0;
  std::int64_t next_id = 1;
  std::uint64_t mesh_revision = 0;

  Domain domain;
  /// Records by side (n, e, s, w) and kind; cuts have one where a window ends inside.
  std::array<std::array<Boundary*, 4>, 4> side_records{};
  std::array<std::array<Boundary, 4>, 4> own_side_records{};  ///< of a mesh that is an object

  std::int32_t n_cell_data = 0;
  bool data_interpolation = true;
  init_data_function init_data_ptr;
  Transfer transfer = Transfer::first;
  NodeHooks hooks;
  bc_type_function bc_type_ptr;
  Handlers handlers;
  UpdateStatistics update_statistics;
  std::function<bool(const Cell&)> counts_refusal;  ///< around which nodes; empty: all
  mutable ProgressTeller progress;                  ///< also of what changes no mesh

  /// Whether some link may not be mutual any more, because a caller inserted a node among nodes
  /// that do not surround it. From then on removals look for links to the node; false again with
  /// the next mesh.
  bool links_may_be_one_way = false;
  /// The mesh_revision that the last resolve left; while it is that, only parents are linked from
  /// whole rings, and levels count those. 0: unknown.
  std::uint64_t resolved_revision = 0;
  bool surplus_has_gone = false;              ///< it ended well: all nodes are wanted, or rested on
  bool gathers_link_sources = false;          ///< many nodes are about to be removed
  std::unique_ptr<LinkSources> link_sources;  ///< made when the first of them asks
  bool has_another_way = false;               ///< see AnotherWay
  bool derives_later = false;                 ///< see DeriveLater
  Remapping* remapping = nullptr;             ///< notes what changes; none: nothing is remapped
  bool is_of_piece = false;                   ///< which remaps data with others

  /// By place while resolve makes the mesh, whose nodes come in an order that depends on where one
  /// began; by age from the next plain update on.
  CandidateOrder candidate_order = CandidateOrder::by_age;

  std::string_view in_use_by;  ///< the operation that is changing the mesh; empty: none, see InUse
  bool is_refusing = false;    ///< another one, which a callback or a handler has called
  bool is_orphan = false;      ///< its Mesh has gone meanwhile: the operation deletes it at its end

  NodeMemory memory;
  TraversalHistory history;
  StretchNodes stretch_nodes;
  SpaceOrder space_order;
  mutable FitOperators fit_operators;  ///< a cache: does not count as a change of the mesh
  mutable GridNodes grid_nodes;        ///< likewise

  /// For those who may outlive the mesh: leads to none when it has gone.
  std::shared_ptr<State*> self = std::make_shared<State*>(this);

  // The caller's own, see velmar_2D.hpp.
  std::vector<Handle> tmp_beg, tmp_end;
  double grad_data = 0.0, grad2_data = 0.0;

  /// Whether the node list is cut into one list per stretch.
  bool lists_are_split() const { return mesh_beg == nullptr && nb_nodes > 0; }
};

/// 2^level as areas and second derivatives count it: an object exactly, the free procedures with
/// power_of_2().
inline double power_of_2(const State& state, std::int32_t level) {
  constexpr std::int32_t highest_alike = 30;
  return level > highest_alike && state.handlers.of_object() ? exact_power_of_2(level)
                                                             : power_of_2(level);
}

/// The mesh that the free procedures and the library-wide variables are the window of.
State& default_state();

// ---------------------------------------------------------------------------------------------
// Making and deleting (init_mesh.cpp, delete_mesh.cpp)
// ---------------------------------------------------------------------------------------------

/// @param window  what is made of it; none: all
void init_mesh(State& state, bc_type_function bc_type, std::int32_t nx, std::int32_t ny,
               std::int32_t subdiv_max, double& y_max, const Window* window = nullptr);
void delete_mesh(State& state);

/// Ends the process with a message that names the operation if there is no mesh.
void require_mesh(const State& state, std::string_view operation);

/// Held by every operation that changes the mesh or its list. Callbacks and handlers that come back
/// in the middle of one are refused, and so is a mesh whose level arrays do not fit `level_max`.
class InUse {
 public:
  /// @param operation     as callers know it; never goes
  /// @param needs_arrays  false: makes or deletes them
  InUse(State& state, std::string_view operation, bool needs_arrays = true);
  ~InUse() noexcept(false);
  InUse(const InUse&) = delete;
  InUse& operator=(const InUse&) = delete;

 private:
  State& state_;
  int exceptions_before_;
};
/// Refuses an operation where the mesh is in use.
void require_no_use(State& state, std::string_view operation);
/// Deletes the state of a mesh that is an object, at once or when no one uses it any more.
void delete_state(State* state);

/// Memory is exhausted, in an operation that can go on in another way.
struct Exhausted {
  std::size_t bytes;  ///< that were asked for
};

/// Exhausted memory is no end yet while this scope lasts: it leaves it as an Exhausted.
class AnotherWay {
 public:
  explicit AnotherWay(State& state) : state_(state) { state.has_another_way = true; }
  AnotherWay(const AnotherWay&) = delete;
  AnotherWay& operator=(const AnotherWay&) = delete;
  ~AnotherWay() { state_.has_another_way = false; }

 private:
  State& state_;
};
[[noreturn]] void allocation_failed(const State& state, std::size_t bytes);

// ---------------------------------------------------------------------------------------------
// Single nodes (nodes.cpp): the one place that creates them and the one that releases them
// ---------------------------------------------------------------------------------------------

/// A node with default fields, an id of its own and n_cell_data values of 0.0, for a stretch that
/// it has yet to enter; counts it.
Cell* new_cell(State& state, std::int32_t stretch);
/// Gives a node back and clears the caller's reference; counts it.
void release_cell(State& state, Cell*& c);
/// Gives back every node, in list order, and all that is remembered of them; leaves the list and
/// its stretches empty. Returns the number of nodes.
std::int32_t release_all_nodes(State& state);

/// Whether a link leads to this node. Nodes are the same where their ids are: a copy stands for its
/// original.
inline bool is_node(const Cell& c, const Cell* linked) {
  return linked == &c || (linked != nullptr && linked->id == c.id);
}

/// data(1) of a node; one without data counts as holding 0.0.
inline double first_data(const Cell& c) { return c.data.empty() ? 0.0 : c.data[0]; }

// ---------------------------------------------------------------------------------------------
// The list and its stretches (level_lists.cpp, split_join_sublists.cpp)
// ---------------------------------------------------------------------------------------------

void split_sublists(State& state);
void join_sublists(State& state);
/// Ends an operation that does not find the nodes it knows in the list.
[[noreturn]] void list_was_changed(const State& state, std::string_view operation);

/// Joins the list at the end of a scope that splits it, however the scope is left.
class JoinAtEnd {
 public:
  explicit JoinAtEnd(State& state) : state_(state) {}
  JoinAtEnd(const JoinAtEnd&) = delete;
  JoinAtEnd& operator=(const JoinAtEnd&) = delete;
  ~JoinAtEnd() {
    if (state_.lists_are_split()) join_sublists(state_);
  }

 private:
  State& state_;
};

/// Puts a node at the head of the stretch of its ipos, in the joined and in the split state.
void enter_stretch(State& state, Cell& c);
/// Takes a node out of its stretch, in the joined and in the split state.
void leave_stretch(State& state, Cell& c);

/// The last stretch that may hold nodes; `level_max`, unless a caller has written there.
inline std::int32_t highest_stretch(const State& state) {
  return std::min(state.level_max, static_cast<std::int32_t>(state.level_beg.size()) - 1);
}

/// Gives the level arrays room for a limit, keeping their entries.
void make_level_arrays(State& state, std::int32_t subdiv_max);
/// Ends the process if the limit lies above the deepest level whose nodes can be told apart.
void check_subdiv_max(const State& state, std::string_view operation, std::int32_t subdiv_max,
                      std::int32_t deepest);

// ---------------------------------------------------------------------------------------------
// Links (links.cpp)
// ---------------------------------------------------------------------------------------------

/// Which nodes link to a node, for the removal of many nodes of a mesh whose links may be one-way.
/// Entries may be out of date: whether a node still links to another is looked up there.
class LinkSources {
 public:
  explicit LinkSources(const State& state);
  /// Notes a new link, of a node that may be new itself.
  void add(const Cell* to, Cell* from);
  /// Empties all links to a node that is about to leave the mesh. False where memory was exhausted
  /// in the meantime, and not all sources are known.
  bool cut_links_to(const Cell* c);

 private:
  bool is_complete_ = true;
  std::vector<std::pair<const Cell*, Cell*>> sorted_;  ///< target and source, at first
  std::unordered_multimap<const Cell*, Cell*> later_;  ///< those that have come since
  std::unordered_set<const Cell*> gone_;               ///< sources that are no nodes any more
};

/// While this scope lasts, links to nodes that are removed are looked up and not searched for.
class GatherLinkSources {
 public:
  explicit GatherLinkSources(State& state) : state_(state) { state.gathers_link_sources = true; }
  GatherLinkSources(const GatherLinkSources&) = delete;
  GatherLinkSources& operator=(const GatherLinkSources&) = delete;
  ~GatherLinkSources();

 private:
  State& state_;
};

/// Links `from` to whatever replaces the node between them; notes if that cuts another link.
inline void relink(State& state, Cell& from, int direction, NeighbourLink to) {
  NeighbourLink& there = link(from, direction);
  if (!there.empty() && there != to) state.links_may_be_one_way = true;
  there = to;
  if (state.link_sources != nullptr && to.cell() != nullptr) {
    state.link_sources->add(to.cell(), &from);
  }
}
/// Takes a node out of the mesh and gives it back. Its neighbours no longer link to it.
void drop_cell(State& state, Cell*& c);

// ---------------------------------------------------------------------------------------------
// The list, portion by portion, for several threads (portions.cpp)
// ---------------------------------------------------------------------------------------------

/// The list in portions that can be walked at the same time. Where they begin is known from the
/// history of walks; that the list goes that way is seen as they are walked.
class Portions {
 public:
  static constexpr std::int32_t nodes_of_a_portion = 512;
  /// More threads would have nothing to do.
  static std::int32_t useful_threads(const State& state, std::int32_t threads) {
    return std::min(threads, state.nb_nodes / nodes_of_a_portion);
  }

  /// Needs: a joined list. Brings the history up to date where there is memory for it. May throw
  /// std::bad_alloc.
  explicit Portions(State& state);

  std::size_t nb_nodes() const { return nb_nodes_; }
  /// Calls `use` with each node of the portion that begins with this number in the list. False
  /// where it is not known, or the list goes another way.
  ///
  /// @param walk_from  the walk from a node with a number in the history
  template <typename Use>
  bool for_nodes(std::size_t begin, Walk (*walk_from)(const TraversalHistory&, std::ptrdiff_t),
                 const Use& use) const {
    const std::size_t place = begin / nodes_of_a_portion;
    if (place >= firsts_.size()) return false;
    std::size_t left = std::min<std::size_t>(nodes_of_a_portion, nb_nodes_ - begin);
    Walk walk = walk_from(history_, static_cast<std::ptrdiff_t>(begin));
    auto node = walk(firsts_[place]).begin();
    for (; left > 0 && node != nullptr; --left, ++node) use(*node);
    const Cell* after = node != nullptr ? &*node : nullptr;
    return left == 0 && after == (place + 1 < firsts_.size() ? firsts_[place + 1] : nullptr);
  }

 private:
  const TraversalHistory& history_;
  std::size_t nb_nodes_;
  std::vector<Cell*> firsts_;  ///< of the portions; none where the history is not that of the list
};

// ---------------------------------------------------------------------------------------------
// The nodes patch by patch (patches.cpp)
// ---------------------------------------------------------------------------------------------

/// Hands out all nodes once, in patches of such as are linked: for a pass through a mesh that has
/// changed, and is too large for the cache. Costs less than it saves from fewest_nodes on.
class Patches {
 public:
  static constexpr std::int32_t fewest_nodes = 300'000;

  /// May throw std::bad_alloc.
  ///
  /// @param shared  by several threads
  Patches(const NodeMemory& memory, bool shared);
  /// The next patch, in a room of the caller's; none when all have been handed out. May throw
  /// std::bad_alloc.
  std::span<Cell* const> next(std::vector<Cell*>& room);

 private:
  /// Blocks that lie side by side, but for small gaps.
  struct Region {
    std::uintptr_t first, last;
    std::size_t first_word;
  };

  std::atomic<std::uint64_t>* word_of(std::uintptr_t block);
  bool take(const Cell* c);
  Cell* take_first();

  bool is_shared_;
  std::vector<Region> regions_;
  std::vector<std::atomic<std::uint64_t>> left_;
  std::mutex mutex_;
  std::size_t region_ = 0, block_ = 0;  ///< before them none is left
};

// ---------------------------------------------------------------------------------------------
// Sides (sides.cpp)
// ---------------------------------------------------------------------------------------------

/// The record of a side that bc_type_ptr selects at (x, y), or an empty link where the kind is none
/// of the three. `direction` is the straight direction of the side.
NeighbourLink side_link(const State& state, int direction, double x, double y);

}  // namespace velmar_2d::detail
