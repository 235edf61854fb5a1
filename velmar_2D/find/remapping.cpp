// Values by what lay under a control cell before an update.
//
//      before              after           A cell that has come, or is another than before, gets
//     +-------+-------+   +---+---+---+
//     |       |       |   |   |   |   |       sum (shared area x value before) / sum of shared
//     areas |   a   |   b   |   | a | c | b | |       |       |   |   |   |   |    from all that
//     have gone or are others now. Here a and b
//     +-------+-------+   +---+---+---+    keep their values, and c gets the mean of both.
#include <new>

#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

namespace {

/// Of nodes that are not noted. Newcomers have those below.
constexpr std::int32_t unnoted = -1;

std::int32_t number_of_newcomer(std::size_t i) { return -2 - static_cast<std::int32_t>(i); }
std::size_t newcomer_of(std::int32_t number) { return static_cast<std::size_t>(-2 - number); }

bool are_alike(const Polygon& a, const Polygon& b) {
  const auto is_alike = [](const Polygon::Corner& p, const Polygon::Corner& q) {
    return p.x == q.x && p.y == q.y;
  };
  return a.n == b.n &&
         std::equal(a.corners.begin(), a.corners.begin() + a.n, b.corners.begin(), is_alike);
}

bool comes_before(const Point& a, const Point& b) { return a.y != b.y ? a.y < b.y : a.x < b.x; }

}  // namespace

Bounds PlacedCell::bounds() const {
  Bounds of;
  for (std::size_t i = 0; i < polygon.n; ++i) {
    const double x = at.x + polygon.corners[i].x, y = at.y + polygon.corners[i].y;
    of.add({x, x, y, y});
  }
  return of;
}

Remapping::Remapping(State& state)
    : state_(&state), nb_values_(static_cast<std::size_t>(std::max(0, state.n_cell_data))) {
  state.remapping = this;
}

void Remapping::end() {
  for (const Before& before : before_) {
    if (before.node != nullptr) before.node->cell_before = unnoted;
  }
  for (const Newcomer& newcomer : newcomers_) {
    if (newcomer.node != nullptr) newcomer.node->cell_before = unnoted;
  }
  state_->remapping = nullptr;
}

// ---------------------------------------------------------------------------------------------
// While the mesh changes
// ---------------------------------------------------------------------------------------------

void Remapping::make_room(std::size_t nb_cells, std::size_t nb_newcomers) {
  constexpr std::size_t least = 64;
  const auto grown = [](std::size_t room, std::size_t wanted) {
    return wanted <= room ? room : std::max({2 * room, wanted, least});
  };
  const std::size_t cells = grown(room_for_cells_, before_.size() + nb_cells);
  const std::size_t newcomers = grown(room_for_newcomers_, newcomers_.size() + nb_newcomers);
  if (cells == room_for_cells_ && newcomers == room_for_newcomers_) return;
  try {
    before_.reserve(cells);
    values_.reserve(cells * nb_values_);
    order_.reserve(cells);
    tree_.reserve(cells);
    parts_.reserve(cells);
    newcomers_.reserve(newcomers);
    changed_.reserve(cells + newcomers);
  } catch (const std::bad_alloc&) {
    allocation_failed(*state_, cells * (sizeof(Before) + nb_values_ * sizeof(double)));
  }
  room_for_cells_ = cells;
  room_for_newcomers_ = newcomers;
}

void Remapping::will_change(Cell& c) {
  if (c.cell_before != unnoted) return;
  make_room(1, 0);
  const KnownShape* shape = look_at(state_->domain, c).shape;
  const auto number_of_polygon = static_cast<std::uint32_t>(polygons_.size());
  if (shape == nullptr) {
    try {
      polygons_.push_back(polygon_of(state_->domain, c));
    } catch (const std::bad_alloc&) {
      allocation_failed(*state_, 2 * polygons_.size() * sizeof(Polygon));
    }
  }
  c.cell_before = static_cast<std::int32_t>(before_.size());
  before_.push_back({{c.x, c.y}, shape, c.level, number_of_polygon, &c});
  for (std::size_t k = 0; k < nb_values_; ++k) {
    values_.push_back(k < c.data.size() ? c.data[k] : 0.0);
  }
}

void Remapping::has_come(Cell& c, bool has_first_value) noexcept {
  c.cell_before = number_of_newcomer(newcomers_.size());
  newcomers_.push_back({&c, has_first_value});
}

void Remapping::goes(const Cell& c) noexcept {
  if (c.cell_before > unnoted) {
    before_[static_cast<std::size_t>(c.cell_before)].node = nullptr;
  } else if (c.cell_before < unnoted) {
    newcomers_[newcomer_of(c.cell_before)].node = nullptr;
  }
}

