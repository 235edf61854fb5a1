// Which ghosts there are, and which of them own nodes need: counted where nodes come and go and
// where wants change, so that an update that changes little looks at few of them.
//
// A ghost is needed by each own node that wants it as a member of a ring or rests on it, and by
// each needed ghost that rests on it. The others are here because owners tell of them, or because
// those rest on them.
#include <cassert>

#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

void PieceUpdate::tabulate_ghosts() {
  ghost_table_ = Lattice::of_few(state_, ghosts_.size());
  nb_needing_.clear();
  idle_.clear();
  nb_ghosts_gone_ = 0;
  ++needs_revision_;
  for (Cell* c : ghosts_) {
    c->wanted_level &= is_held;
    add_ghost(*c);
  }
  ghosts_are_listed_ = true;
  for (const Near& near : near_) {
    const Cell& c = *near.cell;
    for (int d = c.ipos % 2; d < nb_directions && c.ipos > 0; d += 2) {
      const std::int32_t parent = number_of_ghost(wants_.neighbour(near.at, d, c.ipos));
      if (parent >= 0) need(parent, 1);
    }
    count_wants(c, 0, wanted_level(c));
  }
  idle_.clear();
}

void PieceUpdate::list_ghosts() {
  ghosts_.clear();
  for (const Lattice::Entry& entry : ghost_table_->entries()) {
    if (entry.cell != nullptr) ghosts_.push_back(entry.cell);
  }
  ghosts_are_listed_ = true;
}

/// -1 where there is none.
std::int32_t PieceUpdate::number_of_ghost(LatticePoint p) const {
  if (!wants_.contains(p) || owns(p)) return -1;
  const std::int32_t number = ghost_table_->find(p);
  if (number < 0) return -1;
  return ghost_table_->entries()[static_cast<std::size_t>(number)].cell != nullptr ? number : -1;
}

std::int32_t PieceUpdate::add_ghost(Cell& c) {
  ghosts_are_listed_ = false;
  const LatticePoint p = place_of(c);
  std::int32_t number = ghost_table_->add({p, &c, c.ipos});
  if (number >= 0) {
    nb_needing_.push_back(0);
    new_ghosts_.push_back(number);
    return number;
  }
  number = ghost_table_->find(p);
  new_ghosts_.push_back(number);
  ghost_table_->entries()[static_cast<std::size_t>(number)].cell = &c;
  --nb_ghosts_gone_;
  return number;
}

void PieceUpdate::need(std::int32_t ghost, std::int32_t more) {
  const auto i = static_cast<std::size_t>(ghost);
  const bool was_needed = nb_needing_[i] > 0;
  nb_needing_[i] += more;
  assert(nb_needing_[i] >= 0);
  const bool is_so = nb_needing_[i] > 0;
  if (is_so == was_needed) return;
  ++needs_revision_;
  const Lattice::Entry entry = ghost_table_->entries()[i];
  if (is_so) {
    entry.cell->wanted_level |= is_needed;
  } else {
    entry.cell->wanted_level &= static_cast<std::uint8_t>(~is_needed);
    idle_.push_back(entry.cell);
  }
  for (int d = entry.ipos % 2; d < nb_directions && entry.ipos > 0; d += 2) {
    const std::int32_t parent = number_of_ghost(wants_.neighbour(entry.at, d, entry.ipos));
    if (parent >= 0) need(parent, is_so ? 1 : -1);
  }
}

/// What an own node wants has changed.
void PieceUpdate::count_wants(const Cell& c, std::int32_t before, std::int32_t after) {
  const std::int32_t low = std::max(std::min(before, after), c.ipos),
                     high = std::max(before, after);
  if (low >= high) return;
  const LatticePoint p = place_of(c);
  for (std::int32_t l = low + 1; l <= high; ++l) {
    for (int d = l % 2; d < nb_directions; d += 2) {
      const std::int32_t member = number_of_ghost(wants_.neighbour(p, d, l));
      if (member >= 0) need(member, after > before ? 1 : -1);
    }
  }
}

