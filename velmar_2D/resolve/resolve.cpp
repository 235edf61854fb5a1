// The least mesh in which no node is coarser than wanted.
//
//   1. Where anything else has changed the mesh, its rings are restored.
//   2. All nodes are asked for the spacing they want, and raised to it: rings around them are
//      completed. Nodes that come are asked in their turn, until none comes.
//   3. What nothing rests on and nothing wants goes, finest nodes first.
//
// The mesh is the smallest set of positions that holds the grid and, with each member p, the rings
// around it from its own ipos up to the wanted level. That is a closure: the order of the steps
// within 2 and within 3 does not matter to the positions.
#include "velmar_2D/resolve/resolve.hpp"

#include <limits>
#include <new>

namespace velmar_2d::detail {

namespace {

void remove(State& state, Cell& c) {
  Cell* node = &c;
  remove_by_level(state, node);
}

/// Whether there is the grid alone, of which nothing can go. Needs: lists are split.
bool has_nothing_to_release(const State& state) {
  return std::all_of(state.level_beg.begin() + 1, state.level_beg.end(),
                     [](const Handle& first) { return first.next == nullptr; });
}

class Resolver {
 public:
  /// Needs: a mesh in order.
  ///
  /// @param surplus_has_gone  since wants were asked for last
  Resolver(State& state, const Resolution& resolution, bool surplus_has_gone)
      : state_(state),
        wants_(state, resolution.margin),
        derive_later_(state, resolution.threads),
        rings_(state, nodes_, resolution.most_nodes),
        slope_(resolution.slope),
        threads_(Portions::useful_threads(state, resolution.threads)),
        in_turn_(conserves(state) || state.hooks.inserted || state.hooks.removing),
        knows_fallen_(surplus_has_gone && resolution.slope == 0.0) {
    state.progress.begin("refining", state.nb_nodes);
    nb_stretches_ = std::min(state.level_beg.size(), heads_.size());
    for (std::size_t l = 0; l < nb_stretches_; ++l) {
      heads_[l] = state.level_beg[l].next;
      head_entries_[l] = heads_[l] == nullptr ? 0 : TraversalHistory::entry_of(heads_[l]);
    }
  }

  void resolve(const size_function& size_fun) {
    SizesOneByOne sizes(size_fun);
    if (slope_ > 0.0) {
      resolve_graded([&](std::span<Cell* const> nodes, std::span<double> graded) {
        for (std::size_t i = 0; i < nodes.size(); ++i) graded[i] = sizes.at(*nodes[i]);
      });
      return;
    }
    if (!ask_ahead(size_fun)) settle_on_the_way(sizes);
    for (std::size_t begin = 0; begin < nodes_.size();) begin = settle_some(begin, sizes);
    release_surplus();
  }

  void resolve(const batch_size_function& size_fun) {
    if (slope_ > 0.0) {
      resolve_graded(size_fun);
      return;
    }
    try {
      list_nodes();
    } catch (const std::bad_alloc&) {
      SizesInSmallBatches sizes(size_fun);
      settle_on_the_way(sizes);
    }
    for (std::size_t next = 0; next < nodes_.size();) {
      for (const double size : sizes_from(next, size_fun)) {
        prefetch_newcomer(next);
        state_.progress.step();
        note_newcomer(next);
        settle(*nodes_[next++], size);
      }
    }
    release_surplus();
  }

  /// Without what rings would need.
  template <typename SizeFunction>
  void release_unwanted(const SizeFunction& size_fun) {
    auto sizes = without_memory(size_fun);
    Walk walk = Walk::to_refine(state_.history);
    for_all_nodes(walk, sizes, [&](Cell& c, double size) {
      c.wanted_level = static_cast<std::uint8_t>(wants_.of(c, size, 0).kept);
      return false;
    });
    release_everywhere();
    state_.memory.release_empty_slabs();
  }

