// A mesh in pieces: what a piece needs of others is found from positions alone.
//
// A piece knows the least mesh around its own nodes. Of the places that the rings of these take,
// some lie in the boxes of others: they, and what they rest on, are wanted there. The others make
// them exist as if one of their own nodes wanted them, which may bring nodes that want more; until
// nothing is new. Then each piece has exactly the nodes that one mesh would have in its box.
#include <cmath>

#include "velmar_2D/find/find.hpp"
#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

namespace {

/// The spacing of a level along x or y, in units of the lattice.
std::int64_t reach_of(const Lattice& lattice, std::int32_t level) {
  return lattice.grid_step() >> (level / 2);
}

}  // namespace

std::int64_t Box::distance_to(LatticePoint p) const {
  const auto beyond = [](std::int64_t at, std::int64_t first, std::int64_t end) {
    return at < first ? first - at : at >= end ? at - end + 1 : 0;
  };
  return std::max(beyond(p.x, low.x, high.x), beyond(p.y, low.y, high.y));
}

PieceUpdate::PieceUpdate(State& state, const Window& own, std::int32_t nx, std::int32_t ny)
    : state_(state),
      own_(own),
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
// four times that of its ipos.
bool PieceUpdate::is_near(const Cell& c) const {
  const double spacing = state_.domain.dist_0 / exact_power_of_2(c.level / 2);
  const double resting = state_.domain.dist_0 / exact_power_of_2(std::max(c.ipos, 1) / 2);
  return distance_to_cut(c) <= std::max(8.0 * spacing, 4.0 * resting);
}

void PieceUpdate::find_near() {
  near_.clear();
  for (Cell* c = state_.mesh_beg; c != nullptr; c = c->next) {
    if (owns(*c) && is_near(*c)) near_.push_back(c);
  }
  near_is_current_ = true;
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
  forget_wants();
  held_.clear();
  held_ghosts_.clear();
  newcomers_.clear();
  parents_.clear();
  to_ask_.clear();
  nb_asked_ = nb_noted_ = 0;
  first_new_id_ = state_.next_id;
  statistics_ = {};
  reaches_cut_ = surplus_has_gone_ = false;
  if (state_.resolved_revision != state_.mesh_revision) {
    split_sublists(state_);
    const JoinAtEnd join_at_end(state_);
    restore_rings(state_, resolution.most_nodes);
  }
  near_.clear();
  for (Cell* c = state_.mesh_beg; c != nullptr; c = c->next) {
    c->wanted_level = 0;
    if (!owns(*c)) continue;
    to_ask_.push_back(c);
    if (is_near(*c)) near_.push_back(c);
  }
  near_is_current_ = true;
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
      Cell& c = *to_ask_[nb_asked_++];
      ask(c, sizes_ ? sizes[nb_asked_ - 1 - first] : SizesOneByOne(size_).at(c));
      note_newcomers();
    }
  } while (state_.n_cell_data == 0 && nb_asked_ < to_ask_.size());
}

void PieceUpdate::ask(Cell& c, double size) {
  ++statistics_.visited;
  const Want want = WantedLevels(state_, resolution_.margin).of(c, size, 0);
  c.wanted_level = static_cast<std::uint8_t>(want.kept | (c.wanted_level & is_held));
  if (want.level > c.level) {
    RingMaker(state_, newcomers_, resolution_.most_nodes).raise(c, want.level);
  }
  if (want.is_refused && c.level >= want.level) statistics_.refused += c.reserve;
  want_rings_beyond(c, want.level);
}

void PieceUpdate::note_newcomers() {
  for (; nb_noted_ < newcomers_.size(); ++nb_noted_) {
    Cell& c = *newcomers_[nb_noted_];
    for (const int side : straight_directions) {
      const Boundary* record = link(c, side).boundary();
      if (record != nullptr && record->bc_type == bc_type_cut) reaches_cut_ = true;
    }
    if (!owns(c)) continue;
    if (near_is_current_ && is_near(c)) near_.push_back(&c);
    to_ask_.push_back(&c);
    ++statistics_.inserted;
  }
}

void PieceUpdate::want_rings_beyond(const Cell& c, std::int32_t level) {
  const double widest = state_.domain.dist_0 / exact_power_of_2(std::max(c.ipos, 1) / 2);
  if (distance_to_cut(c) > widest) return;
  const LatticePoint p = place_of(c);
  for (std::int32_t l = std::max(1, c.ipos); l <= std::max(level, c.ipos); ++l) {
    for (int d = l % 2; d < nb_directions; d += 2) want(wants_.neighbour(p, d, l));
  }
}