/// Of a node that has come: as a ghost it may be wanted by its parents, as an own node it rests on
/// them.
void PieceUpdate::note_parents(const Cell& c, std::size_t newcomer) {
  const bool is_own = owns(c);
  const std::int32_t number = is_own ? -1 : add_ghost(const_cast<Cell&>(c));
  std::int32_t nb_wanting = 0;
  for (const Cell* parent : parents_[newcomer]) {
    if (parent == nullptr || owns(*parent) == is_own) continue;
    if (is_own) {
      const std::int32_t ghost = number_of_ghost(place_of(*parent));
      if (ghost >= 0) need(ghost, 1);
    } else if (wanted_level(*parent) >= c.ipos) {
      ++nb_wanting;
    }
  }
  if (nb_wanting > 0) need(number, nb_wanting);
}

void PieceUpdate::forget_ghost(const Cell& c) {
  const std::int32_t number = number_of_ghost(place_of(c));
  if (number < 0) return;
  ghost_table_->entries()[static_cast<std::size_t>(number)].cell = nullptr;
  ++nb_ghosts_gone_;
  ghosts_are_listed_ = false;
}

/// Needs: nothing rests on the node.
void PieceUpdate::forget_own(const Cell& c) {
  if (!is_near(c)) return;
  const LatticePoint p = place_of(c);
  gone_near_.push_back(p);
  if (near_table_) {
    const std::int32_t number = near_table_->find(p);
    if (number >= 0) near_table_->entries()[static_cast<std::size_t>(number)].cell = nullptr;
  }
  count_wants(c, wanted_level(c), 0);
  for (int d = c.ipos % 2; d < nb_directions; d += 2) {
    const std::int32_t parent = number_of_ghost(wants_.neighbour(p, d, c.ipos));
    if (parent >= 0) need(parent, -1);
  }
}

/// Whether the update has done anything that others may have to know.
bool PieceUpdate::has_changed() const {
  return !newcomers_.empty() || !fallen_.empty() || !freed_.empty() || !knows_fallen_;
}

void PieceUpdate::end_unchanged() {
  surplus_has_gone_ = true;
  is_updating_ = knows_changes_ = false;
  forget_cells();
}

/// Own nodes that have gone since release() began, as far as they may be ghosts of the piece with
/// this box.
std::vector<LatticePoint> PieceUpdate::gone_near(const Box& from) const {
  const std::int64_t reach = (overlap_ + 1) * wants_.grid_step();
  std::vector<LatticePoint> places;
  for (const LatticePoint& p : gone_near_) {
    if (p.x >= from.low.x - reach && p.x <= from.high.x + reach && p.y >= from.low.y - reach &&
        p.y <= from.high.y + reach) {
      places.push_back(p);
    }
  }
  return places;
}

void PieceUpdate::change_ghosts(std::span<const LatticePoint> come,
                                std::span<const LatticePoint> gone) {
  if (!is_updating_ && !is_listed_) list_nodes();
  for (const LatticePoint& p : gone) {
    const std::int32_t number = number_of_ghost(p);
    if (number < 0) continue;
    Cell* c = ghost_table_->entries()[static_cast<std::size_t>(number)].cell;
    c->wanted_level &= static_cast<std::uint8_t>(~is_held);
    idle_.push_back(c);
  }
  hold_ghosts(come);
  if (is_updating_) return;
  remove_idle();
  listed_revision_ = state_.mesh_revision;
}

void PieceUpdate::forget_places() {
  if (2 * nb_ghosts_gone_ <= nb_needing_.size()) return;
  new_ghosts_.clear();  // told by borders() of all, once nodes have gone
  Lattice all = Lattice::of_few(state_, nb_needing_.size() - nb_ghosts_gone_);
  std::vector<std::int32_t> nb_needing;
  for (std::size_t i = 0; i < nb_needing_.size(); ++i) {
    const Lattice::Entry& entry = ghost_table_->entries()[i];
    if (entry.cell == nullptr) continue;
    all.add(entry);
    nb_needing.push_back(nb_needing_[i]);
  }
  ghost_table_ = std::move(all);
  nb_needing_ = std::move(nb_needing);
  nb_ghosts_gone_ = 0;
}

}  // namespace velmar_2d::detail
