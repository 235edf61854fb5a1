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

void PieceUpdate::list(Cell& c, bool is_near_cut) {
  if (is_near_cut) {
    near_.push_back(&c);
    near_rows_.push_back(own_nodes_.size());
  }
  own_nodes_.push_back(&c);
}

void PieceUpdate::list_all() {
  own_nodes_.clear();
  ghosts_.clear();
  near_.clear();
  near_rows_.clear();
  first_rows_.clear();
  for (Cell* c = state_.mesh_beg; c != nullptr; c = c->next) {
    if (!owns(*c)) {
      ghosts_.push_back(c);
      continue;
    }
    first_rows_.resize(static_cast<std::size_t>(c->ipos) + 1, own_nodes_.size());
    list(*c, is_near(*c));
  }
}

// A node that comes is the first of its stretch, and the others keep their order: so the list is
// known without a look at the nodes that stay.
void PieceUpdate::list_changes() {
  const AddressSet gone(gone_own_);
  std::vector<Cell*>& before = own_nodes_before_;
  before.swap(own_nodes_);
  own_nodes_.clear();
  own_nodes_.reserve(before.size() + newcomers_.size());
  const std::vector<std::size_t> near_rows_before = std::exchange(near_rows_, {});
  near_.clear();
  std::vector<std::vector<Cell*>> come(state_.level_end.size());
  for (Cell* c : newcomers_) {
    if (owns(*c)) come[static_cast<std::size_t>(c->ipos)].push_back(c);
  }
  std::size_t row = 0, near = 0;
  std::vector<std::size_t> first_rows;
  for (std::size_t l = 0; l < come.size(); ++l) {
    first_rows.push_back(own_nodes_.size());
    for (std::size_t i = come[l].size(); i-- > 0;) list(*come[l][i], is_near(*come[l][i]));
    const std::size_t end = l + 1 < first_rows_.size() ? first_rows_[l + 1] : before.size();
    for (; row < end; ++row) {
      const bool is_near_cut = near < near_rows_before.size() && near_rows_before[near] == row;
      near += is_near_cut ? 1 : 0;
      if (!gone.contains(before[row])) list(*before[row], is_near_cut);
    }
  }
  first_rows_ = std::move(first_rows);
}

void PieceUpdate::list_nodes() {
  if (knows_changes_) {
    list_changes();
  } else {
    list_all();
  }
  gone_own_.clear();
  near_table_.reset();
  listed_revision_ = state_.mesh_revision;
  is_listed_ = true;
  knows_changes_ = false;
}

void PieceUpdate::list_if_changed() {
  if (!is_listed_ || listed_revision_ != state_.mesh_revision) list_nodes();
}

void PieceUpdate::tabulate_near() {
  near_table_ = Lattice::of_few(state_);
  for (Cell* c : near_) near_table_->add({place_of(*c), c, c->ipos});
}

Cell* PieceUpdate::near_node_at(LatticePoint p) {
  if (!near_table_) tabulate_near();
  const std::int32_t number = near_table_->find(p);
  return number < 0 ? node_at(p) : near_table_->entries()[static_cast<std::size_t>(number)].cell;
}

std::int64_t PieceUpdate::row_of(LatticePoint p) {
  if (!near_table_) tabulate_near();
  const std::int32_t number = near_table_->find(p);
  if (number < 0 || static_cast<std::size_t>(number) >= near_rows_.size()) return -1;
  return static_cast<std::int64_t>(near_rows_[static_cast<std::size_t>(number)]);
}

// A node of level l is linked to none beyond the spacing of that level. A little more does no harm.
std::vector<Cell*> PieceUpdate::border(const Window& of, int layers) {
  if (!is_updating_ && !is_listed_) list_nodes();
  const Frame& frame = state_.domain.frame;
  const double dist_0 = state_.domain.dist_0;
  const double west = frame.x_min + of.west * dist_0, east = frame.x_min + of.east * dist_0;
  const double south = frame.y_min + of.south * dist_0, north = frame.y_min + of.north * dist_0;
  const auto reaches = [&](const Cell& c) {
    const double reach = 1.001 * dist_0 / exact_power_of_2(c.level / 2);
    return c.x >= west - reach && c.x <= east + reach && c.y >= south - reach &&
           c.y <= north + reach;
  };
  std::vector<Cell*> found;
  for (Cell* c : near_) {
    bool needed = reaches(*c);
    for (int d = 0; d < nb_directions && !needed && layers > 1; ++d) {
      const Cell* linked = link(*c, d).cell();
      needed = linked != nullptr && reaches(*linked);
    }
    if (needed) found.push_back(c);
  }
  return found;
}

}  // namespace velmar_2d::detail