/// With all that it rests on elsewhere.
void PieceUpdate::want(LatticePoint p) {
  if (!wants_.is_in_frame(p) || owns(p)) return;
  const std::int32_t ipos = wants_.ipos(p);
  if (ipos == 0 || wants_.add({p, nullptr, ipos}) < 0) return;
  new_wants_.push_back(p);
  for (int d = ipos % 2; d < nb_directions; d += 2) want(wants_.neighbour(p, d, ipos));
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
  near_is_current_ = false;
  note_newcomers();
  state_.resolved_revision = state_.mesh_revision;
}

void PieceUpdate::forget_wants() {
  wants_ = Lattice::of_few(state_);
  new_wants_.clear();
}

// Each ghost that is no surplus here has an own node that wants it or rests on it, if only by way
// of other ghosts.
void PieceUpdate::find_needs() {
  forget_wants();
  if (!surplus_has_gone_) {
    remove_surplus([this](const Cell& c) { return !owns(c); });
  }
  for (const Cell* c = state_.mesh_beg; c != nullptr; c = c->next) {
    if (c->ipos > 0 && !owns(*c)) new_wants_.push_back(place_of(*c));
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
  return std::any_of(before.begin(), before.end(),
                     [](const Cell* c) { return (c->wanted_level & is_held) == 0; });
}

void PieceUpdate::forget_newcomers(const std::unordered_set<const Cell*>& gone) {
  std::size_t n = 0;
  for (std::size_t i = 0; i < newcomers_.size(); ++i) {
    if (gone.count(newcomers_[i]) > 0) continue;
    newcomers_[n] = newcomers_[i];
    parents_[n++] = parents_[i];
  }
  newcomers_.resize(n);
  parents_.resize(n);
  nb_noted_ = n;
}

void PieceUpdate::release() {
  remove_surplus([](const Cell&) { return true; });
  surplus_has_gone_ = true;
  state_.surplus_has_gone = false;
}

/// Of nodes that may go.
template <typename MayGo>
void PieceUpdate::remove_surplus(const MayGo& may_go) {
  for (Cell* c : std::exchange(held_ghosts_, {})) {
    c->wanted_level &= static_cast<std::uint8_t>(~is_held);
  }
  std::unordered_set<const Cell*> gone;
  split_sublists(state_);
  const JoinAtEnd join_at_end(state_);
  Walk walk = Walk::to_coarsen(state_.history);
  state_.history.begin_recording(state_.nb_nodes);
  for (std::size_t l = state_.level_end.size(); l-- > 0;) {
    for (Cell& c : walk(state_.level_end[l].next)) {
      const bool removing = is_surplus(c) && may_go(c);
      walk.changes_mesh_here(removing);
      if (!removing) continue;
      if (owns(c)) ++statistics_.removed;
      gone.insert(&c);
      Cell* node = &c;
      remove_by_level(state_, node);
      walk.removed_node();
    }
  }
  state_.history.end_recording();
  near_is_current_ = false;
  forget_newcomers(gone);
  state_.resolved_revision = state_.mesh_revision;
}

// A node of level l is linked to none beyond the spacing of that level.
std::vector<Cell*> PieceUpdate::border(const Window& of, int layers) {
  const Box other = box_of(of);
  std::vector<Cell*> found;
  const auto is_near = [&](const Cell& c) {
    return other.distance_to(place_of(c)) <= reach_of(wants_, c.level);
  };
  if (!near_is_current_) find_near();
  for (Cell* c : near_) {
    bool needed = is_near(*c);
    for (int d = 0; d < nb_directions && !needed && layers > 1; ++d) {
      const Cell* linked = link(*c, d).cell();
      needed = linked != nullptr && is_near(*linked);
    }
    if (needed) found.push_back(c);
  }
  return found;
}

void PieceUpdate::hold_ghosts(std::span<const LatticePoint> places) {
  const Insertion insertion(*this);
  for (const LatticePoint& p : places) {
    if (!wants_.contains(p)) continue;
    held_ghosts_.push_back(make(p));
    held_ghosts_.back()->wanted_level |= is_held;
  }
  note_newcomers();
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

}  // namespace velmar_2d::detail