 private:
  /// Those that come while the walk goes on are not met.
  template <typename Sizes, typename Use>
  void for_all_nodes(Walk& walk, Sizes& sizes, const Use& use) {
    for (std::size_t l = 0; l < nb_stretches_; ++l) {
      sizes.begin_walk(l, walk);
      for (Cell& c : walk(heads_[l])) {
        ++state_.update_statistics.visited;
        state_.progress.step();
        walk.changes_mesh_here(use(c, sizes.at(c)));
      }
    }
  }
  template <typename Sizes>
  void settle_on_the_way(Sizes& sizes) {
    Walk walk = Walk::to_refine(state_.history);
    for_all_nodes(walk, sizes, [this](Cell& c, double size) { return settle(c, size); });
  }

  /// Of nodes that have come while those before them were asked.
  void begin_generation() {
    derive_later_.derive(std::span(nodes_).subspan(generation_end_));
    generation_end_ = nodes_.size();
  }
  /// Asks all nodes there are before the first one comes, by several threads. False where it is
  /// better done on the way, or was given up.
  bool ask_ahead(const size_function& size_fun) {
    if (threads_ <= 1 || in_turn_) return false;
    join_sublists(state_);
    std::optional<AskedNodes> asked = ask_nodes(state_, size_fun, wants_, threads_);
    split_sublists(state_);
    if (!asked) {
      knows_fallen_ = false;
      return false;
    }
    if (knows_fallen_) fallen_.swap(asked->fallen);
    state_.update_statistics.visited += asked->nb_asked;
    settle_demands(asked->demands);
    if (asked->thrown) std::rethrow_exception(asked->thrown);
    return true;
  }
  /// Asks some newcomers from this number on, then gives them what they want: most want no more,
  /// and what is read around the others is known before. Where other callbacks have a say in what
  /// comes, it is one newcomer. Returns the number of the next one.
  template <typename Sizes>
  std::size_t settle_some(std::size_t begin, Sizes& sizes) {
    if (begin == generation_end_) begin_generation();
    const std::size_t at_once = in_turn_ || !state_.data_interpolation ? 1 : demands_.size();
    const std::size_t end = std::min(begin + at_once, generation_end_);
    std::size_t nb_demands = 0;
    std::exception_ptr thrown;
    for (std::size_t i = begin; i < end && !thrown; ++i) {
      prefetch_newcomer(i);
      Cell& c = *nodes_[i];
      state_.progress.step();
      ++state_.update_statistics.visited;
      note_newcomer(i);
      try {
        const double size = sizes.at(c);
        const Want want = wants_.of(c, size, 0);
        if (is_demand(c, size, want)) {
          demands_[nb_demands++] = {&c, size};
        } else {
          c.wanted_level = static_cast<std::uint8_t>(want.kept);
        }
      } catch (...) {
        thrown = std::current_exception();
      }
    }
    settle_demands(std::span(demands_).first(nb_demands));
    if (thrown) std::rethrow_exception(thrown);
    return end;
  }
  void settle_demands(std::span<const Demand> demands) {
    for (std::size_t i = 0; i < demands.size(); ++i) {
      prefetch_demand(demands, i);
      settle(*demands[i].node, demands[i].size);
    }
  }
  /// What is read at a node that is raised: it, its neighbours, the far corners of figures.
  VELMAR_2D_ALWAYS_INLINE static void prefetch_demand(std::span<const Demand> demands,
                                                      std::size_t i) {
    constexpr std::size_t node_ahead = 12, neighbours_ahead = 6, corners_ahead = 3;
    if (i + node_ahead < demands.size()) prefetch_lines(demands[i + node_ahead].node, 3);
    if (i + neighbours_ahead < demands.size()) {
      const Cell& c = *demands[i + neighbours_ahead].node;
      for (int d = 0; d < nb_directions; ++d) prefetch_lines(link(c, d).cell(), 3);
    }
    if (i + corners_ahead < demands.size()) {
      prefetch_far_corners(*demands[i + corners_ahead].node);
    }
  }

  /// A few nodes before it is asked.
  VELMAR_2D_ALWAYS_INLINE void prefetch_newcomer(std::size_t i) const {
    constexpr std::size_t ahead = 8;
    if (i + ahead < nodes_.size()) prefetch_lines(nodes_[i + ahead], 2);
  }

