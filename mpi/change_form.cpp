// From one form of update to the other.
//
// From update() to resolve(): nodes that plain updates have made rest on others that may have gone.
// A mesh of one process makes these anew before it is resolved, and so do the processes together:
// what a node rests on is told by its place, so that they are found before any is made.
//
// From resolve() to update(): what a plain update makes depends on the order in which nodes came,
// and no process knows that of all. So nodes that were resolved count as having come by place, on
// any number of processes: as gather() hands them out.
#include <algorithm>
#include <bit>
#include <limits>

#include "partition.hpp"

namespace velmar_2d {

namespace {

struct HashOfPlace {
  std::size_t operator()(const Place& p) const {
    const auto mixed = static_cast<std::uint64_t>(p.x) * 0x9e3779b97f4a7c15U ^
                       static_cast<std::uint64_t>(p.y) * 0xc2b2ae3d27d4eb4fU;
    return static_cast<std::size_t>(mixed ^ mixed >> 29);
  }
};
using Places = std::unordered_set<Place, HashOfPlace>;

/// The level at which a refined grid has a node at this place first.
std::int32_t ipos_of(Place place) {
  const int halvings_of_cell = std::countr_zero(static_cast<std::uint64_t>(places_per_cell));
  const int x = std::countr_zero(static_cast<std::uint64_t>(place.x));
  const int y = std::countr_zero(static_cast<std::uint64_t>(place.y));
  const int halvings = halvings_of_cell - std::min(x, y);
  if (halvings <= 0) return 0;
  return x == y ? 2 * halvings - 1 : 2 * halvings;
}

/// Calls `use` with the places that a node rests on.
template <typename Use>
void for_parents(Place place, const Use& use) {
  const std::int32_t ipos = ipos_of(place);
  if (ipos == 0) return;
  const std::int64_t away = places_per_cell >> (ipos + 1) / 2;
  for (const int a : {-1, 1}) {
    for (const int b : {-1, 1}) {
      const bool is_diagonal = ipos % 2 == 1;
      const std::int64_t dx = is_diagonal ? a : (a + b) / 2, dy = is_diagonal ? b : (a - b) / 2;
      use(Place{place.x + dx * away, place.y + dy * away});
    }
  }
}

/// Finds places of own nodes that have gone and that others rest on.
class MissingPlaces {
 public:
  MissingPlaces(Piece& piece, const Grid& grid)
      : piece_(piece), end_{(grid.nx - 1) * places_per_cell, (grid.ny - 1) * places_per_cell} {}

  /// A node that is there.
  void add_own(Place place) {
    known_.insert(place);
    to_look_at_.push_back(place);
  }
  void add_of_others(Place place) { known_.insert(place); }
  /// What another process needs here.
  void add_wanted(Place place) {
    if (known_.insert(place).second) add_missing(place);
  }
  /// Looks at what has been added, and at what follows from it.
  /// @return places that others may lack
  std::vector<Place> look() {
    std::vector<Place> elsewhere;
    while (!to_look_at_.empty()) {
      const Place place = to_look_at_.back();
      to_look_at_.pop_back();
      for_parents(place, [&](Place parent) {
        if (!is_inside(parent) || !known_.insert(parent).second) return;
        if (piece_.owns(parent)) {
          add_missing(parent);
        } else {
          elsewhere.push_back(parent);
        }
      });
    }
    return elsewhere;
  }
  const std::vector<Place>& found() const { return missing_; }

 private:
  bool is_inside(Place p) const { return p.x >= 0 && p.y >= 0 && p.x <= end_.x && p.y <= end_.y; }
  void add_missing(Place place) {
    missing_.push_back(place);
    to_look_at_.push_back(place);
  }

