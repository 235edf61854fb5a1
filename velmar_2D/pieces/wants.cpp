// Nodes that come: by the wants of own nodes, by those of others, and as ghosts.
#include <limits>

#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

namespace {

constexpr double not_a_size = std::numeric_limits<double>::quiet_NaN();

}  // namespace

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
  gone_before_ = {};
  reaches_cut_ = ghosts_are_needed_ = false;
  knows_fallen_ = std::exchange(surplus_has_gone_, false);
  look_at_limit();
  fallen_.clear();
  freed_.clear();
  without_size_.clear();
  begin_remapping();
  if (state_.resolved_revision != state_.mesh_revision) {
    split_sublists(state_);
    const JoinAtEnd join_at_end(state_);
    restore_rings(state_, resolution.most_nodes);
    knows_fallen_ = false;
    held_.clear();  // some may have gone: others tell anew what they need
    for (const Handle& first : state_.level_beg) {
      for (Cell* c = first.next; c != nullptr; c = c->next) {
        c->wanted_level &= static_cast<std::uint8_t>(~is_held);
      }
    }
  }
  knows_changes_ = false;
  list_if_changed();
  knows_changes_ = true;
  first_new_id_ = state_.next_id;
  gone_near_.clear();
  waiting_to_go_.clear();
  to_ask_ = own_nodes_;
  state_.progress.begin("refining", static_cast<std::int64_t>(to_ask_.size()));
  nb_near_before_ = near_.size();
  new_ghosts_.clear();
  graded_.reset();
  if (resolution.slope > 0.0) graded_.emplace(state_, resolution.slope, box_);
  is_updating_ = true;
}

/// By generations where there are data, since those that come need derivatives first. Where sizes
/// are graded none comes before settle().
void PieceUpdate::ask() {
  const Insertion insertion(*this);
  if (nb_asked_ > 0) insertion.derive_later.derive(std::span(to_ask_).subspan(nb_asked_));
  constexpr std::size_t ahead = 12;
  std::vector<double> sizes;
  do {
    const std::size_t first = nb_asked_, end = to_ask_.size();
    if (sizes_) {
      const std::vector<const Cell*> nodes(to_ask_.begin() + static_cast<std::ptrdiff_t>(first),
                                           to_ask_.end());
      sizes.assign(end - first, not_a_size);
      sizes_(nodes, sizes);
    }
    while (nb_asked_ < end) {
      if (nb_asked_ + ahead < end) prefetch_lines(to_ask_[nb_asked_ + ahead], 2);
      state_.progress.step();
      Cell& c = *to_ask_[nb_asked_++];
      ask(c, sizes_ ? sizes[nb_asked_ - 1 - first] : SizesOneByOne(size_).at(c));
      if (nb_noted_ < newcomers_.size()) note_newcomers();
    }
  } while (state_.n_cell_data == 0 && nb_asked_ < to_ask_.size());
  if (graded_) graded_->grade();
}

void PieceUpdate::ask(Cell& c, double size) {
  ++statistics_.visited;
  if (graded_) {
    graded_->add(c, size);
    return;
  }
  if (!(size >= 0.0)) without_size_.push_back(&c);
  const Want want = settle(c, size, 0);
  if (want.is_refused && c.level >= want.level) statistics_.refused += c.reserve;
}

Want PieceUpdate::settle(Cell& c, double size, std::int32_t lowest) {
  const Want want = WantedLevels(state_, resolution_.margin).of(c, size, lowest);
  if (knows_fallen_ && may_release(c, want)) fallen_.push_back(&c);
  const std::int32_t kept = wanted_level(c, want.kept);  // what others were told is a number
  if (kept != wanted_level(c) && is_near(c)) count_wants(c, wanted_level(c), kept);
  c.wanted_level = static_cast<std::uint8_t>(kept | (c.wanted_level & is_held));
  if (want.level > c.level) {
    RingMaker(state_, newcomers_, resolution_.most_nodes).raise(c, want.level);
  }
  return want;
}

