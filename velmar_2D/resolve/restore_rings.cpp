// Putting a mesh in order that other operations have left with holes.
//
// Coarsening can remove a node from among finer ones, single steps of a caller anything anywhere.
// What is left is taken as a set of positions; all else follows from those.
#include <cmath>
#include <new>
#include <optional>

#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

namespace {

/// A node that is to be made, with all that callbacks have to say about it.
struct Missing {
  std::size_t entry;
  double x = 0.0, y = 0.0, first_value = 0.0;
  std::array<NeighbourLink, 4> sides;  ///< by direction / 2
  std::int32_t nb_sides = 0;
};

/// A node that is not as its surroundings want it, and what is to become of it.
struct Disorder {
  std::int32_t entry = 0, level = 0, reserve = 0;
  std::array<std::int32_t, nb_directions> linked{};  ///< entries; -1: none
  std::array<std::uint8_t, nb_directions> link_levels{};
};

class Restorer {
 public:
  Restorer(State& state, std::int32_t highest_ipos) : state_(state), lattice_(state, highest_ipos) {
    missing_by_ipos_.resize(static_cast<std::size_t>(highest_ipos) + 1);
  }

  /// Finds out all there is to do; takes all memory but that of the nodes.
  void prepare() {
    take_nodes();
    find_missing();
    find_disorder();
    made_.reserve(missing_.size());
    if (state_.remapping != nullptr) note_cells();
    if (conserves(state_) && !missing_.empty()) {
      areas_.reserve(nb_nodes_);
      for (std::size_t i = 0; i < nb_nodes_; ++i) {
        areas_.push_back(control_area(state_, *lattice_.entries()[i].cell));
        state_.progress.step();
      }
      donors_.reserve(nb_directions * missing_.size());
      taken_by_.assign(nb_nodes_, no_cluster);
      clusters_.resize(missing_.size());
    }
  }
  std::int64_t nb_missing_nodes() const { return static_cast<std::int64_t>(missing_.size()); }

  bool restore() {
    ask_callbacks();
    make_missing();
    for (Cell* c : strays_) {
      if (state_.remapping != nullptr) state_.remapping->goes(*c);
      leave_stretch(state_, *c);
      release_cell(state_, c);
    }
    bool changed = false;
    for (const Disorder& node : disorder_) changed = put_in_order(node) || changed;
    state_.links_may_be_one_way = false;
    set_regular(state_.domain);
    set_values();
    call_hooks();
    return changed;
  }

 private:
  /// Of all nodes that are to change.
  void note_cells() const {
    state_.remapping->make_room_for(missing_.size());
    for (Cell* c : strays_) state_.remapping->will_change(*c);
    for (const Disorder& node : disorder_) {
      Cell* c = lattice_.entries()[static_cast<std::size_t>(node.entry)].cell;
      if (c != nullptr) state_.remapping->will_change(*c);
    }
  }
  // Nodes in the order of their position index.
  void take_nodes() {
    for (const Handle& stretch : state_.level_beg) {
      first_of_ipos_.push_back(lattice_.entries().size());
      for (Cell* c = stretch.next; c != nullptr; c = c->next) {
        LatticePoint p{};
        if (!lattice_.find_place(*c, p) || lattice_.add({p, c, c->ipos}) < 0) strays_.push_back(c);
        state_.progress.step();
      }
    }
    nb_nodes_ = lattice_.entries().size();
    first_of_ipos_.push_back(nb_nodes_);
  }

  void add_missing(LatticePoint p) {
    const std::int32_t ipos = lattice_.ipos(p);
    const std::int32_t number = lattice_.add({p, nullptr, ipos});
    if (number >= 0) {
      missing_by_ipos_[static_cast<std::size_t>(ipos)].push_back(static_cast<std::size_t>(number));
    }
  }

  /// What a node rests on has a lower position index.
  void add_parents(std::size_t number) {
    state_.progress.step();
    const Lattice::Entry entry = lattice_.entries()[number];
    for (int d = entry.ipos % 2; d < nb_directions; d += 2) {
      const LatticePoint parent = lattice_.neighbour(entry.at, d, entry.ipos);
      if (lattice_.contains(parent) && lattice_.find(parent) < 0) add_missing(parent);
    }
  }

