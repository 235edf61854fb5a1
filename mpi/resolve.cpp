// An update of all processes together.
#include <algorithm>

#include "partition.hpp"

namespace velmar_2d {

namespace {
constexpr const char* differing =
    "(velmar_2D/Partition:) ERROR: ghosts differ from the nodes of their owners: more overlap is "
    "wanted, or the mesh of a process was changed by hand";
constexpr const char* narrow =
    "(velmar_2D/Partition:) ERROR: the mesh needs nodes where the window of a process ends: more "
    "overlap is wanted";
}  // namespace

std::vector<std::vector<Place>> Partition::Parts::by_owner(const std::vector<Place>& places) const {
  std::vector<std::vector<Place>> sorted(messages.neighbours().size());
  for (const Place& place : places) sorted[neighbour_of(place)].push_back(place);
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
      sharing([&] {
        share_ghosts();
        hand_on_data();
      });
    }
    messages.alone([&] { piece->ask(); });
    exchange_wants();
  }
}

// Others are told first what is needed of them: with a margin that is more than what was wanted.
void Partition::Parts::release() {
  exchange_needs();
  std::int64_t nb_lost = 1;
  while (nb_lost > 0) {
    messages.alone([&] { piece->release(); });
    nb_lost = messages.together(exchange_needs() ? 1 : 0);
  }
}

/// @return whether some own node is not needed by others any more
bool Partition::Parts::exchange_needs() {
  std::vector<std::vector<Place>> out(messages.neighbours().size());
  messages.alone([&] { out = by_owner(piece->needs()); });
  const std::vector<std::vector<Place>> in = messages.exchange(out);
  bool has_lost = false;
  messages.alone([&] {
    std::vector<Place> held;
    for (const std::vector<Place>& places : in) {
      held.insert(held.end(), places.begin(), places.end());
    }
    has_lost = piece->hold_only(held);
  });
  return has_lost;
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
    std::vector<Place> all;
    for (const std::vector<Place>& places : in) {
      all.insert(all.end(), places.begin(), places.end());
    }
    piece->hold_ghosts(all);
  });
  if (messages.together(piece->reaches_cut() ? 1 : 0) > 0) throw TooNarrow(narrow);
}

/// Of own nodes: 1 where they were there before the update, 0 otherwise, and their data.
std::vector<double> Partition::Parts::rows_at(std::span<const Place> places) {
  std::vector<double> rows;
  rows.reserve(places.size() * (static_cast<std::size_t>(grid.n_cell_data) + 1));
  for (const Place& place : places) {
    const Cell* c = piece->node_at(place);
    if (c == nullptr) throw Error("a neighbour has a ghost of a node that is not there");
    rows.push_back(piece->has_come(*c) ? 0.0 : 1.0);
    rows.insert(rows.end(), c->data.begin(), c->data.end());
  }
  return rows;
}

/// New nodes near a cut may have parents that were not known here: owners tell what these held, and
/// all that follows from it is computed anew.
void Partition::Parts::hand_on_data() {
  if (grid.n_cell_data <= 0) return;
  const std::size_t nb_neighbours = messages.neighbours().size();
  const std::size_t width = static_cast<std::size_t>(grid.n_cell_data) + 1;
  const std::span<Cell* const> newcomers = piece->newcomers();
  nb_handed_on = std::min(nb_handed_on, newcomers.size());
  std::vector<std::vector<Place>> out(nb_neighbours);
  messages.alone([&] {
    std::vector<Place> places;
    for (const Cell* c : newcomers.subspan(nb_handed_on)) {
      if (!piece->owns(*c)) places.push_back(piece->place_of(*c));
    }
    out = by_owner(places);
  });
  std::vector<std::vector<double>> answers(nb_neighbours);
  const std::vector<std::vector<Place>> asked = messages.exchange(out);
  messages.alone([&] {
    for (std::size_t i = 0; i < nb_neighbours; ++i) answers[i] = rows_at(asked[i]);
  });
  const std::vector<std::vector<double>> told = messages.exchange(answers);
  messages.alone([&] {
    for (std::size_t i = 0; i < nb_neighbours; ++i) {
      if (told[i].size() != out[i].size() * width) continue;  // a fault there, told in together()
      for (std::size_t k = 0; k < out[i].size(); ++k) {
        const double* row = told[i].data() + k * width;
        if (row[0] == 0.0) continue;
        Cell* c = piece->node_at(out[i][k]);
        known_ghosts.insert(c);
        std::copy(row + 1, row + width, c->data.begin());
      }
    }
    piece->hand_on_data([&](const Cell& c) { return known_ghosts.contains(&c); }, nb_handed_on);
    nb_handed_on = newcomers.size();
  });
}

void Partition::Parts::exchange_data() {
  const auto n = static_cast<std::size_t>(grid.n_cell_data);
  if (n == 0) return;
  exchange_rows(
      n, GhostLayer::all,
      [](const Cell& c, double* row) { std::copy(c.data.begin(), c.data.end(), row); },
      [n](Cell& c, const double* row) { std::copy_n(row, n, c.data.begin()); });
}

void Partition::Parts::settle() {
  share_ghosts();
  plan_exchange();
  number_nodes();
  if (!agrees()) throw TooNarrow(differing);
}

void Partition::Parts::resolve(const size_function& size, const batch_size_function& sizes,
                               init_data_function init_data, const Resolution& resolution) {
  adapted_by = Adapted::by_resolve;
  statistics.nb_rounds = 0;
  nb_handed_on = 0;
  known_ghosts.clear();
  messages.alone([&] {
    check_update(size, sizes);
    if (resolution.slope != 0.0) throw Error("'slope' is for a Mesh of one process");
    if (!(resolution.margin >= 0.0)) throw Error("'margin' must not be negative");
    if (resolution.most_nodes < 0) throw Error("'most_nodes' must not be negative");
    piece->compute_derivatives();
    if (sizes) {
      piece->begin_batched(sizes, resolution, std::move(init_data));
    } else {
      piece->begin(size, resolution, std::move(init_data));
    }
  });
  refine();
  release();
  sharing([&] {
    share_ghosts();
    nb_handed_on = 0;
    known_ghosts.clear();
    hand_on_data();
    plan_exchange();
    number_nodes();
    exchange_data();
    if (!agrees()) throw TooNarrow(differing);
  });
}

}  // namespace velmar_2d
