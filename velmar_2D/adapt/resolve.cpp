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
#include <cmath>
#include <limits>
#include <new>
#include <optional>

#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// What a size means for a node.
struct Want {
  std::int32_t level;  ///< up to which rings are completed
  std::int32_t kept;   ///< up to which members of rings stay
  bool is_refused;     ///< the limit forbids what is wanted
};

class WantedLevels {
 public:
  WantedLevels(const State& state, double margin)
      : dist_0_(state.domain.dist_0),
        margin_ratio_(margin > 0.0 ? std::exp2(margin / 2.0) : 1.0),
        limit_(std::min(state.level_max, highest_wanted_level)) {}

  /// A size that is none wants the level that is there.
  Want of(const Cell& c, double size, std::int32_t lowest) const {
    if (!(size >= 0.0)) return {c.level, c.level, false};
    const double ratio = std::abs(dist_0_ / size);
    const std::int32_t level = level_wanted_by(ratio);
    const std::int32_t kept = margin_ratio_ == 1.0 ? level : level_wanted_by(ratio * margin_ratio_);
    return {std::clamp(level, lowest, limit_), std::clamp(kept, lowest, limit_), level > limit_};
  }

 private:
  double dist_0_, margin_ratio_;
  std::int32_t limit_;
};

/// Marks a node that waits to be removed, beside its wanted level.
constexpr std::uint8_t is_waiting = 0x80;
std::int32_t wanted_level(const Cell& c) { return c.wanted_level & ~is_waiting; }

/// Whether nothing rests on a node and no parent wants it. Needs: a mesh in order.
bool is_surplus(const Cell& c) {
  const std::int32_t ipos = c.ipos;
  if (ipos == 0 || c.level != ipos) return false;
  for (int d = 0; d < nb_directions; ++d) {
    const Cell* linked = link(c, d).cell();
    if (linked != nullptr && (linked->ipos > ipos || wanted_level(*linked) >= ipos)) return false;
  }
  return true;
}

void remove(State& state, Cell& c) {
  Cell* node = &c;
  if (c.ipos % 2 == 0) {
    remove_node_even_level(state, node);
  } else {
    remove_node_odd_level(state, node);
  }
}

class Resolver {
 public:
  Resolver(State& state, const Resolution& resolution)
      : state_(state),
        wants_(state, resolution.margin),
        rings_(state, nodes_, resolution.most_nodes),
        slope_(resolution.slope),
        was_in_order_(state.resolved_revision == state.mesh_revision) {
    state.resolved_revision = 0;
  }

  bool was_in_order() const { return was_in_order_; }