  void find_missing() {
    for (std::size_t l = missing_by_ipos_.size(); l-- > 1;) {
      for (std::size_t i = first_of_ipos_[l]; i < first_of_ipos_[l + 1]; ++i) add_parents(i);
      std::size_t k = 0;  // parents that are missing too may join these
      while (k < missing_by_ipos_[l].size()) add_parents(missing_by_ipos_[l][k++]);
    }
    const LatticePoint last = lattice_.last();
    for (LatticePoint p = lattice_.first(); p.y <= last.y; p.y += lattice_.grid_step()) {
      for (p.x = lattice_.first().x; p.x <= last.x; p.x += lattice_.grid_step()) {
        if (lattice_.find(p) < 0) add_missing(p);
      }
    }
    for (const std::vector<std::size_t>& numbers : missing_by_ipos_) {
      for (const std::size_t number : numbers) missing_.push_back({number, 0, 0, 0, {}, 0});
    }
    missing_of_.resize(missing_.size());
    for (std::size_t i = 0; i < missing_.size(); ++i)
      missing_of_[missing_[i].entry - nb_nodes_] = i;
  }

  /// As the grid was made: from the east side westwards.
  void place_on_grid(Missing& m, LatticePoint p) const {
    const auto lines = [this](std::int64_t steps) {
      const std::int64_t whole = steps / lattice_.grid_step();
      return static_cast<double>(whole);
    };
    const Frame& frame = state_.domain.frame;
    const std::int64_t width = lattice_.line_at(frame.x_max - frame.x_min);
    m.x = p.x == 0 ? frame.x_min : frame.x_max - lines(width - p.x) * state_.domain.dist_0;
    m.y = frame.y_min + lines(p.y) * state_.domain.dist_0;
  }

  void ask_callbacks() {
    for (Missing& m : missing_) {
      const Lattice::Entry& entry = lattice_.entries()[m.entry];
      if (entry.ipos == 0) {
        place_on_grid(m, entry.at);
      } else {
        place_between_parents(m, entry);
      }
      for (const int side : straight_directions) {
        if (!lattice_.is_on_side(entry.at, side)) continue;
        m.sides[static_cast<std::size_t>(side / 2)] = side_link(state_, side, m.x, m.y);
        ++m.nb_sides;
      }
      if (state_.n_cell_data > 0 && !state_.data_interpolation) {
        m.first_value = initial_data(state_, {m.x, m.y, entry.ipos, entry.ipos, {}, {}});
      }
    }
    if (!state_.hooks.removing) return;
    for (Cell* c : strays_) {
      std::array<Cell*, nb_directions> neighbours{};
      std::size_t n = 0;
      for (int d = 0; d < nb_directions; ++d) {
        if (Cell* neighbour = link(*c, d).cell()) neighbours[n++] = neighbour;
      }
      state_.hooks.removing(*c, std::span<Cell* const>(neighbours.data(), n));
    }
  }

  /// Of a node, or of a missing one that has been placed.
  Point position_of(std::size_t number) const {
    if (const Cell* c = lattice_.entries()[number].cell) return {c->x, c->y};
    const Missing& m = missing_[missing_of_[number - nb_nodes_]];
    return {m.x, m.y};
  }

  /// Midway between two opposite parents; those along a side, if it has no others.
  void place_between_parents(Missing& m, const Lattice::Entry& entry) const {
    for (int d = entry.ipos % 2; d < nb_directions / 2; d += 2) {
      const LatticePoint a = lattice_.neighbour(entry.at, d, entry.ipos);
      const LatticePoint b = lattice_.neighbour(entry.at, d + 4, entry.ipos);
      if (!lattice_.contains(a) || !lattice_.contains(b)) continue;
      const Point pa = position_of(static_cast<std::size_t>(lattice_.find(a)));
      const Point pb = position_of(static_cast<std::size_t>(lattice_.find(b)));
      m.x = (pa.x + pb.x) / 2.0;
      m.y = (pa.y + pb.y) / 2.0;
      return;
    }
  }