  Piece& piece_;
  Place end_;
  Places known_;
  std::vector<Place> missing_, to_look_at_;
};

}  // namespace

/// Of own nodes that have gone and that others rest on, here or elsewhere.
std::vector<Place> Partition::Parts::missing_places() {
  MissingPlaces missing(*piece, grid);
  std::vector<std::vector<Place>> out(messages.neighbours().size());
  messages.alone([&] {
    for (const std::vector<Cell*>& cells : window_received) {
      for (const Cell* c : cells) missing.add_of_others(piece->place_of(*c));
    }
    for (const Cell* c : owned) missing.add_own(piece->place_of(*c));
    out = by_owner(missing.look());
  });
  const auto is_empty = [](const std::vector<Place>& places) { return places.empty(); };
  while (messages.any(std::all_of(out.begin(), out.end(), is_empty) ? 0 : 1) != 0) {
    const std::vector<std::vector<Place>> in = messages.exchange(out);
    messages.alone([&] {
      for (const std::vector<Place>& places : in) {
        for (const Place& place : places) missing.add_wanted(place);
      }
      out = by_owner(missing.look());
    });
  }
  return missing.found();
}

void Partition::Parts::exchange_positions() {
  exchange_rows(
      2, GhostLayer::all,
      [](const Cell& c, double* row) {
        row[0] = c.x;
        row[1] = c.y;
      },
      [](Cell& c, const double* row) {
        c.x = row[0];
        c.y = row[1];
      });
  messages.alone([&] { take_fingerprints(); });
}

/// Those that follow from others near a cut which were not known here.
void Partition::Parts::place_newcomers() {
  std::unordered_set<const Cell*> are_known;
  exchange_rows(
      3, GhostLayer::all,
      [this](const Cell& c, double* row) {
        row[0] = piece->has_come(c) ? 0.0 : 1.0;
        row[1] = c.x;
        row[2] = c.y;
      },
      [&](Cell& c, const double* row) {
        if (row[0] == 0.0) return;
        are_known.insert(&c);
        c.x = row[1];
        c.y = row[2];
      });
  messages.alone([&] {
    piece->place_anew([&](const Cell& c) { return !are_known.contains(&c); });
    take_fingerprints();
  });
}

/// Those that were there keep positions and values, the others get them from these.
void Partition::Parts::give_values_to_restored(const std::vector<char>& is_restored,
                                               const init_data_function& init_data) {
  std::unordered_set<const Cell*> restored;
  messages.alone([&] {
    for (std::size_t i = 0; i < owned.size(); ++i) {
      if (is_restored[i] != 0) restored.insert(owned[i]);
    }
  });
  exchange_rows(
      1, GhostLayer::all,
      [&](const Cell& c, double* row) { row[0] = restored.contains(&c) ? 1.0 : 0.0; },
      [&](const Cell& c, const double* row) {
        if (row[0] != 0.0) restored.insert(&c);
      });
  messages.alone([&] {
    piece->restore([&](const Cell& c) { return restored.contains(&c); }, init_data);
    take_fingerprints();
  });
  conclude(true);
}

std::int64_t Partition::Parts::restore(const init_data_function& init_data) {
  const std::vector<Place> missing = missing_places();
  PieceNodes nodes;
  std::size_t nb_before = 0;
  messages.alone([&] {
    piece->keep_cells();
    for (const Cell* c : owned) {
      nodes.places.push_back(piece->place_of(*c));
      nodes.rows.insert(nodes.rows.end(), c->data.begin(), c->data.end());
      nodes.rows.insert(nodes.rows.end(), {c->grad_data, c->grad2_data, c->x, c->y});
      nodes.handles.emplace_back(c->used, c->data_ptr);
    }
    nb_before = nodes.places.size();
    nodes.places.insert(nodes.places.end(), missing.begin(), missing.end());
    std::vector<double> none(static_cast<std::size_t>(grid.n_cell_data) + 4, 0.0);
    none[none.size() - 2] = std::numeric_limits<double>::quiet_NaN();
    for (std::size_t i = 0; i < missing.size(); ++i) {
      nodes.rows.insert(nodes.rows.end(), none.begin(), none.end());
    }
    nodes.handles.resize(nodes.places.size());
  });
  messages.together();
  adapted_by = Adapted::by_resolve;
  window_sent.clear();
  window_received.clear();
  strangers.clear();
  is_stranger.clear();
  derivatives_there.clear();
  for (;;) {
    const std::vector<std::size_t> rows = make_again(nodes);
    std::vector<char> is_restored;
    messages.alone([&] {
      for (const std::size_t row : rows) is_restored.push_back(row < nb_before ? 0 : 1);
    });
    try {
      give_values_to_restored(is_restored, init_data);
      return static_cast<std::int64_t>(missing.size());
    } catch (const TooNarrow& found) {
      widen_windows(found);
    }
  }
}

/// Makes whole windows of the nodes that resolve() has left.
void Partition::Parts::keep_windows_from_now() {
  KeptNodes kept;
  AgedNodes own;
  messages.alone([&] {
    kept.originals.assign(owned.begin(), owned.end());
    kept.originals.insert(kept.originals.end(), ghosts.begin(), ghosts.end());
    kept.nb_own = owned.size();
    for (const Cell* c : kept.originals) kept.cells.push_back(*c);
    own = aged(kept);
  });
  messages.together();
  adapted_by = Adapted::by_update;
  replay(own, true);
  return_handles(kept);
}

}  // namespace velmar_2d
