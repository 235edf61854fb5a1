// Nodes that go: those that neither own nodes nor others need.
#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

void NodeValues::add(LatticePoint place, const Cell& c) {
  places.push_back(place);
  rows.insert(rows.end(), c.data.begin(), c.data.end());
  rows.insert(rows.end(), {c.grad_data, c.grad2_data, c.x, c.y});
  handles.emplace_back(c.used, c.data_ptr);
}

NodeValues PieceUpdate::nodes_before() const {
  NodeValues nodes = gone_before_;
  for (const Cell* c = state_.mesh_beg; c != nullptr; c = c->next) {
    if (owns(*c) && !has_come(*c)) nodes.add(place_of(*c), *c);
  }
  return nodes;
}

/// While nodes go. Those that have gone are forgotten at its end.
class PieceUpdate::Removal {
 public:
  explicit Removal(PieceUpdate& update) : update_(update), join_at_end_(update.state_) {
    if (!update.state_.lists_are_split()) split_sublists(update.state_);
  }
  Removal(const Removal&) = delete;
  Removal& operator=(const Removal&) = delete;
  ~Removal() {
    update_.forget_gone();
    update_.state_.resolved_revision = update_.state_.mesh_revision;
  }

 private:
  PieceUpdate& update_;
  JoinAtEnd join_at_end_;
};

// Where ghosts are not kept, those go first that are not needed.
std::vector<LatticePoint> PieceUpdate::find_needs() {
  if (!ghosts_are_needed_ && !keeps_ghosts_) {
    for (const Lattice::Entry& entry : ghost_table_->entries()) {
      if (entry.cell == nullptr) continue;
      entry.cell->wanted_level &= static_cast<std::uint8_t>(~is_held);
      idle_.push_back(entry.cell);
    }
    remove_idle();
  }
  ghosts_are_needed_ = true;
  std::vector<LatticePoint> places;
  const std::vector<Lattice::Entry>& entries = ghost_table_->entries();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (entries[i].ipos > 0 && entries[i].cell != nullptr && nb_needing_[i] > 0) {
      places.push_back(entries[i].at);
    }
  }
  return places;
}

// Parents may become idle by that, too.
void PieceUpdate::remove_idle() {
  if (idle_.empty()) return;
  const Removal removal(*this);
  while (!idle_.empty()) {
    std::vector<Cell*> candidates = std::exchange(idle_, {});
    std::erase_if(candidates, [this](const Cell* c) { return gone_.contains(c); });
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Cell* a, const Cell* b) { return a->ipos > b->ipos; });
    for (Cell* c : candidates) {
      if (!gone_.contains(c) && is_idle(*c)) remove(*c);
    }
  }
}

void PieceUpdate::remove_ghosts(std::span<const LatticePoint> places) {
  waiting_to_go_.insert(waiting_to_go_.end(), places.begin(), places.end());
  if (waiting_to_go_.empty()) return;
  std::vector<Cell*> candidates;
  for (const LatticePoint& p : std::exchange(waiting_to_go_, {})) {
    const std::int32_t number = number_of_ghost(p);
    if (number >= 0) {
      candidates.push_back(ghost_table_->entries()[static_cast<std::size_t>(number)].cell);
    }
  }
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const Cell* a, const Cell* b) { return a->ipos > b->ipos; });
  const Removal removal(*this);
  for (Cell* c : candidates) {
    c->wanted_level &= static_cast<std::uint8_t>(~is_held);
    if (gone_.contains(c)) continue;
    if (is_idle(*c)) {
      remove(*c);
    } else {
      waiting_to_go_.push_back(place_of(*c));
    }
  }
}

bool PieceUpdate::hold_only(std::span<const LatticePoint> places) {
  const std::vector<Cell*> before = std::exchange(held_, {});
  for (Cell* c : before) c->wanted_level &= static_cast<std::uint8_t>(~is_held);
  for (const LatticePoint& p : places) {
    Cell* c = node_at(p);
    if (c == nullptr) continue;
    c->wanted_level |= is_held;
    held_.push_back(c);
  }
  bool has_lost = false;
  for (Cell* c : before) {
    if ((c->wanted_level & is_held) != 0) continue;
    has_lost = true;
    freed_.push_back(c);
  }
  return has_lost;
}

void PieceUpdate::forget_gone() {
  if (gone_.empty()) return;
  const auto has_gone = [this](const Cell* c) { return gone_.contains(c); };
  std::erase_if(freed_, has_gone);
  std::erase_if(idle_, has_gone);
  std::size_t n = 0;
  for (std::size_t i = 0; i < newcomers_.size(); ++i) {
    if (has_gone(newcomers_[i])) continue;
    newcomers_[n] = newcomers_[i];
    parents_[n++] = parents_[i];
  }
  newcomers_.resize(n);
  parents_.resize(n);
  nb_noted_ = nb_told_ = n;
  gone_.clear();
  forget_places();
  state_.history.forget();
}

/// What it rested on may be no more than surplus now.
void PieceUpdate::remove(Cell& c) {
  if (owns(c)) {
    ++statistics_.removed;
    gone_own_.push_back(&c);
    if (!has_come(c)) gone_before_.add(place_of(c), c);
    if (graded_) graded_->remove(c);
    forget_own(c);
  } else {
    forget_ghost(c);
  }
  for (int d = c.ipos % 2; d < nb_directions; d += 2) {
    Cell* parent = link(c, d).cell();
    if (parent == nullptr || parent->ipos == 0) continue;
    (owns(*parent) ? freed_ : idle_).push_back(parent);
  }
  gone_.insert(&c);
  Cell* node = &c;
  remove_by_level(state_, node);
}

void PieceUpdate::release() {
  gone_near_.clear();
  const Removal removal(*this);
  state_.progress.begin("coarsening", static_cast<std::int64_t>(own_nodes_.size()));
  if (!knows_fallen_ || are_many(fallen_.size(), own_nodes_.size())) {
    release_everywhere();
  } else {
    release_around_fallen();
  }
  fallen_.clear();
  freed_.clear();
  while (!keeps_ghosts_ && !idle_.empty()) {
    remove_idle();
    release_freed();
  }
  knows_fallen_ = surplus_has_gone_ = true;
  is_updating_ = is_listed_ = false;
  state_.surplus_has_gone = false;
}

void PieceUpdate::release_everywhere() {
  for (std::size_t l = state_.level_end.size(); l-- > 0;) {
    for (Cell* c = state_.level_end[l].next; c != nullptr;) {
      Cell* next = c->prev;
      state_.progress.step();
      if (owns(*c) && is_surplus(*c)) remove(*c);
      c = next;
    }
  }
}

void PieceUpdate::release_around_fallen() {
  for (const Cell* p : fallen_) {
    for (int d = 0; d < nb_directions; ++d) {
      Cell* linked = link(*p, d).cell();
      if (linked != nullptr && linked->ipos > p->ipos) freed_.push_back(linked);
    }
  }
  release_freed();
}

void PieceUpdate::release_freed() {
  std::size_t next = 0;  // removals make more
  while (next < freed_.size()) {
    Cell* c = freed_[next++];
    state_.progress.step();
    if (!gone_.contains(c) && owns(*c) && is_surplus(*c)) remove(*c);
  }
  freed_.clear();
}

}  // namespace velmar_2d::detail
