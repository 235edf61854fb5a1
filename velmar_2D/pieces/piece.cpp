// A mesh in pieces: what a piece needs of others is found from positions alone.
//
// A piece knows the least mesh around its own nodes. Of the places that the rings of these take,
// some lie in the boxes of others: they, and what they rest on, are wanted there. The others make
// them exist as if one of their own nodes wanted them, which may bring nodes that want more; until
// nothing is new. Then each piece has exactly the nodes that one mesh would have in its box.
#include <bit>
#include <cmath>

#include "velmar_2D/find/find.hpp"
#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

namespace {

/// Nodes ahead of the one in hand.
constexpr std::size_t own_nodes_ahead = 12;
VELMAR_2D_ALWAYS_INLINE void prefetch_heads(const Cell* c) {
  const auto* bytes = reinterpret_cast<const std::byte*>(c);
  prefetch(bytes);
  prefetch(bytes + cache_line);
}

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

PieceUpdate::PieceUpdate(State& state, const Window& own, std::int32_t overlap, std::int32_t nx,
                         std::int32_t ny)
    : state_(state),
      own_(own),
      overlap_(overlap),
      nx_(nx),
      ny_(ny),
      wants_(Lattice::of_few(state)),
      box_(box_of(own)) {
  find_sides_of_box();
}

void PieceUpdate::find_sides_of_box() {
  constexpr double beyond = std::numeric_limits<double>::infinity();
  west_ = south_ = -beyond;
  east_ = north_ = beyond;
  const double before = 0.25 * state_.domain.dist_0 / exact_power_of_2((state_.level_max + 1) / 2);
  for (const Cell* c = state_.mesh_beg; c != nullptr && c->ipos == 0; c = c->next) {
    const LatticePoint p = place_of(*c);
    if (p.x == box_.low.x && own_.west > 0) west_ = c->x - before;
    if (p.y == box_.low.y && own_.south > 0) south_ = c->y - before;
    if (p.x == box_.high.x) east_ = c->x - before;
    if (p.y == box_.high.y) north_ = c->y - before;
  }
}

/// Along x or y, whichever is less; infinite where the box ends with the whole.
double PieceUpdate::distance_to_cut(const Cell& c) const {
  return std::min({c.x - west_, east_ - c.x, c.y - south_, north_ - c.y});
}

// A node is linked to others up to the spacing of its level away, and those to others up to that of
// theirs, which is at most twice as large. What others rest on, by however many steps, lies within
// four times that of its ipos. The grid is kept in all of the window.
bool PieceUpdate::is_near(const Cell& c) const {
  if (c.ipos == 0 || keeps_windows_) {
    return distance_to_cut(c) <= (overlap_ + 0.5) * state_.domain.dist_0;
  }
  const double widest = state_.domain.dist_0 / exact_power_of_2(c.ipos / 2);
  return distance_to_cut(c) <= 4.0 * widest;
}

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

Box PieceUpdate::box_of(const Window& window) const {
  const auto end = [this](std::int32_t line, std::int32_t last) {
    return line * wants_.grid_step() + (line == last ? 1 : 0);
  };
  return {{window.west * wants_.grid_step(), window.south * wants_.grid_step()},
          {end(window.east, nx_ - 1), end(window.north, ny_ - 1)}};
}

LatticePoint PieceUpdate::place_of(const Cell& c) const {
  LatticePoint p{};
  if (!wants_.find_place(c, p)) list_was_changed(state_, "Piece");
  return p;
}

Point PieceUpdate::point_at(LatticePoint p) const {
  const Frame& frame = state_.domain.frame;
  const auto offset = [&](std::int64_t units) {
    return static_cast<double>(units) / static_cast<double>(wants_.grid_step()) *
           state_.domain.dist_0;
  };
  return {frame.x_min + offset(p.x), frame.y_min + offset(p.y)};
}

Cell* PieceUpdate::node_at(LatticePoint p) const {
  if (!wants_.contains(p)) return nullptr;
  if (nodes_by_place_) {
    const std::int32_t number = nodes_by_place_->find(p);
    return number < 0 ? nullptr : nodes_by_place_->entries()[static_cast<std::size_t>(number)].cell;
  }
  const Domain& domain = state_.domain;
  Point at = point_at(p);
  at = {std::clamp(at.x, domain.x_min, domain.x_max), std::clamp(at.y, domain.y_min, domain.y_max)};
  Cell* nearest = const_cast<Cell*>(locate(state_, at, nullptr));
  return nearest != nullptr && place_of(*nearest) == p ? nearest : nullptr;
}

/// While nodes come: their parents are noted, and the caller's own hook is called.
class PieceUpdate::Insertion {
 public:
  explicit Insertion(PieceUpdate& update)
      : derive_later(update.state_),
        state_(update.state_),
        hook_(std::move(state_.hooks.inserted)),
        interpolates_before_(state_.data_interpolation),
        init_data_before_(state_.init_data_ptr) {
    state_.hooks.inserted = [this, &update](Cell& c, std::span<Cell* const> of) {
      std::array<Cell*, 4> parents{};
      std::copy(of.begin(), of.end(), parents.begin());
      update.parents_.push_back(parents);
      if (hook_) hook_(c, of);
    };
    if (update.init_data_) {
      state_.data_interpolation = false;
      state_.init_data_ptr = update.init_data_;
    }
  }
  Insertion(const Insertion&) = delete;
  Insertion& operator=(const Insertion&) = delete;
  ~Insertion() {
    state_.hooks.inserted = std::move(hook_);
    state_.data_interpolation = interpolates_before_;
    state_.init_data_ptr = std::move(init_data_before_);
  }