/// A node without a size of its own wants the level that is there, or more.
void PieceUpdate::settle() {
  if (!graded_) {
    for (Cell* c : without_size_) settle(*c, not_a_size, 0);
    return;
  }
  const Insertion insertion(*this);
  for (const std::int32_t number : graded_->take_changed()) {
    const auto i = static_cast<std::size_t>(number);
    const GradedSizes& sizes = graded_->graded();
    Cell* c = sizes.cell_of(i);
    if (c == nullptr) continue;
    settle(*c, sizes.size_of(i), sizes.has_own(i) ? 0 : c->level);
    if (nb_noted_ < newcomers_.size()) note_newcomers();
  }
}

void PieceUpdate::take_sizes(std::size_t piece, std::span<const PlacedSize> told) {
  if (!graded_) return;
  if (!graded_->take_over(piece, told)) list_was_changed(state_, "Piece");
  graded_->grade();
}

/// Once all ghosts are there, and with them the reserves near the cuts.
void PieceUpdate::end_grading() {
  if (!graded_) return;
  const WantedLevels wants(state_, resolution_.margin);
  const GradedSizes& sizes = graded_->graded();
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    const Cell* c = sizes.cell_of(i);
    if (c == nullptr) continue;
    const Want want = wants.of(*c, sizes.size_of(i), sizes.has_own(i) ? 0 : c->level);
    if (want.is_refused && c->level >= want.level) statistics_.refused += c->reserve;
  }
  graded_.reset();
}

void PieceUpdate::note_newcomers() {
  for (; nb_noted_ < newcomers_.size(); ++nb_noted_) {
    Cell& c = *newcomers_[nb_noted_];
    for (const int side : straight_directions) {
      const Boundary* record = link(c, side).boundary();
      if (record != nullptr && record->bc_type == bc_type_cut) reaches_cut_ = true;
    }
    if (ghost_table_) note_parents(c, nb_noted_);
    if (!owns(c)) continue;
    if (is_near(c)) {
      near_.push_back(near_of(c));
      if (near_table_) near_table_->add({near_.back().at, &c, c.ipos});
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
  Cell* c = newcomers_.back();
  if (nodes_by_place_) nodes_by_place_->add({p, c, ipos});
  note_newcomers();
  return c;
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
  ghost_table_.reset();
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
  nb_told_ = newcomers_.size();
  is_listed_ = knows_changes_ = false;
  state_.resolved_revision = state_.mesh_revision;
}

void PieceUpdate::hold_ghosts(std::span<const LatticePoint> places) {
  if (!is_updating_ && !is_listed_) list_nodes();
  const Insertion insertion(*this);
  const bool is_all_told = !has_wants();
  for (const LatticePoint& p : places) {
    if (wants_.contains(p)) make(p)->wanted_level |= is_held;
  }
  if (is_all_told) nb_told_ = newcomers_.size();  // these are known to their owners
  // After the last step of an update own nodes are listed already, and none comes here.
  if (!is_updating_) {
    listed_revision_ = state_.mesh_revision;
    end_grading();
  }
  state_.resolved_revision = state_.mesh_revision;
}

void PieceUpdate::hand_on_data(const std::function<bool(const Cell&)>& is_known,
                               std::size_t first_newcomer) {
  if (state_.n_cell_data <= 0) return;
  const std::size_t first = init_data_ ? 1 : 0;
  const std::size_t end =
      state_.transfer == Transfer::first ? 1 : static_cast<std::size_t>(state_.n_cell_data);
  // What no known node stands behind holds its values since it came.
  std::unordered_set<const Cell*> changed;
  const auto is_changed = [&](const Cell* parent) { return changed.contains(parent); };
  for (std::size_t i = first_newcomer; i < newcomers_.size(); ++i) {
    Cell& c = *newcomers_[i];
    if (is_known(c)) {
      changed.insert(&c);
    } else if (!changed.empty() &&
               std::any_of(parents_[i].begin(), parents_[i].end(), is_changed)) {
      changed.insert(&c);
      for (std::size_t value = first; value < end; ++value) {
        c.data[value] = mean_of_parents(parents_[i], value);
      }
    }
  }
}

}  // namespace velmar_2d::detail
