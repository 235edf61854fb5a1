// Releasing what nothing rests on and nothing wants, finest nodes first.
#include <new>

#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

namespace {

void remove(State& state, Cell& c) {
  Cell* node = &c;
  remove_by_level(state, node);
}

}  // namespace

Releaser::Releaser(State& state, bool knows_fallen)
    : state_(state),
      nb_stretches_(std::min(state.level_beg.size(), heads_.size())),
      knows_fallen_(knows_fallen) {
  for (std::size_t l = 0; l < nb_stretches_; ++l) {
    heads_[l] = state.level_beg[l].next;
    head_entries_[l] = heads_[l] == nullptr ? 0 : TraversalHistory::entry_of(heads_[l]);
  }
}

void Releaser::note_come(const Cell& c) {
  ++nb_come_;
  try {
    come_to_[static_cast<std::size_t>(c.ipos)].push_back(TraversalHistory::entry_of(&c));
  } catch (const std::bad_alloc&) {
    knows_come_ = false;
  }
}

void Releaser::note_fallen(Cell& c) {
  try {
    fallen_.push_back(&c);
  } catch (const std::bad_alloc&) {
    knows_fallen_ = false;
  }
}

void Releaser::release_surplus(bool come_are_needed) {
  // Where much has changed, a walk through all nodes is faster.
  if (!knows_fallen_ || are_many(fallen_.size(), static_cast<std::size_t>(state_.nb_nodes))) {
    release_everywhere(come_are_needed);
    return;
  }
  try {
    release_around_fallen();
  } catch (const std::bad_alloc&) {
    knows_come_ = false;  // the heads may have gone
    release_everywhere(false);
    return;
  }
  if (nb_come_ == 0 && gone_.empty()) return;
  if (!knows_come_) {
    state_.history.forget();  // the walks are slower without it, that is all
    return;
  }
  state_.history.follow(std::span(head_entries_).first(nb_stretches_), come_to_, gone_,
                        state_.mesh_revision, state_.progress);
}

bool Releaser::release_everywhere(bool come_are_needed, GradedSizes* graded) {
  const std::int32_t nb_nodes_before = state_.nb_nodes;
  const bool leaves_out = come_are_needed && knows_come_;
  Walk walk = Walk::to_coarsen(state_.history);
  state_.progress.begin("coarsening", state_.nb_nodes - (leaves_out ? nb_come_ : 0));
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
  state_.history.end_recording(state_.mesh_revision);
  return state_.nb_nodes < nb_nodes_before;
}

/// Where wants have fallen, and on from there. All others are needed as before.
void Releaser::release_around_fallen() {
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
void Releaser::release_waiting() {
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

void Releaser::await_removal(Cell& c) {
  if ((c.wanted_level & is_waiting) != 0 || !is_surplus(c)) return;
  surplus_.push_back(&c);
  c.wanted_level |= is_waiting;
}

void Releaser::note_gone(const Cell& c) {
  try {
    gone_.push_back(TraversalHistory::entry_of(&c));
  } catch (const std::bad_alloc&) {
    state_.history.forget();  // the walks are slower without it, that is all
  }
}

}  // namespace velmar_2d::detail