  DeriveLater derive_later;

 private:
  State& state_;
  std::function<void(Cell&, std::span<Cell* const>)> hook_;
  bool interpolates_before_;
  init_data_function init_data_before_;
};

void PieceUpdate::begin(const size_function& size, const batch_size_function& sizes,
                        const Resolution& resolution, init_data_function init_data) {
  size_ = size;
  sizes_ = sizes;
  resolution_ = resolution;
  init_data_ = std::move(init_data);
  newcomers_.clear();
  parents_.clear();
  nb_asked_ = nb_noted_ = nb_told_ = 0;
  statistics_ = {};
  reaches_cut_ = ghosts_are_needed_ = false;
  knows_fallen_ = std::exchange(surplus_has_gone_, false);
  fallen_.clear();
  freed_.clear();
  if (state_.resolved_revision != state_.mesh_revision) {
    split_sublists(state_);
    const JoinAtEnd join_at_end(state_);
    restore_rings(state_, resolution.most_nodes);
    knows_fallen_ = false;
  }
  knows_changes_ = false;
  list_if_changed();
  knows_changes_ = true;
  first_new_id_ = state_.next_id;
  held_ghosts_.clear();
  for (Cell* c : ghosts_) c->wanted_level = 0;
  to_ask_ = own_nodes_;
  is_updating_ = true;
}

void PieceUpdate::compute_derivatives() {
  if (state_.n_cell_data <= 0) return;
  list_if_changed();
  Workspace work;
  const std::size_t n = own_nodes_.size();
  for (std::size_t i = 0; i < n; ++i) {
    if (i + 2 * own_nodes_ahead < n) prefetch_heads(own_nodes_[i + 2 * own_nodes_ahead]);
    if (i + own_nodes_ahead < n) {
      for (int d = 0; d < nb_directions; ++d)
        prefetch(link(*own_nodes_[i + own_nodes_ahead], d).cell());
    }
    compute_data_at_node(state_, work, own_nodes_[i]);
  }
}

/// By generations where there are data, since those that come need derivatives first.
void PieceUpdate::ask() {
  const Insertion insertion(*this);
  if (nb_asked_ > 0) insertion.derive_later.derive(std::span(to_ask_).subspan(nb_asked_));
  std::vector<double> sizes;
  do {
    const std::size_t first = nb_asked_, end = to_ask_.size();
    if (sizes_) {
      const std::vector<const Cell*> nodes(to_ask_.begin() + static_cast<std::ptrdiff_t>(first),
                                           to_ask_.end());
      sizes.assign(end - first, std::numeric_limits<double>::quiet_NaN());
      sizes_(nodes, sizes);
    }
    while (nb_asked_ < end) {
      if (nb_asked_ + own_nodes_ahead < end) prefetch_heads(to_ask_[nb_asked_ + own_nodes_ahead]);
      Cell& c = *to_ask_[nb_asked_++];
      ask(c, sizes_ ? sizes[nb_asked_ - 1 - first] : SizesOneByOne(size_).at(c));
      note_newcomers();
    }
  } while (state_.n_cell_data == 0 && nb_asked_ < to_ask_.size());
}

void PieceUpdate::ask(Cell& c, double size) {
  ++statistics_.visited;
  const Want want = WantedLevels(state_, resolution_.margin).of(c, size, 0);
  const std::int32_t before = wanted_level(c);
  if (knows_fallen_ && want.kept < before && before > c.ipos) fallen_.push_back(&c);
  c.wanted_level = static_cast<std::uint8_t>(want.kept | (c.wanted_level & is_held));
  if (want.level > c.level) {
    RingMaker(state_, newcomers_, resolution_.most_nodes).raise(c, want.level);
  }
  if (want.is_refused && c.level >= want.level) statistics_.refused += c.reserve;
}

void PieceUpdate::note_newcomers() {
  for (; nb_noted_ < newcomers_.size(); ++nb_noted_) {
    Cell& c = *newcomers_[nb_noted_];
    for (const int side : straight_directions) {
      const Boundary* record = link(c, side).boundary();
      if (record != nullptr && record->bc_type == bc_type_cut) reaches_cut_ = true;
    }
    if (!owns(c)) continue;
    if (is_near(c)) {
      near_.push_back(&c);
      if (near_table_) near_table_->add({place_of(c), &c, c.ipos});
    }
    to_ask_.push_back(&c);
    ++statistics_.inserted;
  }
}

// Ghosts that were there before the update are at their owners, who let none go before they have
// been told what is needed. So all that is new to others is what has come here.
std::vector<LatticePoint> PieceUpdate::take_wants() {
  std::vector<LatticePoint> places;
  for (; nb_told_ < newcomers_.size(); ++nb_told_) {
    if (!owns(*newcomers_[nb_told_])) places.push_back(place_of(*newcomers_[nb_told_]));
  }
  return places;
}

bool PieceUpdate::has_wants() const {
  return std::any_of(newcomers_.begin() + static_cast<std::ptrdiff_t>(nb_told_), newcomers_.end(),
                     [this](const Cell* c) { return !owns(*c); });
}

Cell* PieceUpdate::make(LatticePoint p) {
  if (Cell* there = node_at(p)) return there;
  const std::int32_t ipos = wants_.ipos(p);
  std::array<Cell*, nb_directions> parents{};
  for (int d = ipos % 2; d < nb_directions; d += 2) {
    const LatticePoint parent = wants_.neighbour(p, d, ipos);
    if (wants_.contains(parent)) {
      parents[static_cast<std::size_t>(d)] = make(parent);
    } else if (wants_.is_in_frame(parent)) {
      reaches_cut_ = true;
    }
  }
  RingMaker(state_, newcomers_, resolution_.most_nodes).make_between(parents, ipos);
  if (nodes_by_place_) nodes_by_place_->add({p, newcomers_.back(), ipos});
  return newcomers_.back();
}

void PieceUpdate::hold(std::span<const LatticePoint> places) {
  const Insertion insertion(*this);
  for (const LatticePoint& p : places) {
    if (!wants_.contains(p)) {
      reaches_cut_ = true;
      continue;
    }
    Cell* c = make(p);
    c->wanted_level |= is_held;
    held_.push_back(c);
  }
  note_newcomers();
}

/// Parents first, with what they rest on elsewhere. The others are found by their places meanwhile.
void PieceUpdate::hold_all(std::span<const LatticePoint> places) {
  std::vector<std::pair<std::int32_t, LatticePoint>> sorted;
  sorted.reserve(places.size());
  for (const LatticePoint& p : places) sorted.emplace_back(wants_.ipos(p), p);
  std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
    return std::tie(a.first, a.second.y, a.second.x) < std::tie(b.first, b.second.y, b.second.x);
  });
  struct Scope {
    PieceUpdate& update;
    ~Scope() { update.nodes_by_place_.reset(); }
  } const scope{*this};
  nodes_by_place_ = Lattice::of_few(state_);
  for (Cell* c = state_.mesh_beg; c != nullptr; c = c->next) {
    nodes_by_place_->add({place_of(*c), c, c->ipos});
  }
  const Insertion insertion(*this);
  for (const auto& [ipos, p] : sorted) {
    Cell* c = make(p);
    c->wanted_level |= is_held;
    held_.push_back(c);
  }
  note_newcomers();
  nb_told_ = newcomers_.size();
  is_listed_ = knows_changes_ = false;
  state_.resolved_revision = state_.mesh_revision;
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