  void list_nodes() {
    auto i = static_cast<std::size_t>(state_.nb_nodes);
    state_.progress.resize<Cell*>(nodes_, i);
    Walk walk = Walk::to_list(state_.history);
    for (std::size_t l = state_.level_end.size(); l-- > 0;) {
      for (Cell& c : walk(state_.level_end[l].next)) {
        if (i == 0) list_was_changed(state_, "resolve_mesh");
        nodes_[--i] = &c;
        state_.progress.step();
      }
    }
    if (i > 0) list_was_changed(state_, "resolve_mesh");
    nb_listed_ = generation_end_ = nodes_.size();
  }

  /// Sizes of the nodes from this number on; of a few of them where there is no memory for more.
  template <typename BatchFunction>
  std::span<const double> sizes_from(std::size_t begin, const BatchFunction& size_fun) {
    if (begin == generation_end_) begin_generation();
    const std::size_t n = generation_end_ - begin;
    std::span<double> sizes;
    try {
      sizes_.clear();
      state_.progress.resize(sizes_, n, std::numeric_limits<double>::quiet_NaN());
      sizes = sizes_;
    } catch (const std::bad_alloc&) {
      sizes = std::span(few_sizes_).first(std::min(n, few_sizes_.size()));
      std::fill(sizes.begin(), sizes.end(), std::numeric_limits<double>::quiet_NaN());
    }
    size_fun(std::span<Cell* const>(nodes_).subspan(begin, sizes.size()), sizes);
    state_.update_statistics.visited += static_cast<std::int64_t>(sizes.size());
    return sizes;
  }

  /// As the others, with all sizes at hand at any time.
  template <typename BatchFunction>
  void resolve_graded(const BatchFunction& size_fun) {
    const auto take_memory = [this](const auto& step) {
      try {
        step();
      } catch (const std::bad_alloc&) {
        allocation_failed(state_,
                          static_cast<std::size_t>(state_.nb_nodes) * sizeof(Lattice::Entry));
      }
    };
    std::optional<GradedSizes> graded;
    take_memory([&] {
      list_nodes();
      graded.emplace(state_, slope_);
    });
    while (graded->size() < nodes_.size()) {
      const std::span<const double> sizes = sizes_from(graded->size(), size_fun);
      take_memory([&] {
        for (const double size : sizes) graded->add(*nodes_[graded->size()], size);
      });
      settle_all(*graded);
    }
    // Without a node that goes the others may want less.
    while (release_everywhere(&*graded)) {
      graded->forget_grading();
      settle_all(*graded);
    }
  }

  void settle_all(GradedSizes& graded) {
    graded.grade();
    state_.update_statistics.refused = 0;
    for (std::size_t i = 0; i < graded.size(); ++i) {
      state_.progress.step();
      if (Cell* c = graded.cell_of(i))
        settle(*c, graded.size_of(i), graded.has_own(i) ? 0 : c->level);
    }
  }

  /// Notes what a node wants, and gives it that. Returns whether that changes the mesh.
  bool settle(Cell& c, double size, std::int32_t lowest = 0) {
    const Want want = wants_.of(c, size, lowest);
    if (knows_fallen_ && may_release(c, want)) note_fallen(c);
    c.wanted_level = static_cast<std::uint8_t>(want.kept);
    const bool raising = want.level > c.level;
    if (raising) rings_.raise(c, want.level);
    if (want.is_refused && c.level >= want.level) state_.update_statistics.refused += c.reserve;
    return raising;
  }

  /// For the history of walks, if it is asked: the list of all nodes is not.
  void note_newcomer(std::size_t number) {
    if (number < nb_listed_) return;
    const Cell& c = *nodes_[number];
    try {
      come_to_[static_cast<std::size_t>(c.ipos)].push_back(TraversalHistory::entry_of(&c));
    } catch (const std::bad_alloc&) {
      knows_come_ = false;
    }
  }

  void note_fallen(Cell& c) {
    try {
      fallen_.push_back(&c);
    } catch (const std::bad_alloc&) {
      knows_fallen_ = false;
    }
  }