  /// All or none.
  void make_missing() {
    try {
      for (const Missing& m : missing_) {
        made_.push_back(new_cell(state_, lattice_.entries()[m.entry].ipos));
      }
    } catch (...) {
      for (Cell* c : made_) release_cell(state_, c);
      throw;
    }
    for (std::size_t i = 0; i < made_.size(); ++i) {
      const Missing& m = missing_[i];
      Cell& c = *made_[i];
      c.x = m.x;
      c.y = m.y;
      c.ipos = lattice_.entries()[m.entry].ipos;
      c.on_boundary = m.nb_sides;
      for (std::size_t side = 0; side < m.sides.size(); ++side) {
        link(c, 2 * static_cast<int>(side)) = m.sides[side];
      }
      enter_stretch(state_, c);
      lattice_.entries()[m.entry].cell = &c;
      if (state_.remapping != nullptr) state_.remapping->has_come(c, !state_.data_interpolation);
    }
  }

  bool has_member(LatticePoint p, int direction, std::int32_t level) const {
    return lattice_.holds(lattice_.neighbour(p, direction, level));
  }
  /// Whether the next ring has a member on this hand, or the domain ends there.
  bool is_closed(LatticePoint p, int hand, std::int32_t level) const {
    const LatticePoint beside = lattice_.neighbour(p, hand, level + 1);
    return !lattice_.contains(beside) || lattice_.find(beside) >= 0;
  }

  /// Members of a ring that are missing.
  std::int32_t nb_missing(LatticePoint p, std::int32_t level) const {
    std::int32_t n = 0;
    for (int d = level % 2; d < nb_directions; d += 2) {
      const LatticePoint member = lattice_.neighbour(p, d, level);
      n += lattice_.contains(member) && lattice_.find(member) < 0 ? 1 : 0;
    }
    return n;
  }

  /// The entry of the nearest member of a ring in this direction, unless it is cut off; and the
  /// link's level. Links along a side have half a face, whether they are there or are to come.
  std::pair<std::int32_t, std::int32_t> linked(const Lattice::Entry& entry, int d) const {
    const bool along_side = d % 2 == 0 && (lattice_.is_on_side(entry.at, (d + 2) & 7) ||
                                           lattice_.is_on_side(entry.at, (d + 6) & 7));
    std::int32_t level = entry.ipos % 2 == d % 2 ? entry.ipos : entry.ipos + 1;
    if (!has_member(entry.at, d, level)) return {-1, along_side ? 1 : 2};
    while (has_member(entry.at, d, level + 2)) level += 2;
    const int closed =
        (is_closed(entry.at, d - 1, level) ? 1 : 0) + (is_closed(entry.at, d + 1, level) ? 1 : 0);
    if (closed == 2) return {-1, along_side ? 1 : 2};
    return {lattice_.find(lattice_.neighbour(entry.at, d, level)), 2 - closed};
  }

  /// What is to become of a node.
  Disorder order_of(std::size_t number) const {
    const Lattice::Entry& entry = lattice_.entries()[number];
    Disorder node;
    node.entry = static_cast<std::int32_t>(number);
    node.level = entry.ipos;
    while ((node.reserve = nb_missing(entry.at, node.level + 1)) == 0) ++node.level;
    for (int d = 0; d < nb_directions; ++d) {
      const auto i = static_cast<std::size_t>(d);
      const auto [number_there, link_level_there] = linked(entry, d);
      node.linked[i] = number_there;
      node.link_levels[i] = static_cast<std::uint8_t>(link_level_there);
      // As the grid was made.
      const bool on_grid = node.level == 0 && d % 2 == 0 && node.linked[i] >= 0 &&
                           lattice_.entries()[static_cast<std::size_t>(node.linked[i])].ipos == 0;
      if (on_grid) node.link_levels[i] = 1;
    }
    return node;
  }

  /// Whether a link stays what it is: the record of a side, or of none.
  bool leads_out(const Lattice::Entry& entry, const Cell& c, int d) const {
    return d % 2 == 0 && lattice_.is_on_side(entry.at, d) && link(c, d).cell() == nullptr;
  }

  bool is_in_order(const Disorder& node) const {
    const Lattice::Entry& entry = lattice_.entries()[static_cast<std::size_t>(node.entry)];
    if (entry.cell == nullptr) return false;
    Cell& c = *entry.cell;
    if (node.level != c.level || node.reserve != c.reserve) return false;
    for (int d = 0; d < nb_directions; ++d) {
      if (leads_out(entry, c, d)) continue;
      const std::int32_t there = node.linked[static_cast<std::size_t>(d)];
      Cell* cell = there < 0 ? nullptr : lattice_.entries()[static_cast<std::size_t>(there)].cell;
      if (there >= 0 && cell == nullptr) return false;
      if (link(c, d) != NeighbourLink(cell) ||
          link_level(c, d) != node.link_levels[static_cast<std::size_t>(d)]) {
        return false;
      }
    }
    return true;
  }

