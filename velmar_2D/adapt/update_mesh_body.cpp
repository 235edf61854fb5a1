// The two passes of an adaptation.
#include <limits>
#include <new>
#include <optional>

#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

enum class Memory { enough, none };

/// Asks for the wanted spacing of each node as a walk comes to it.
class SizesWithWalk : public SizesOneByOne {
 public:
  SizesWithWalk(State& /*state*/, const size_function& size_fun, Memory /*memory*/)
      : SizesOneByOne(size_fun) {}
  void node_removed() {}
  void end_update() {}
};

/// Asks for the wanted spacings of a whole stretch before it is walked; of a few nodes at a time
/// where there is no memory for more.
///
/// A walk meets just the nodes that are there when it begins: what refinement adds to its stretch
/// enters behind it, at the head, and coarsening removes no node but the one that it visits. Nor do
/// the values of a node change on the way. So the answers are those of SizesOneByOne.
class SizesInBatches {
 public:
  SizesInBatches(State& state, const batch_size_function& size_fun, Memory memory)
      : state_(state), nodes_of_mesh_(state.stretch_nodes), size_fun_(size_fun) {
    if (memory == Memory::none) {
      small_batches_.emplace(size_fun);
      return;
    }
    try {
      nodes_of_mesh_.open(state.level_end, state.history, state.mesh_revision, state.progress);
    } catch (const std::bad_alloc&) {
      end_without_memory(static_cast<std::size_t>(state.nb_nodes) * sizeof(void*));
    } catch (...) {
      nodes_of_mesh_.forget();
      throw;
    }
  }
  SizesInBatches(const SizesInBatches&) = delete;
  SizesInBatches& operator=(const SizesInBatches&) = delete;
  ~SizesInBatches() {
    if (nodes_of_mesh_.is_open()) nodes_of_mesh_.forget();  // an exception leaves the update
  }

  void begin_walk(std::size_t stretch, Walk& walk) {
    if (small_batches_) {
      small_batches_->begin_walk(stretch, walk);
      return;
    }
    try {
      nodes_ = nodes_of_mesh_.of_stretch(stretch, state_.level_end[stretch].next, state_.history,
                                         state_.progress);
      if (walk.goes_forwards()) {
        reversed_.assign(nodes_.rbegin(), nodes_.rend());
        nodes_ = reversed_;
        state_.progress.look_aside();
      }
      sizes_.clear();
      state_.progress.resize(sizes_, nodes_.size(), std::numeric_limits<double>::quiet_NaN());
    } catch (const std::bad_alloc&) {
      end_without_memory(nodes_.size() * (sizeof(void*) + sizeof(double)));
    }
    walk.know(nodes_);
    next_ = 0;
    if (!nodes_.empty()) size_fun_(nodes_, sizes_);
  }
  /// Needs: the nodes of the walk in their order; some may be left out.
  double at(const Cell& c) {
    if (small_batches_) return small_batches_->at(c);
    while (next_ < nodes_.size() && nodes_[next_] != &c) ++next_;
    if (next_ == nodes_.size()) list_was_changed(state_, "update_mesh");
    return sizes_[next_++];
  }
  /// The node of the last size is no more. Needs: the walk goes backwards.
  void node_removed() {
    if (!small_batches_) nodes_[next_ - 1] = nullptr;
  }
  void end_update() {
    if (!small_batches_) nodes_of_mesh_.close(state_.mesh_revision);
  }

 private:
  [[noreturn]] void end_without_memory(std::size_t bytes) {
    nodes_of_mesh_.forget();
    allocation_failed(state_, bytes);
  }

  State& state_;
  StretchNodes& nodes_of_mesh_;
  const batch_size_function& size_fun_;
  std::optional<SizesInSmallBatches> small_batches_;
  std::span<const Cell*> nodes_;  ///< in the order of the walk
  std::vector<const Cell*> reversed_;
  std::vector<double> sizes_;
  std::size_t next_ = 0;
};

/// dist_0 divided by the wanted spacing.
template <typename Sizes>
double wanted_ratio(State& state, const Cell& c, Sizes& sizes) {
  ++state.update_statistics.visited;
  return state.domain.dist_0 / sizes.at(c);
}