  void release_surplus() {
    // Where much has changed, a walk through all nodes is faster.
    if (!knows_fallen_ || are_many(fallen_.size(), static_cast<std::size_t>(state_.nb_nodes))) {
      release_everywhere();
      return;
    }
    try {
      release_around_fallen();
    } catch (const std::bad_alloc&) {
      knows_come_ = false;  // the heads may have gone
      release_everywhere();
      return;
    }
    if (nodes_.size() == nb_listed_ && gone_.empty()) return;
    if (!knows_come_) {
      state_.history.forget();  // the walks are slower without it, that is all
      return;
    }
    state_.history.follow(std::span(head_entries_).first(nb_stretches_), come_to_, gone_,
                          state_.progress);
  }

  /// Stretches downwards. Returns whether a node went.
  ///
  /// Nodes that have come are wanted, or rested on, unless graded wants have changed since: they
  /// are left out where they are known.
  bool release_everywhere(GradedSizes* graded = nullptr) {
    const std::int32_t nb_nodes_before = state_.nb_nodes;
    const bool leaves_out = graded == nullptr && knows_come_ && !rings_.has_failed();
    Walk walk = Walk::to_coarsen(state_.history);
    const std::size_t nb_left_out = leaves_out ? nodes_.size() - nb_listed_ : 0;
    state_.progress.begin("coarsening", state_.nb_nodes - static_cast<std::int64_t>(nb_left_out));
    state_.history.begin_recording(state_.nb_nodes);
    for (std::size_t l = state_.level_end.size(); l-- > 0;) {
      const Cell* head = l < nb_stretches_ ? heads_[l] : nullptr;
      Cell* last = leaves_out && head == nullptr ? nullptr : state_.level_end[l].next;
      for (Cell& c : walk(last)) {
        if (leaves_out && &c == head) walk.end_here();
        state_.progress.step();
        const bool removing = is_surplus(c);
        walk.changes_mesh_here(removing);
        if (!removing) continue;
        if (graded != nullptr) graded->remove(c);
        remove(state_, c);
        walk.removed_node();
      }
      if (!leaves_out || l >= nb_stretches_) continue;
      for (const TraversalHistory::Entry entry : come_to_[l]) state_.history.record(entry);
    }
    state_.history.end_recording();
    return state_.nb_nodes < nb_nodes_before;
  }

  /// Where wants have fallen, and on from there. All others are needed as before.
  void release_around_fallen() {
    state_.progress.begin("coarsening", static_cast<std::int64_t>(fallen_.size()));
    for (const Cell* fallen : fallen_) {
      const Cell& p = *fallen;
      state_.progress.step();
      for (int d = 0; d < nb_directions; ++d) {
        Cell* linked = link(p, d).cell();
        if (linked != nullptr && linked->ipos > p.ipos) await_removal(*linked);
      }
    }
    release_waiting();
  }
  /// Removals make more.
  void release_waiting() {
    for (std::size_t next = 0; next < surplus_.size();) {
      Cell& c = *surplus_[next++];
      state_.progress.step();
      std::array<Cell*, 4> parents{};
      for (int d = c.ipos % 2; d < nb_directions; d += 2) {
        parents[static_cast<std::size_t>(d / 2)] = link(c, d).cell();
      }
      note_gone(c);
      remove(state_, c);
      for (Cell* parent : parents) {
        if (parent != nullptr) await_removal(*parent);
      }
    }
    surplus_.clear();
  }
  void await_removal(Cell& c) {
    if ((c.wanted_level & is_waiting) != 0 || !is_surplus(c)) return;
    surplus_.push_back(&c);
    c.wanted_level |= is_waiting;
  }
  void note_gone(const Cell& c) {
    try {
      gone_.push_back(TraversalHistory::entry_of(&c));
    } catch (const std::bad_alloc&) {
      state_.history.forget();  // the walks are slower without it, that is all
    }
  }