  /// The whole mesh is looked through before any node is touched: from here on nothing may fail.
  void find_disorder() {
    for (std::size_t i = 0; i < lattice_.entries().size(); ++i) {
      const Disorder node = order_of(i);
      if (!is_in_order(node)) disorder_.push_back(node);
      state_.progress.step();
    }
  }

  /// Returns whether that changes more than levels of links.
  bool put_in_order(const Disorder& node) {
    const Lattice::Entry& entry = lattice_.entries()[static_cast<std::size_t>(node.entry)];
    Cell& c = *entry.cell;
    bool changed = node.level != c.level || node.reserve != c.reserve;
    for (int d = 0; d < nb_directions; ++d) {
      if (leads_out(entry, c, d)) continue;
      const auto i = static_cast<std::size_t>(d);
      Cell* there = node.linked[i] < 0
                        ? nullptr
                        : lattice_.entries()[static_cast<std::size_t>(node.linked[i])].cell;
      changed = changed || link(c, d) != NeighbourLink(there);
      link(c, d) = there;
      link_level(c, d) = node.link_levels[i];
    }
    c.level = node.level;
    c.reserve = node.reserve;
    c.signature_set = false;
    c.area = -1.0;
    return changed;
  }

  /// Data values of nodes that were made. Parents come first.
  void set_values() {
    if (state_.n_cell_data <= 0 || missing_.empty()) return;
    const std::size_t first = state_.data_interpolation ? 0 : 1;
    const std::size_t n =
        state_.transfer == Transfer::first ? 1 : static_cast<std::size_t>(state_.n_cell_data);
    for (const Missing& m : missing_) {
      const Lattice::Entry& entry = lattice_.entries()[m.entry];
      if (first == 1) entry.cell->data[0] = m.first_value;
      for (std::size_t i = first; i < n; ++i) entry.cell->data[i] = interpolated(entry, i);
    }
    if (conserves(state_)) take_from_cells(first);
  }

  /// What a node rests on, as far as it is there.
  std::size_t parents_of(const Lattice::Entry& entry, std::array<Cell*, 4>& parents) const {
    std::size_t n = 0;
    for (int d = entry.ipos % 2; d < nb_directions; d += 2) {
      const LatticePoint there = lattice_.neighbour(entry.at, d, entry.ipos);
      if (!lattice_.holds(there)) continue;
      parents[n++] = lattice_.entries()[static_cast<std::size_t>(lattice_.find(there))].cell;
    }
    return n;
  }

  /// The mean of the parents, along the side on a side; of what is linked, for nodes of the grid.
  double interpolated(const Lattice::Entry& entry, std::size_t value) const {
    const bool along_side = entry.cell->on_boundary == 1 && entry.ipos > 0;
    std::array<Cell*, 4> parents{};
    double sum = 0.0;
    int n = 0;
    for (std::size_t i = 0, end = parents_of(entry, parents); i < end; ++i) {
      if (along_side && parents[i]->on_boundary == 0) continue;
      sum += value_of(*parents[i], value);
      ++n;
    }
    return n == 0 ? 0.0 : sum / n;
  }

  /// Nodes that were made beside one another take from the same cells: such a cluster gets the mean
  /// of all that it takes.
  void take_from_cells(std::size_t first) {
    for (std::size_t i = 0; i < clusters_.size(); ++i) clusters_[i].of = i;
    for (std::size_t i = 0; i < missing_.size(); ++i) {
      for (int d = 0; d < nb_directions; ++d) {
        const Cell* neighbour = link(*made_[i], d).cell();
        LatticePoint there{};
        if (neighbour == nullptr || !lattice_.find_place(*neighbour, there)) continue;
        const auto number = static_cast<std::size_t>(lattice_.find(there));
        if (number >= nb_nodes_) {
          unite(i, missing_of_[number - nb_nodes_]);
        } else if (taken_by_[number] == no_cluster) {
          taken_by_[number] = i;
          donors_.push_back(number);
        } else {
          unite(i, taken_by_[number]);
        }
      }
    }
    const auto lost = [this](std::size_t donor) {
      return areas_[donor] - control_area(state_, *lattice_.entries()[donor].cell);
    };
    for (const std::size_t donor : donors_) {
      clusters_[cluster_of(taken_by_[donor])].area += lost(donor);
    }
    for (std::size_t value = first; value < made_[0]->data.size(); ++value) {
      for (Cluster& cluster : clusters_) cluster.content = 0.0;
      for (const std::size_t donor : donors_) {
        clusters_[cluster_of(taken_by_[donor])].content +=
            lost(donor) * value_of(*lattice_.entries()[donor].cell, value);
      }
      for (std::size_t i = 0; i < made_.size(); ++i) {
        const Cluster& cluster = clusters_[cluster_of(i)];
        if (cluster.area > 0.0) made_[i]->data[value] = cluster.content / cluster.area;
      }
    }
  }
  std::size_t cluster_of(std::size_t i) {
    while (clusters_[i].of != i) i = clusters_[i].of = clusters_[clusters_[i].of].of;
    return i;
  }
  void unite(std::size_t a, std::size_t b) { clusters_[cluster_of(a)].of = cluster_of(b); }