/// Stretches upwards, each from its first node: nodes that a stretch gains from the ones below are
/// visited in the same pass.
///
/// @param does_without  where memory is exhausted, without the special refinement, which no size
///                      asks for
template <typename Sizes>
void refine(State& state, Sizes& sizes, bool does_without) {
  Walk walk = Walk::to_refine(state.history);
  state.progress.begin("refining", state.nb_nodes);
  const std::int32_t last_level = highest_stretch(state);
  std::int32_t special_below = last_level;
  for (std::int32_t l = 0; l <= last_level; ++l) {
    const auto stretch = static_cast<std::size_t>(l);
    sizes.begin_walk(stretch, walk);
    for (Cell& c : walk(state.level_beg[stretch].next)) {
      state.progress.step();
      const bool refining = is_too_coarse_by_threshold(wanted_ratio(state, c, sizes), c.level);
      walk.changes_mesh_here(refining);
      Cell* node = &c;
      if (refining) refine_cell(state, node, false);
      if (c.level >= special_below) continue;
      try {
        refine_cell(state, node, true);
      } catch (const Exhausted&) {
        if (!does_without) throw;
        special_below = 0;
      }
    }
  }
}

/// Stretches downwards, each from its last node.
template <typename Sizes>
void coarsen(State& state, Sizes& sizes) {
  Walk walk = Walk::to_coarsen(state.history);
  state.progress.begin("coarsening", state.nb_nodes);
  state.history.begin_recording(state.nb_nodes);
  for (std::int32_t l = highest_stretch(state); l >= 1; --l) {
    const auto stretch = static_cast<std::size_t>(l);
    sizes.begin_walk(stretch, walk);
    for (Cell& c : walk(state.level_end[stretch].next)) {
      state.progress.step();
      const bool removing =
          c.level != 0 && is_too_fine_by_threshold(wanted_ratio(state, c, sizes), c.level);
      walk.changes_mesh_here(removing);
      if (!removing) continue;
      Cell* node = &c;
      remove_by_level(state, node);
      if (node != nullptr) continue;  // it declined
      walk.removed_node();
      sizes.node_removed();
    }
  }
  state.history.end_recording(state.mesh_revision);
}

template <typename Sizes, typename SizeFunction>
void make_room(State& state, const SizeFunction& size_fun) {
  state.stretch_nodes.forget();
  Sizes sizes(state, size_fun, Memory::none);
  coarsen(state, sizes);
  state.memory.release_empty_slabs();
}

// Where memory is exhausted, coarsening comes first, and both passes follow with what it has given
// back.
template <typename Sizes, typename SizeFunction>
void adapt(State& state, const SizeFunction& size_fun) {
  const RemapAtEnd remap_at_end(state);
  const CountAtEnd count_at_end(state);
  const GatherLinkSources gather_link_sources(state);
  const JoinAtEnd join_at_end(state);
  split_sublists(state);
  for (const Memory memory : {Memory::enough, Memory::none}) {
    try {
      const AnotherWay another_way(state);
      Sizes sizes(state, size_fun, memory);
      refine(state, sizes, memory == Memory::none);
      coarsen(state, sizes);
      sizes.end_update();
      return;
    } catch (const Exhausted& exhausted) {
      if (memory == Memory::none) allocation_failed(state, exhausted.bytes);
    }
    make_room<Sizes>(state, size_fun);
    state.update_statistics.refused = 0;
  }
}

}  // namespace

void coarsen_to_make_room(State& state, const size_function& size_fun) {
  make_room<SizesWithWalk>(state, size_fun);
}
void coarsen_to_make_room(State& state, const batch_size_function& size_fun) {
  make_room<SizesInBatches>(state, size_fun);
}

void update_mesh_body(State& state, const size_function& size_fun) {
  adapt<SizesWithWalk>(state, size_fun);
}
void update_mesh_body(State& state, const batch_size_function& size_fun) {
  adapt<SizesInBatches>(state, size_fun);
}

}  // namespace velmar_2d::detail
