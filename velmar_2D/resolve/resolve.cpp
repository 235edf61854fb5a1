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
        at_once_(in_turn_ || !state.data_interpolation ? 1 : demands_.size()),
        releaser_(state, surplus_has_gone && resolution.slope == 0.0) {
    state.progress.begin("refining", state.nb_nodes);
  }

  void resolve(const size_function& size_fun) {
    SizesOneByOne sizes(size_fun);
    if (slope_ > 0.0) {
      resolve_graded([&](std::span<Cell* const> nodes, std::span<double> graded) {
        for (std::size_t i = 0; i < nodes.size(); ++i) graded[i] = sizes.at(*nodes[i]);
      });
      return;
    }
    if (!ask_ahead(size_fun)) ask_on_the_way(sizes);
    while (generation_end_ < nodes_.size()) ask_generation(size_fun);
    releaser_.release_surplus(!rings_.has_failed());
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
      ask_on_the_way(sizes);
    }
    for (std::size_t next = 0; next < nodes_.size();) {
      for (const double size : sizes_from(next, size_fun)) {
        prefetch_node_to_ask(nodes_, next);
        state_.progress.step();
        settle(*nodes_[next++], size);
      }
    }
    releaser_.release_surplus(!rings_.has_failed());
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
    releaser_.release_everywhere(false);
    state_.memory.release_empty_slabs();
  }

 private:
  /// Those that come while the walk goes on are not met. `use` tells whether it changes the mesh.
  template <typename Sizes, typename Use>
  void for_all_nodes(Walk& walk, Sizes& sizes, const Use& use) {
    for (std::size_t l = 0; l < releaser_.heads().size(); ++l) {
      sizes.begin_walk(l, walk);
      for (Cell& c : walk(releaser_.heads()[l])) walk.changes_mesh_here(use(c, ask(c, sizes)));
    }
  }
  template <typename Sizes>
  void ask_on_the_way(Sizes& sizes) {
    Walk walk = at_once_ == 1 ? Walk::to_refine(state_.history) : Walk::to_ask(state_.history);
    for_all_nodes(walk, sizes, [this](Cell& c, double size) { return note(c, size); });
    settle_demands();
  }
  /// Demands of the nodes before one that the size function fails at are settled.
  template <typename Sizes>
  double ask(const Cell& c, Sizes& sizes) {
    ++state_.update_statistics.visited;
    state_.progress.step();
    try {
      return sizes.at(c);
    } catch (...) {
      settle_demands();
      throw;
    }
  }
  /// Notes what a node wants. Demands are settled some at a time: most nodes have none, and what is
  /// read around those that have is known before. Where other callbacks have a say in what comes,
  /// it is one demand. Returns whether the mesh may have changed around the node.
  bool note(Cell& c, double size) {
    const Want want = wants_.of(c, size, 0);
    if (!is_demand(c, want)) {
      keep(c, want);
      return false;
    }
    demands_[nb_demands_++] = {&c, size};
    if (nb_demands_ == at_once_) settle_demands();
    return true;
  }
  void keep(Cell& c, const Want& want) {
    if (releaser_.knows_fallen() && may_release(c, want)) releaser_.note_fallen(c);
    c.wanted_level = static_cast<std::uint8_t>(want.kept);
  }

  /// Of nodes that have come while those before them were asked.
  void begin_generation() {
    derive_later_.derive(std::span(nodes_).subspan(generation_end_));
    generation_end_ = nodes_.size();
  }
  /// Asks all nodes there are before the first one comes, by several threads. False where it is
  /// better done on the way, or was given up.
  bool ask_ahead(const size_function& size_fun) {
    if (!asks_by_threads()) return false;
    join_sublists(state_);
    std::optional<AskedNodes> asked = ask_all_nodes(state_, size_fun, wants_, threads_);
    split_sublists(state_);
    if (!asked) {
      releaser_.forget_fallen();
      return false;
    }
    releaser_.note_fallen(std::move(asked->fallen));
    settle(*asked);
    return true;
  }
  bool asks_by_threads() const { return threads_ > 1 && !in_turn_; }
  void settle(const AskedNodes& asked) {
    state_.update_statistics.visited += asked.nb_asked;
    settle_demands(asked.demands);
    if (asked.thrown) std::rethrow_exception(asked.thrown);
  }
  /// Those that come meanwhile are the next generation.
  void ask_generation(const size_function& size_fun) {
    const std::size_t first = generation_end_;
    begin_generation();
    const auto generation = std::span<Cell* const>(nodes_).subspan(first);
    if (asks_by_threads()) {
      if (auto asked = ask_nodes(state_, generation, size_fun, wants_, threads_)) {
        settle(*asked);
        return;
      }
    }
    SizesOneByOne sizes(size_fun);
    for (std::size_t i = first; i < generation_end_; ++i) {
      prefetch_node_to_ask(nodes_, i);
      Cell& c = *nodes_[i];
      note(c, ask(c, sizes));
    }
    settle_demands();
  }
  void settle_demands() {
    settle_demands(std::span(demands_).first(std::exchange(nb_demands_, 0)));
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
    generation_end_ = nodes_.size();
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
    while (releaser_.release_everywhere(false, &*graded)) {
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

  /// Notes what a node wants, and gives it that.
  void settle(Cell& c, double size, std::int32_t lowest = 0) {
    const Want want = wants_.of(c, size, lowest);
    keep(c, want);
    const std::size_t nb_before = nodes_.size();
    if (want.level > c.level) rings_.raise(c, want.level);
    for (std::size_t i = nb_before; i < nodes_.size(); ++i) releaser_.note_come(*nodes_[i]);
    if (want.is_refused && c.level >= want.level) state_.update_statistics.refused += c.reserve;
  }

  State& state_;
  WantedLevels wants_;
  std::vector<Cell*> nodes_;        ///< to ask: all where they are listed, and those that come
  std::size_t generation_end_ = 0;  ///< of those that are being asked
  DeriveLater derive_later_;
  std::array<Demand, 1024> demands_;
  std::size_t nb_demands_ = 0;
  std::vector<double> sizes_;
  std::array<double, 64> few_sizes_{};
  RingMaker rings_;
  double slope_;
  std::int32_t threads_;
  bool in_turn_;         ///< nodes come and go in the order of the list, which others may notice
  std::size_t at_once_;  ///< so many demands are settled
  Releaser releaser_;
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
