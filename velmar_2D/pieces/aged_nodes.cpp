// Nodes that plain updates have made: their order, and all that they are, from elsewhere.
#include <tuple>

#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

namespace {

/// As a new node is placed: midway between two opposite parents, those along the side on a side.
void set_between_parents(const std::array<Cell*, 4>& parents, Cell& c) {
  const Cell *a = parents[0], *b = parents[2];
  if (parents[3] == nullptr) {
    if (a->on_boundary == 0) {
      a = parents[1];
    } else if (b->on_boundary == 0) {
      b = parents[1];
    }
  }
  c.x = (a->x + b->x) / 2.0;
  c.y = (a->y + b->y) / 2.0;
}

}  // namespace

// Ids tell which nodes are older, and a plain update leaves the youngest of a stretch first.
void PieceUpdate::order_by_age(std::span<const LatticePoint> oldest_first) {
  const auto comes_before = [](LatticePoint a, LatticePoint b) {
    return std::tie(a.x, a.y) < std::tie(b.x, b.y);
  };
  std::vector<std::pair<LatticePoint, std::int64_t>> ages;
  ages.reserve(oldest_first.size());
  for (const LatticePoint& p : oldest_first) {
    ages.emplace_back(p, static_cast<std::int64_t>(ages.size()));
  }
  std::sort(ages.begin(), ages.end(),
            [&](const auto& a, const auto& b) { return comes_before(a.first, b.first); });
  const std::int64_t first_unknown = state_.next_id + static_cast<std::int64_t>(ages.size());
  std::vector<Cell*> of_stretch;
  split_sublists(state_);
  const JoinAtEnd join_at_end(state_);
  for (std::size_t l = 1; l < state_.level_beg.size(); ++l) {
    of_stretch.clear();
    for (Cell* c = state_.level_beg[l].next; c != nullptr; c = c->next) {
      const LatticePoint p = place_of(*c);
      const auto found = std::lower_bound(
          ages.begin(), ages.end(), p,
          [&](const auto& age, LatticePoint at) { return comes_before(age.first, at); });
      const bool is_known = found != ages.end() && !comes_before(p, found->first);
      c->id = is_known ? state_.next_id + found->second : first_unknown + c->id;
      of_stretch.push_back(c);
    }
    std::sort(of_stretch.begin(), of_stretch.end(),
              [](const Cell* a, const Cell* b) { return a->id > b->id; });
    Cell* before = nullptr;
    for (Cell* c : of_stretch) {
      c->prev = before;
      c->next = nullptr;
      (before == nullptr ? state_.level_beg[l].next : before->next) = c;
      state_.level_end[l].next = before = c;
    }
  }
  state_.next_id += first_unknown;
  state_.history.forget();
  state_.stretch_nodes.forget();
  ++state_.mesh_revision;
  is_listed_ = false;
}

/// Needs: a window that is the whole, with its grid only.
void PieceUpdate::take_nodes(std::span<const Cell> oldest_first) {
  Lattice grid_nodes = Lattice::of_few(state_);
  for (Cell* c = state_.mesh_beg; c != nullptr; c = c->next) {
    grid_nodes.add({place_of(*c), c, c->ipos});
  }
  std::vector<Cell*> made;
  made.reserve(oldest_first.size());
  split_sublists(state_);
  const JoinAtEnd join_at_end(state_);
  for (const Cell& from : oldest_first) {
    if (from.ipos == 0) {
      const std::int32_t number = grid_nodes.find(place_of(from));
      if (number < 0) list_was_changed(state_, "Piece");
      made.push_back(grid_nodes.entries()[static_cast<std::size_t>(number)].cell);
      continue;
    }
    Cell* c = new_cell(state_, from.ipos);
    c->ipos = from.ipos;
    enter_stretch(state_, *c);
    made.push_back(c);
  }
  // What the links of the whole allow to pass over is not known here.
  state_.domain.lattice_is_whole = false;
  for (std::size_t i = 0; i < made.size(); ++i) {
    const Cell& from = oldest_first[i];
    Cell& c = *made[i];
    const std::tuple in_list{c.prev, c.next, c.id};
    c = from;
    std::tie(c.prev, c.next, c.id) = in_list;
    for (int d = 0; d < nb_directions; ++d) {
      const Cell* linked = link(from, static_cast<Direction>(d)).cell();
      if (linked != nullptr) {
        link(c, d) = made[static_cast<std::size_t>(linked - oldest_first.data())];
        const bool is_mutual = link(*linked, static_cast<Direction>(opposite(d))).cell() == &from;
        if (!is_mutual) state_.links_may_be_one_way = true;
      } else if (link(from, static_cast<Direction>(d)).boundary() != nullptr) {
        link(c, d) = side_link(state_, d, c.x, c.y);
      }
    }
  }
  state_.history.forget();
  state_.stretch_nodes.forget();
  ++state_.mesh_revision;
  is_listed_ = false;
}

// Parents come first among the newcomers.
void PieceUpdate::place_anew(const std::function<bool(const Cell&)>& is_meant) {
  for (std::size_t i = 0; i < newcomers_.size(); ++i) {
    if (is_meant(*newcomers_[i])) set_between_parents(parents_[i], *newcomers_[i]);
  }
}

void PieceUpdate::restore(const std::function<bool(const Cell&)>& is_restored,
                          const init_data_function& init_data) {
  place_anew(is_restored);
  if (state_.n_cell_data <= 0) return;
  const std::size_t first = init_data ? 1 : 0;
  const std::size_t end =
      state_.transfer == Transfer::first ? 1 : static_cast<std::size_t>(state_.n_cell_data);
  for (std::size_t i = 0; i < newcomers_.size(); ++i) {
    Cell& c = *newcomers_[i];
    if (!is_restored(c)) continue;
    if (init_data) c.data[0] = init_data(c.x, c.y);
    for (std::size_t value = first; value < end; ++value) {
      c.data[value] = mean_of_parents(parents_[i], value);
    }
  }
}

}  // namespace velmar_2d::detail
