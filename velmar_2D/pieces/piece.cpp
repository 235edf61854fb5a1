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

PieceUpdate::PieceUpdate(State& state, const Box& own, std::int32_t overlap)
    : state_(state), overlap_(overlap), wants_(Lattice::of_few(state)), box_(closed_at_sides(own)) {
  find_sides_of_box();
  state.is_of_piece = true;
}

double PieceUpdate::of_dist_0(std::int64_t units) const {
  return static_cast<double>(units) / static_cast<double>(wants_.grid_step()) *
         state_.domain.dist_0;
}

// Lines of the box lie where nodes on them have their coordinates, as told from the line of the
// grid before, less a part of the least way that there may be from a line to a node.
void PieceUpdate::find_sides_of_box() {
  constexpr double beyond = std::numeric_limits<double>::infinity();
  level_of_sides_ = state_.level_max;
  west_ = south_ = -beyond;
  east_ = north_ = beyond;
  const bool is_cut_east = box_.high.x <= wants_.frame_last().x;
  const bool is_cut_north = box_.high.y <= wants_.frame_last().y;
  std::int64_t lines = (wants_.grid_step() >> (state_.level_max + 1) / 2) | box_.low.x | box_.low.y;
  if (is_cut_east) lines |= box_.high.x;
  if (is_cut_north) lines |= box_.high.y;
  const double before = 0.25 * of_dist_0(lines & -lines);
  const auto note = [&](double& side, std::int64_t line, std::int64_t of_node, double coordinate) {
    if (of_node > line || line - of_node >= wants_.grid_step()) return;
    side = coordinate + of_dist_0(line - of_node) - before;
  };
  for (const Cell* c = state_.mesh_beg; c != nullptr && c->ipos == 0; c = c->next) {
    const LatticePoint p = place_of(*c);
    if (box_.low.x > 0) note(west_, box_.low.x, p.x, c->x);
    if (box_.low.y > 0) note(south_, box_.low.y, p.y, c->y);
    if (is_cut_east) note(east_, box_.high.x, p.x, c->x);
    if (is_cut_north) note(north_, box_.high.y, p.y, c->y);
  }
}

/// Along x or y, whichever is less; infinite where the box ends with the whole.
double PieceUpdate::distance_to_cut(const Cell& c) const {
  return std::min({c.x - west_, east_ - c.x, c.y - south_, north_ - c.y});
}

// A node is linked to others up to the spacing of its level away, and those to others up to that of
// theirs, which is at most twice as large. What others rest on, by however many steps, lies within
// four times that of its ipos. The grid is kept in all of the window, which ends with a cell.
bool PieceUpdate::is_near(const Cell& c) const {
  if (c.ipos == 0 || keeps_windows_) {
    return distance_to_cut(c) <= (overlap_ + 1.5) * state_.domain.dist_0;
  }
  const double widest = state_.domain.dist_0 / exact_power_of_2(c.ipos / 2);
  return distance_to_cut(c) <= 4.0 * widest;
}

Box PieceUpdate::closed_at_sides(Box box) const {
  if (box.high.x == wants_.frame_last().x) ++box.high.x;
  if (box.high.y == wants_.frame_last().y) ++box.high.y;
  return box;
}

LatticePoint PieceUpdate::place_of(const Cell& c) const {
  LatticePoint p{};
  if (!wants_.find_place(c, p)) list_was_changed(state_, "Piece");
  return p;
}

Point PieceUpdate::point_at(LatticePoint p) const {
  const Frame& frame = state_.domain.frame;
  return {frame.x_min + of_dist_0(p.x), frame.y_min + of_dist_0(p.y)};
}

/// Whether the tables are those of the mesh as it is.
bool PieceUpdate::knows_places() const {
  return ghost_table_.has_value() &&
         (is_updating_ || knows_changes_ || listed_revision_ == state_.mesh_revision);
}

Cell* PieceUpdate::node_at(LatticePoint p) {
  if (!wants_.contains(p)) return nullptr;
  if (nodes_by_place_) {
    const std::int32_t number = nodes_by_place_->find(p);
    return number < 0 ? nullptr : nodes_by_place_->entries()[static_cast<std::size_t>(number)].cell;
  }
  if (knows_places()) {
    if (owns(p)) {
      if (Cell* c = near_node_at(p)) return c;
    } else {
      const std::int32_t number = number_of_ghost(p);
      return number < 0 ? nullptr : ghost_table_->entries()[static_cast<std::size_t>(number)].cell;
    }
  }
  const Domain& domain = state_.domain;
  Point at = point_at(p);
  at = {std::clamp(at.x, domain.x_min, domain.x_max), std::clamp(at.y, domain.y_min, domain.y_max)};
  Cell* nearest = const_cast<Cell*>(locate(state_, at, nullptr));
  return nearest != nullptr && place_of(*nearest) == p ? nearest : nullptr;
}

void PieceUpdate::compute_derivatives() {
  if (state_.n_cell_data <= 0) return;
  list_if_changed();
  compute_data_at_nodes(state_, own_nodes_, 1);
}

void PieceUpdate::keep_window() {
  keeps_windows_ = true;
  is_listed_ = is_updating_ = knows_changes_ = false;
  ghost_table_.reset();
  state_.candidate_order = CandidateOrder::by_age;
}

/// Nodes may be finer than before.
void PieceUpdate::look_at_limit() {
  if (level_of_sides_ == state_.level_max) return;
  find_sides_of_box();
  is_listed_ = knows_changes_ = false;
}

// Own nodes that others need, as far as they are there, stay held.
void PieceUpdate::set_limit(const std::function<void()>& set) {
  begin_remapping();
  set();
  if (keeps_windows_) return;
  look_at_limit();
  is_listed_ = knows_changes_ = surplus_has_gone_ = false;
  newcomers_.clear();
  parents_.clear();
  to_ask_.clear();
  nb_asked_ = nb_noted_ = nb_told_ = 0;
  held_.clear();
  for (Cell* c : own_nodes()) {
    if ((c->wanted_level & is_held) != 0) held_.push_back(c);
  }
  state_.resolved_revision = state_.mesh_revision;  // nodes that go take nothing with them
}

/// Counts own nodes that come and go, calls the caller's own hooks, and leaves those of others out
/// of what is refused.
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
    state_.counts_refusal = [&update](const Cell& c) { return update.owns(c); };
  }
  Counting(const Counting&) = delete;
  Counting& operator=(const Counting&) = delete;
  ~Counting() {
    state_.hooks = std::move(hooks_);
    state_.counts_refusal = nullptr;
  }

  std::int64_t inserted = 0, removed = 0;

 private:
  State& state_;
  NodeHooks hooks_;
};

void PieceUpdate::update_window(
    const batch_size_function& sizes,
    const std::function<UpdateStatistics(const batch_size_function& counted)>& update) {
  look_at_limit();
  begin_remapping();
  const Counting counting(*this);
  std::int64_t nb_asked = 0;
  statistics_ = update([&](std::span<const Cell* const> nodes, std::span<double> of) {
    nb_asked +=
        std::count_if(nodes.begin(), nodes.end(), [this](const Cell* c) { return owns(*c); });
    sizes(nodes, of);
  });
  statistics_.inserted = counting.inserted;
  statistics_.removed = counting.removed;
  statistics_.visited = nb_asked;
}

}  // namespace velmar_2d::detail