  void call_hooks() const {
    if (!state_.hooks.inserted) return;
    for (const Missing& m : missing_) {
      const Lattice::Entry& entry = lattice_.entries()[m.entry];
      std::array<Cell*, 4> parents{};
      const std::size_t n = parents_of(entry, parents);
      state_.hooks.inserted(*entry.cell, std::span<Cell* const>(parents.data(), n));
    }
  }

  State& state_;
  Lattice lattice_;
  std::vector<std::size_t> first_of_ipos_;
  std::vector<std::vector<std::size_t>> missing_by_ipos_;
  std::vector<Missing> missing_;         ///< parents before those that rest on them
  std::vector<std::size_t> missing_of_;  ///< by the number of the entry, less nb_nodes_
  std::vector<Disorder> disorder_;
  std::vector<Cell*> strays_, made_;

  // Where data are conserved.
  static constexpr std::size_t no_cluster = static_cast<std::size_t>(-1);
  struct Cluster {
    std::size_t of;  ///< another one that it belongs to, or itself
    double area = 0.0, content = 0.0;
  };
  std::vector<double> areas_;  ///< of the cells there were
  std::vector<std::size_t> donors_;
  std::vector<std::size_t> taken_by_;  ///< by entry: one of the made nodes that took from it
  std::vector<Cluster> clusters_;
  std::size_t nb_nodes_ = 0;  ///< entries that have a node from the start
};

/// A grid that nothing has been done to is in order.
bool is_bare_grid(const State& state) {
  const Domain& domain = state.domain;
  const double nx = std::round((domain.x_max - domain.x_min) / domain.dist_0) + 1.0;
  const double ny = std::round((domain.y_max - domain.y_min) / domain.dist_0) + 1.0;
  if (nx * ny != state.nb_nodes) return false;
  std::int32_t nb_untouched = 0;
  for (const Cell* c = state.level_beg[0].next; c != nullptr; c = c->next) {
    state.progress.step();
    const std::int32_t nb_awaited = c->on_boundary == 0 ? 4 : c->on_boundary == 1 ? 2 : 1;
    if (c->level != 0 || c->reserve != nb_awaited) return false;
    ++nb_untouched;
  }
  return nb_untouched == state.nb_nodes;
}

}  // namespace

bool restore_rings(State& state, std::int64_t most_nodes) {
  // The nodes are gone through once to list them, once for their parents, once for their links.
  state.progress.begin("restoring", 3 * std::int64_t{state.nb_nodes});
  if (is_bare_grid(state)) return false;
  std::int32_t highest = 0;
  for (std::int32_t l = 0; l <= highest_stretch(state); ++l) {
    if (state.level_beg[static_cast<std::size_t>(l)].next != nullptr) highest = l;
  }
  std::optional<Restorer> restorer;
  try {
    restorer.emplace(state, std::min(highest, highest_wanted_level));
    restorer->prepare();
  } catch (const std::bad_alloc&) {
    allocation_failed(state, static_cast<std::size_t>(state.nb_nodes) * sizeof(Lattice::Entry));
  }
  const std::int64_t nb_missing = restorer->nb_missing_nodes();
  if (most_nodes > 0 && nb_missing > 0 && state.nb_nodes + nb_missing > most_nodes) {
    too_many_nodes(state, most_nodes);
  }
  return restorer->restore();
}

}  // namespace velmar_2d::detail