  State& state_;
  WantedLevels wants_;
  std::size_t nb_stretches_;                             ///< none above holds nodes
  std::array<Cell*, highest_wanted_level + 1> heads_{};  ///< of the stretches, at first
  std::array<TraversalHistory::Entry, highest_wanted_level + 1> head_entries_{};
  std::vector<TraversalHistory::Entry> gone_;
  std::vector<Cell*> nodes_;  ///< to ask: all where they are listed, and those that come
  std::size_t nb_listed_ = 0;
  std::size_t generation_end_ = 0;  ///< of those that are being asked
  DeriveLater derive_later_;
  /// Those that have come, by stretch.
  std::array<std::vector<TraversalHistory::Entry>, highest_wanted_level + 1> come_to_;
  std::array<Demand, 1024> demands_;  ///< of newcomers that are asked at once
  std::vector<Cell*> fallen_, surplus_;
  std::vector<double> sizes_;
  std::array<double, 64> few_sizes_{};
  RingMaker rings_;
  double slope_;
  std::int32_t threads_;
  bool in_turn_;            ///< nodes come and go in the order of the list, which others may notice
  bool knows_come_ = true;  ///< no memory was short for those that have come
  bool knows_fallen_;       ///< all that may go is around those whose wants have fallen
};

/// What the next resolve can rely on, also where this one is left by an exception.
class OrderAtEnd {
 public:
  explicit OrderAtEnd(State& state)
      : is_in_order(state.resolved_revision == state.mesh_revision),
        surplus_has_gone(is_in_order && state.surplus_has_gone),
        state_(state) {}
  OrderAtEnd(const OrderAtEnd&) = delete;
  OrderAtEnd& operator=(const OrderAtEnd&) = delete;
  ~OrderAtEnd() {
    state_.resolved_revision = is_in_order ? state_.mesh_revision : 0;
    state_.surplus_has_gone = surplus_has_gone;
  }

  bool is_in_order, surplus_has_gone;

 private:
  State& state_;
};

class ResolveUpdate {
 public:
  ResolveUpdate(State& state, const Resolution& resolution, bool with_derivatives)
      : state_(state),
        resolution_(resolution),
        with_derivatives_(with_derivatives),
        remap_at_end_(state),
        count_at_end_(state),
        join_at_end_(state),
        order_(state) {}

  template <typename SizeFunction>
  void run(const SizeFunction& size_fun) {
    if (resolution_.slope == 0.0) {  // sizes of their own do not tell which nodes graded ones want
      try {
        const AnotherWay another_way(state_);
        resolve(size_fun);
        return;
      } catch (const Exhausted&) {
        make_room(size_fun);
      }
    }
    resolve(size_fun);
  }

 private:
  template <typename SizeFunction>
  void resolve(const SizeFunction& size_fun) {
    if (!state_.lists_are_split()) split_sublists(state_);
    if (!order_.is_in_order) {
      if (restore_rings(state_, resolution_.most_nodes)) count_at_end_.links_changed();
      order_.is_in_order = true;
    }
    if (with_derivatives_) {
      compute_data_at_all_nodes(state_, resolution_.threads);  // joins the list
      split_sublists(state_);
    }
    const bool surplus_has_gone = order_.surplus_has_gone || has_nothing_to_release(state_);
    order_.surplus_has_gone = false;
    Resolver resolver(state_, resolution_, surplus_has_gone);
    resolver.resolve(size_fun);
    order_.surplus_has_gone = true;
  }

  /// Nodes that are not wanted go first, as far as that can be told.
  template <typename SizeFunction>
  void make_room(const SizeFunction& size_fun) {
    if (!state_.lists_are_split()) split_sublists(state_);
    if (order_.is_in_order) {
      Resolver(state_, resolution_, false).release_unwanted(size_fun);
    } else {
      coarsen_to_make_room(state_, size_fun);
    }
    state_.update_statistics.refused = 0;
  }

  State& state_;
  const Resolution& resolution_;
  bool with_derivatives_;
  RemapAtEnd remap_at_end_;
  CountAtEnd count_at_end_;
  JoinAtEnd join_at_end_;
  OrderAtEnd order_;
};

}  // namespace

void resolve_mesh_body(State& state, const size_function& size_fun, const Resolution& resolution,
                       bool with_derivatives) {
  ResolveUpdate(state, resolution, with_derivatives).run(size_fun);
}
void resolve_mesh_body(State& state, const batch_size_function& size_fun,
                       const Resolution& resolution, bool with_derivatives) {
  ResolveUpdate(state, resolution, with_derivatives).run(size_fun);
}

}  // namespace velmar_2d::detail