  void resolve(const size_function& size_fun) {
    const auto ask = [&](const Cell& c) {
      return size_fun(c.x, c.y, std::span(c.data.data(), c.data.size()), c.grad_data, c.grad2_data);
    };
    begin();
    if (slope_ > 0.0) {
      resolve_graded([&](std::span<Cell* const> nodes, std::span<double> sizes) {
        for (std::size_t i = 0; i < nodes.size(); ++i) sizes[i] = ask(*nodes[i]);
      });
      return;
    }
    const auto asked = [&](const Cell& c) {
      ++state_.update_statistics.visited;
      return ask(c);
    };
    Walk walk = Walk::to_refine(state_.history);
    // Those that come while the walk goes on are asked after it.
    for (const Handle& stretch : heads_) {
      for (Cell& c : walk(stretch.next)) walk.changes_mesh_here(settle(c, asked(c)));
    }
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
      prefetch_newcomer(i);
      settle(*nodes_[i], asked(*nodes_[i]));
    }
    release_surplus();
  }

  void resolve(const batch_size_function& size_fun) {
    begin();
    if (slope_ > 0.0) {
      resolve_graded(size_fun);
      return;
    }
    list_nodes();
    for (std::size_t next = 0; next < nodes_.size();) {
      const std::span<const double> sizes = sizes_from(next, size_fun);
      for (const double size : sizes) {
        prefetch_newcomer(next);
        settle(*nodes_[next++], size);
      }
    }
    release_surplus();
  }

 private:
  void begin() {
    try {
      heads_ = state_.level_beg;
      for (const Handle& head : heads_) {
        head_entries_.push_back(head.next == nullptr ? 0 : TraversalHistory::entry_of(head.next));
      }
    } catch (const std::bad_alloc&) {
      allocation_failed(state_.handlers, state_.level_beg.size() * sizeof(Handle));
    }
  }

  /// A few nodes before it is asked.
  void prefetch_newcomer(std::size_t i) const {
    constexpr std::size_t ahead = 8;
    if (i + ahead >= nodes_.size()) return;
    const auto* c = reinterpret_cast<const std::byte*>(nodes_[i + ahead]);
    prefetch(c);
    prefetch(c + cache_line);
  }

  void list_nodes() {
    auto i = static_cast<std::size_t>(state_.nb_nodes);
    reserve_nodes(state_, nodes_, i);
    nodes_.resize(i);
    Walk walk = Walk::to_list(state_.history);
    for (std::size_t l = state_.level_end.size(); l-- > 0;) {
      for (Cell& c : walk(state_.level_end[l].next)) nodes_[--i] = &c;
    }
    nb_listed_ = nodes_.size();
  }

  /// Sizes of the nodes from this number on.
  template <typename BatchFunction>
  std::span<const double> sizes_from(std::size_t begin, const BatchFunction& size_fun) {
    const std::size_t n = nodes_.size() - begin;
    try {
      sizes_.assign(n, std::numeric_limits<double>::quiet_NaN());
    } catch (const std::bad_alloc&) {
      allocation_failed(state_.handlers, n * sizeof(double));
    }
    size_fun(std::span<Cell* const>(nodes_).subspan(begin), std::span<double>(sizes_));
    state_.update_statistics.visited += static_cast<std::int64_t>(n);
    return sizes_;
  }

  /// As the others, with all sizes at hand at any time.
  template <typename BatchFunction>
  void resolve_graded(const BatchFunction& size_fun) {
    was_in_order_ = false;  // wants may have fallen anywhere
    list_nodes();
    const auto take_memory = [this](const auto& step) {
      try {
        step();
      } catch (const std::bad_alloc&) {
        allocation_failed(state_.handlers, nodes_.size() * sizeof(Lattice::Entry));
      }
    };
    std::optional<GradedSizes> graded;
    take_memory([&] { graded.emplace(state_, slope_); });
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
      if (Cell* c = graded.cell_of(i))
        settle(*c, graded.size_of(i), graded.has_own(i) ? 0 : c->level);
    }
  }

  /// Notes what a node wants, and gives it that. Returns whether that changes the mesh.
  bool settle(Cell& c, double size, std::int32_t lowest = 0) {
    const Want want = wants_.of(c, size, lowest);
    const std::int32_t before = wanted_level(c);
    c.wanted_level = static_cast<std::uint8_t>(want.kept);
    // Members up to level + 1 may be there, and what is wanted up to ipos concerns parents only.
    const bool may_release = want.kept < before && want.kept <= c.level && before > c.ipos;
    if (may_release && was_in_order_) push_node(state_, fallen_, &c);
    const bool raising = want.level > c.level;
    if (raising) rings_.raise(c, want.level);
    if (want.is_refused && c.level >= want.level) state_.update_statistics.refused += c.reserve;
    return raising;
  }

  void release_surplus() {
    // Where much has changed, a walk through all nodes is faster.
    constexpr std::size_t few = 12;  // one in so many
    if (!was_in_order_ || fallen_.size() > static_cast<std::size_t>(state_.nb_nodes) / few) {
      release_everywhere();
      return;
    }
    release_around_fallen();
    const std::span<Cell* const> come = std::span(nodes_).subspan(nb_listed_);
    if (!come.empty() || !gone_.empty()) state_.history.follow(head_entries_, come, gone_);
  }

  /// Stretches downwards. Returns whether a node went.
  bool release_everywhere(GradedSizes* graded = nullptr) {
    const std::int32_t nb_nodes_before = state_.nb_nodes;
    Walk walk = Walk::to_coarsen(state_.history);
    state_.history.begin_recording(state_.nb_nodes);
    for (std::size_t l = state_.level_end.size(); l-- > 0;) {
      for (Cell& c : walk(state_.level_end[l].next)) {
        const bool removing = is_surplus(c);
        walk.changes_mesh_here(removing);
        if (!removing) continue;
        if (graded != nullptr) graded->remove(c);
        remove(state_, c);
        walk.removed_node();
      }
    }
    state_.history.end_recording();
    return state_.nb_nodes < nb_nodes_before;
  }

  /// Where wants have fallen, and on from there. All others are needed as before.
  void release_around_fallen() {
    for (const Cell* fallen : fallen_) {
      const Cell& p = *fallen;
      for (int d = 0; d < nb_directions; ++d) {
        Cell* linked = link(p, d).cell();
        if (linked != nullptr && linked->ipos > p.ipos) await_removal(*linked);
      }
    }
    std::size_t next = 0;  // removals make more
    while (next < surplus_.size()) {
      Cell& c = *surplus_[next++];
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
  }
  void await_removal(Cell& c) {
    if ((c.wanted_level & is_waiting) != 0 || !is_surplus(c)) return;
    push_node(state_, surplus_, &c);
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
  std::vector<Handle> heads_;  ///< of the stretches, at first
  std::vector<TraversalHistory::Entry> head_entries_, gone_;
  std::vector<Cell*> nodes_;  ///< to ask: all where they are listed, and those that come
  std::size_t nb_listed_ = 0;
  std::vector<Cell*> fallen_, surplus_;
  std::vector<double> sizes_;
  RingMaker rings_;
  double slope_;
  bool was_in_order_;
};

template <typename SizeFunction>
void resolve(State& state, const SizeFunction& size_fun, const Resolution& resolution,
             bool with_derivatives) {
  CountAtEnd count_at_end(state);
  const JoinAtEnd join_at_end(state);
  split_sublists(state);
  Resolver resolver(state, resolution);
  if (!resolver.was_in_order() && restore_rings(state, resolution.most_nodes)) {
    count_at_end.links_changed();
  }
  if (with_derivatives) {
    compute_data_at_all_nodes(state, 1);  // joins the list
    split_sublists(state);
  }
  resolver.resolve(size_fun);
  state.resolved_revision = state.mesh_revision;
}

}  // namespace

void resolve_mesh_body(State& state, const size_function& size_fun, const Resolution& resolution,
                       bool with_derivatives) {
  resolve(state, size_fun, resolution, with_derivatives);
}
void resolve_mesh_body(State& state, const batch_size_function& size_fun,
                       const Resolution& resolution, bool with_derivatives) {
  resolve(state, size_fun, resolution, with_derivatives);
}

}  // namespace velmar_2d::detail
