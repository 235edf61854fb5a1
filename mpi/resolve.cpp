// An update of all processes together.
#include <algorithm>
#include <unordered_set>

#include "partition.hpp"

namespace velmar_2d {

std::vector<std::vector<Place>> Partition::Parts::by_owner(const std::vector<Place>& places) const {
  const std::vector<int>& ranks = messages.neighbours();
  std::vector<std::vector<Place>> sorted(ranks.size());
  for (const Place& place : places) {
    const auto found = std::lower_bound(ranks.begin(), ranks.end(), owner(place));
    if (found == ranks.end() || *found != owner(place)) {
      throw Error("a node is needed beyond the neighbours: more overlap is wanted");
    }
    sorted[static_cast<std::size_t>(found - ranks.begin())].push_back(place);
  }
  return sorted;
}

/// Until nothing is new.
void Partition::Parts::exchange_wants() {
  while (messages.together(piece->has_wants() ? 1 : 0) > 0) {
    ++statistics.nb_rounds;
    std::vector<std::vector<Place>> out(messages.neighbours().size());
    messages.alone([&] { out = by_owner(piece->wants()); });
    const std::vector<std::vector<Place>> in = messages.exchange(out);
    messages.alone([&] {
      for (const std::vector<Place>& places : in) piece->hold(places);
      if (grid.n_cell_data == 0) piece->ask();
    });
  }
}

// With data, nodes that come are asked when their derivatives can be told: when all others that
// come with them are there, beyond the cuts too, and hold their values.
void Partition::Parts::refine() {
  bool is_first = true;
  while (messages.together(piece->has_nodes_to_ask() ? 1 : 0) > 0) {
    if (!std::exchange(is_first, false) && grid.n_cell_data > 0) {
      share_ghosts();
      plan_exchange();
      hand_on_data();
    }
    messages.alone([&] { piece->ask(); });
    exchange_wants();
  }
}

void Partition::Parts::release() {
  std::int64_t nb_lost = 1;
  while (nb_lost > 0) {
    std::vector<std::vector<Place>> out(messages.neighbours().size());
    messages.alone([&] {
      piece->release();
      out = by_owner(piece->needs());
    });
    const std::vector<std::vector<Place>> in = messages.exchange(out);
    bool has_lost = false;
    messages.alone([&] {
      std::vector<Place> held;
      for (const std::vector<Place>& places : in) {
        held.insert(held.end(), places.begin(), places.end());
      }
      has_lost = piece->hold_only(held);
    });
    nb_lost = messages.together(has_lost ? 1 : 0);
  }
}

/// Each process tells its neighbours about its nodes near them.
void Partition::Parts::share_ghosts() {
  const std::vector<int>& ranks = messages.neighbours();
  std::vector<std::vector<Place>> out(ranks.size());
  messages.alone([&] {
    for (std::size_t i = 0; i < ranks.size(); ++i) {
      for (const Cell* c : piece->border(boxes[static_cast<std::size_t>(ranks[i])])) {
        out[i].push_back(piece->place_of(*c));
      }
    }
  });
  const std::vector<std::vector<Place>> in = messages.exchange(out);
  messages.alone([&] {
    for (const std::vector<Place>& places : in) piece->hold_ghosts(places);
    if (piece->reaches_cut()) {
      throw Error("the mesh needs nodes where the window of the process ends: more overlap is "
                  "wanted");
    }
  });
  messages.together();
}

/// New nodes near a cut may have parents that were not known here: owners tell what these held, and
/// all that follows from it is computed anew.
void Partition::Parts::hand_on_data() {
  if (grid.n_cell_data <= 0) return;
  std::unordered_set<const Cell*> come;
  messages.alone([&] { come.insert(piece->newcomers().begin(), piece->newcomers().end()); });
  std::unordered_set<const Cell*> known;
  const std::size_t width = static_cast<std::size_t>(grid.n_cell_data) + 1;
  exchange_rows(
      width, GhostLayer::all,
      [&](const Cell& c, double* row) {
        row[0] = come.count(&c) == 0 ? 1.0 : 0.0;
        std::copy(c.data.begin(), c.data.end(), row + 1);
      },
      [&](Cell& c, const double* row) {
        if (row[0] == 0.0) return;
        known.insert(&c);
        std::copy(row + 1, row + width, c.data.begin());
      });
  messages.alone([&] {
    piece->hand_on_data([&](const Cell& c) { return known.count(&c) > 0; });
  });
}

void Partition::Parts::resolve(const size_function& size, init_data_function init_data,
                               const Resolution& resolution) {
  statistics = {};
  messages.alone([&] {
    if (grid.n_cell_data > 0) {
      for (Cell* c : owned) piece->mesh().compute_derivatives(*c);
    }
    piece->begin(size, resolution, std::move(init_data));
  });
  refine();
  release();
  share_ghosts();
  plan_exchange();
  hand_on_data();
  number_nodes();
  const UpdateStatistics& own = piece->statistics();
  statistics.inserted = own.inserted;
  statistics.removed = own.removed;
  statistics.visited = own.visited;
  statistics.refused = own.refused;
}

}  // namespace velmar_2d
