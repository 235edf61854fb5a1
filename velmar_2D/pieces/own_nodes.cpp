// Which nodes are own ones and which of them others may need: listed once, then kept by what has
// come and gone.
#include <bit>

#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

namespace {

/// Addresses of a few nodes, among which many are looked up.
class AddressSet {
 public:
  explicit AddressSet(std::span<const Cell* const> nodes)
      : slots_(std::bit_ceil(8 * nodes.size() + 1), nullptr) {
    for (const Cell* c : nodes) slots_[slot_of(c)] = c;
  }
  bool contains(const Cell* c) const { return slots_[slot_of(c)] == c; }

 private:
  std::size_t slot_of(const Cell* c) const {
    const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(c));
    auto slot = static_cast<std::size_t>((address * 0x9e3779b97f4a7c15U) >> 20);
    for (;; ++slot) {
      slot &= slots_.size() - 1;
      if (slots_[slot] == nullptr || slots_[slot] == c) return slot;
    }
  }
  std::vector<const Cell*> slots_;
};

}  // namespace

PieceUpdate::Near PieceUpdate::near_of(Cell& c) const {
  const LatticePoint at = place_of(c);
  return {&c, at, rests_beyond(at, c.ipos)};
}

void PieceUpdate::list(Cell& c, const Near* near_cut) {
  if (near_cut != nullptr) {
    near_.push_back(*near_cut);
    near_rows_.push_back(own_nodes_.size());
  }
  own_nodes_.push_back(&c);
}

void PieceUpdate::list_new(Cell& c) {
  if (!is_near(c)) {
    list(c, nullptr);
    return;
  }
  const Near near = near_of(c);
  list(c, &near);
}

void PieceUpdate::list_all() {
  own_nodes_.clear();
  ghosts_.clear();
  ghosts_are_listed_ = keeps_windows_;
  near_.clear();
  near_rows_.clear();
  first_rows_.clear();
  for (Cell* c = state_.mesh_beg; c != nullptr; c = c->next) {
    if (!owns(*c)) {
      ghosts_.push_back(c);  // tabulate_ghosts() has them from here
      continue;
    }
    first_rows_.resize(static_cast<std::size_t>(c->ipos) + 1, own_nodes_.size());
    list_new(*c);
  }
  near_table_.reset();
  if (!keeps_windows_) tabulate_ghosts();
}

// A node that comes is the first of its stretch, and the others keep their order: so the list is
// known without a look at the nodes that stay.
void PieceUpdate::list_changes() {
  const auto is_own = [this](const Cell* c) { return owns(*c); };
  if (gone_own_.empty() && std::none_of(newcomers_.begin(), newcomers_.end(), is_own)) return;
  near_table_.reset();
  const AddressSet gone(gone_own_);
  std::vector<Cell*>& before = own_nodes_before_;
  before.swap(own_nodes_);
  own_nodes_.clear();
  own_nodes_.reserve(before.size() + newcomers_.size());
  const std::vector<std::size_t> near_rows_before = std::exchange(near_rows_, {});
  const std::vector<Near> near_before = std::exchange(near_, {});
  std::vector<std::vector<Cell*>> come(state_.level_end.size());
  for (Cell* c : newcomers_) {
    if (owns(*c)) come[static_cast<std::size_t>(c->ipos)].push_back(c);
  }
  std::size_t row = 0, near = 0;
  std::vector<std::size_t> first_rows;
  for (std::size_t l = 0; l < come.size(); ++l) {
    first_rows.push_back(own_nodes_.size());
    for (std::size_t i = come[l].size(); i-- > 0;) list_new(*come[l][i]);
    const std::size_t end = l + 1 < first_rows_.size() ? first_rows_[l + 1] : before.size();
    for (; row < end; ++row) {
      const bool is_near_cut = near < near_rows_before.size() && near_rows_before[near] == row;
      const Near* near_cut = is_near_cut ? &near_before[near] : nullptr;
      near += is_near_cut ? 1 : 0;
      if (!gone.contains(before[row])) list(*before[row], near_cut);
    }
  }
  first_rows_ = std::move(first_rows);
}

void PieceUpdate::list_nodes() {
  nb_near_before_ = 0;
  if (knows_changes_) {
    list_changes();
  } else {
    list_all();
  }
  gone_own_.clear();
  listed_revision_ = state_.mesh_revision;
  is_listed_ = true;
  knows_changes_ = false;
}

void PieceUpdate::list_if_changed() {
  if (!is_listed_ || listed_revision_ != state_.mesh_revision) list_nodes();
}

void PieceUpdate::tabulate_near() {
  near_table_ = Lattice::of_few(state_, near_.size());
  for (const Near& near : near_) near_table_->add({near.at, near.cell, near.cell->ipos});
}

Cell* PieceUpdate::near_node_at(LatticePoint p) {
  if (!near_table_) tabulate_near();
  const std::int32_t number = near_table_->find(p);
  return number < 0 ? nullptr : near_table_->entries()[static_cast<std::size_t>(number)].cell;
}

std::int64_t PieceUpdate::row_of(LatticePoint p) {
  if (!near_table_) tabulate_near();
  const std::int32_t number = near_table_->find(p);
  if (number < 0 || static_cast<std::size_t>(number) >= near_rows_.size()) return -1;
  return static_cast<std::int64_t>(near_rows_[static_cast<std::size_t>(number)]);
}

}  // namespace velmar_2d::detail