// ---------------------------------------------------------------------------------------------
// Another mesh in place of the one before
// ---------------------------------------------------------------------------------------------

void Remapping::note_all(std::span<Cell* const> nodes) {
  make_room(nodes.size(), 0);
  for (Cell* c : nodes) will_change(*c);
  nb_noted_at_once_ = before_.size();
}

void Remapping::move_to(State& state, std::span<Cell* const> nodes) {
  state_ = &state;
  state.remapping = this;
  before_.resize(nb_noted_at_once_);
  values_.resize(nb_noted_at_once_ * nb_values_);
  for (Before& before : before_) before.node = nullptr;
  newcomers_.clear();
  make_room(0, nodes.size());
  order_.resize(nb_noted_at_once_);
  for (std::size_t i = 0; i < order_.size(); ++i) order_[i] = static_cast<std::uint32_t>(i);
  const auto place = [this](std::uint32_t i) -> const Point& { return before_[i].at; };
  std::sort(order_.begin(), order_.end(),
            [&](std::uint32_t a, std::uint32_t b) { return comes_before(place(a), place(b)); });
  for (Cell* c : nodes) {
    const Point at{c->x, c->y};
    const auto found = std::lower_bound(
        order_.begin(), order_.end(), at,
        [&](std::uint32_t i, const Point& wanted) { return comes_before(place(i), wanted); });
    if (found == order_.end() || comes_before(at, place(*found))) {
      has_come(*c, false);
    } else {
      before_[*found].node = c;
      c->cell_before = static_cast<std::int32_t>(*found);
    }
  }
}

void Remapping::keep_first_values() noexcept {
  for (Newcomer& newcomer : newcomers_) newcomer.has_first_value = true;
}

// ---------------------------------------------------------------------------------------------
// At the end
// ---------------------------------------------------------------------------------------------

PlacedCell Remapping::cell_of(const Cell& c) const {
  return {{c.x, c.y}, cell_below(state_->domain, c)};
}

PlacedCell Remapping::cell_of(const Before& before) const {
  return {before.at, before.shape != nullptr
                         ? cell_below(state_->domain, *before.shape, before.level)
                         : polygons_[before.polygon]};
}

bool Remapping::is_as_before(const Before& before) const {
  if (before.node == nullptr) return false;
  const Cell& c = *before.node;
  const KnownShape* shape = look_at(state_->domain, c).shape;
  if (shape != nullptr && shape == before.shape && c.level == before.level) return true;
  return are_alike(cell_of(before).polygon, cell_of(c).polygon);
}

void Remapping::find_parts(const PlacedCell& cell, std::vector<CellPart>& parts) const {
  const SharedPart whole(cell.polygon);
  tree_.for_those_that_meet(cell.bounds(), [&](std::size_t i) {
    const PlacedCell below = cell_of(before_[order_[i]]);
    SharedPart part = whole;
    part.cut(below.polygon, below.at.x - cell.at.x, below.at.y - cell.at.y);
    const double area = part.area();
    if (!(area > 0.0)) return;
    parts.push_back({below.at, area, values_.data() + order_[i] * nb_values_});
  });
}

std::size_t Remapping::first_value_of(const Cell& c) const {
  return c.cell_before < unnoted && newcomers_[newcomer_of(c.cell_before)].has_first_value ? 1 : 0;
}

void Remapping::write_mean(std::vector<CellPart>& parts, Cell& c) const {
  if (parts.empty()) return;
  std::sort(parts.begin(), parts.end(),
            [](const CellPart& a, const CellPart& b) { return comes_before(a.at, b.at); });
  double whole = 0.0;
  for (const CellPart& part : parts) whole += part.area;
  const std::size_t nb_here = std::min(nb_values_, c.data.size());
  for (std::size_t k = first_value_of(c); k < nb_here; ++k) {
    // As a difference from one of them, so that a constant stays what it is.
    const double base = parts.front().values[k];
    double sum = 0.0, lowest = base, highest = base;
    for (const CellPart& part : parts) {
      const double value = part.values[k];
      sum += part.area * (value - base);
      lowest = std::min(lowest, value);
      highest = std::max(highest, value);
    }
    c.data[k] = std::clamp(base + sum / whole, lowest, highest);
  }
}

void Remapping::remap() noexcept {
  compare([](const Point&) { return true; });
  for (Cell* c : changed_) {
    parts_.clear();
    find_parts(cell_of(*c), parts_);
    write_mean(parts_, *c);
  }
}

}  // namespace velmar_2d::detail