// Each ghost that is no surplus has an own node that wants it or rests on it, if only by way of
// other ghosts.
std::vector<LatticePoint> PieceUpdate::find_needs() {
  if (!ghosts_are_needed_) {
    for (Cell* c : std::exchange(held_ghosts_, {})) {
      c->wanted_level &= static_cast<std::uint8_t>(~is_held);
    }
    for (Cell* c : newcomers_) {
      if (!owns(*c)) ghosts_.push_back(c);
    }
    std::vector<Cell*> candidates = ghosts_;
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Cell* a, const Cell* b) { return a->ipos > b->ipos; });
    const Removal removal(*this);
    for (Cell* c : candidates) {
      if (is_surplus(*c)) remove(*c);
    }
    ghosts_are_needed_ = true;
  }
  std::vector<LatticePoint> places;
  for (const Cell* c : ghosts_) {
    if (c->ipos > 0) places.push_back(place_of(*c));
  }
  return places;
}

bool PieceUpdate::hold_only(std::span<const LatticePoint> places) {
  const std::vector<Cell*> before = std::exchange(held_, {});
  for (Cell* c : before) c->wanted_level &= static_cast<std::uint8_t>(~is_held);
  for (const LatticePoint& p : places) {
    Cell* c = near_node_at(p);
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
  std::erase_if(ghosts_, has_gone);
  std::erase_if(near_, has_gone);
  std::erase_if(freed_, has_gone);
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
  state_.history.forget();
}

/// What it rested on may be no more than surplus now.
void PieceUpdate::remove(Cell& c) {
  if (owns(c)) {
    ++statistics_.removed;
    gone_own_.push_back(&c);
  }
  for (int d = c.ipos % 2; d < nb_directions; d += 2) {
    Cell* parent = link(c, d).cell();
    if (parent != nullptr && parent->ipos > 0) freed_.push_back(parent);
  }
  gone_.insert(&c);
  Cell* node = &c;
  remove_by_level(state_, node);
}

void PieceUpdate::release() {
  constexpr std::size_t few = 12;  // as where one process resolves
  const Removal removal(*this);
  if (!knows_fallen_ || fallen_.size() > own_nodes_.size() / few) {
    release_everywhere();
  } else {
    release_around_fallen();
  }
  knows_fallen_ = surplus_has_gone_ = true;
  fallen_.clear();
  freed_.clear();
  is_updating_ = is_listed_ = false;
  state_.surplus_has_gone = false;
}

void PieceUpdate::release_everywhere() {
  for (std::size_t l = state_.level_end.size(); l-- > 0;) {
    for (Cell* c = state_.level_end[l].next; c != nullptr;) {
      Cell* next = c->prev;
      if (is_surplus(*c)) remove(*c);
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
  std::size_t next = 0;  // removals make more
  while (next < freed_.size()) {
    Cell* c = freed_[next++];
    if (!gone_.contains(c) && is_surplus(*c)) remove(*c);
  }
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

void PieceUpdate::hold_ghosts(std::span<const LatticePoint> places) {
  if (!is_updating_ && !is_listed_) list_nodes();
  const Insertion insertion(*this);
  const std::size_t nb_before = newcomers_.size();
  Lattice known = Lattice::of_few(state_);
  for (Cell* c : ghosts_) known.add({place_of(*c), c, c->ipos});
  for (const LatticePoint& p : places) {
    if (!wants_.contains(p)) continue;
    const std::int32_t number = known.find(p);
    Cell* c = number < 0 ? make(p) : known.entries()[static_cast<std::size_t>(number)].cell;
    c->wanted_level |= is_held;
    held_ghosts_.push_back(c);
  }
  note_newcomers();
  nb_told_ = newcomers_.size();
  // After the last step of an update own nodes are listed already, and none comes here.
  if (!is_updating_) {
    ghosts_.insert(ghosts_.end(), newcomers_.begin() + static_cast<std::ptrdiff_t>(nb_before),
                   newcomers_.end());
    listed_revision_ = state_.mesh_revision;
  }
  state_.resolved_revision = state_.mesh_revision;
}

void PieceUpdate::hand_on_data(const std::function<bool(const Cell&)>& is_known,
                               std::size_t first_newcomer) {
  if (state_.n_cell_data <= 0) return;
  const std::size_t first = init_data_ ? 1 : 0;
  const std::size_t end =
      state_.transfer == Transfer::first ? 1 : static_cast<std::size_t>(state_.n_cell_data);
  for (std::size_t i = first_newcomer; i < newcomers_.size(); ++i) {
    if (is_known(*newcomers_[i])) continue;
    for (std::size_t value = first; value < end; ++value) {
      newcomers_[i]->data[value] = mean_of_parents(parents_[i], value);
    }
  }
}

void PieceUpdate::keep_window() {
  keeps_windows_ = true;
  is_listed_ = is_updating_ = knows_changes_ = false;
  state_.candidate_order = CandidateOrder::by_age;
}

/// Counts own nodes that come and go, and calls the caller's own hooks.
class PieceUpdate::Counting {
 public:
  explicit Counting(PieceUpdate& update) : state_(update.state_), hooks_(state_.hooks) {
    state_.hooks.inserted = [this, &update](Cell& c, std::span<Cell* const> parents) {
      inserted += update.owns(c) ? 1 : 0;
      if (hooks_.inserted) hooks_.inserted(c, parents);
    };
    state_.hooks.removing = [this, &update](Cell& c, std::span<Cell* const> neighbours) {
      if (hooks_.removing) hooks_.removing(c, neighbours);
      removed += update.owns(c) ? 1 : 0;
    };
  }
  Counting(const Counting&) = delete;
  Counting& operator=(const Counting&) = delete;
  ~Counting() { state_.hooks = std::move(hooks_); }

  std::int64_t inserted = 0, removed = 0;

 private:
  State& state_;
  NodeHooks hooks_;
};

void PieceUpdate::update_window(const std::function<UpdateStatistics()>& update) {
  const Counting counting(*this);
  statistics_ = update();
  statistics_.inserted = counting.inserted;
  statistics_.removed = counting.removed;
}

}  // namespace velmar_2d::detail
