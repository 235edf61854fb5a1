// An update of all processes together.
#include <algorithm>

#include "partition.hpp"

namespace velmar_2d {

std::vector<std::vector<Place>> Partition::Parts::by_owner(const std::vector<Place>& places) const {
  std::vector<std::vector<Place>> sorted(messages.neighbours().size());
  for (const Place& place : places) sorted[neighbour_of(place)].push_back(place);
  return sorted;
}

/// What some process has to tell the others. Where one has forgotten what it was told, all do.
std::uint64_t Partition::Parts::any_news() {
  const std::uint64_t any =
      messages.any((piece->has_wants() ? News::wants : 0) | (has_changed() ? News::changes : 0) |
                   (has_told ? 0 : News::forgotten) | (piece->has_nodes_to_ask() ? News::asks : 0) |
                   (piece->has_sizes_to_tell() ? News::sizes : 0) |
                   (piece->reaches_cut() ? News::cut : 0) | (wants_remap() ? News::remaps : 0));
  if ((any & News::cut) != 0) throw TooNarrow(narrow);
  if ((any & News::forgotten) != 0) {
    messages.alone([&] {
      for (const std::vector<Place>& places : told_borders.received) {
        piece->change_ghosts({}, places);
      }
      forget_told();
    });
  }
  remaps = (any & News::remaps) != 0;
  is_settled = slope == 0.0 && (any & (News::changes | News::forgotten)) == 0;
  return any;
}

/// Until nothing is new. Returns whether some process has nodes to ask.
bool Partition::Parts::exchange_wants() {
  for (;;) {
    const std::uint64_t any = any_news();
    if ((any & News::wants) == 0) return (any & News::asks) != 0;
    ++statistics.nb_rounds;
    exchange_wants_once();
  }
}

void Partition::Parts::exchange_wants_once() {
  std::vector<std::vector<Place>> out(messages.neighbours().size());
  messages.alone([&] { out = by_owner(piece->wants()); });
  const std::vector<std::vector<Place>> in = messages.exchange(out);
  messages.alone([&] {
    for (const std::vector<Place>& places : in) {
      holds_more = holds_more || !places.empty();
      piece->hold(places);
    }
    if (grid.n_cell_data == 0) piece->ask();
  });
}

/// Asks the nodes that are there.
bool Partition::Parts::ask_and_exchange_wants() {
  messages.alone([&] { piece->ask(); });
  if (slope > 0.0) {
    grade_together();
    messages.alone([&] { piece->settle(); });
  }
  return exchange_wants();
}

// With data, nodes that come are asked when their derivatives can be told: when all others that
// come with them are there, beyond the cuts too, and hold their values.
void Partition::Parts::refine() {
  while (ask_and_exchange_wants()) {
    if (grid.n_cell_data == 0) continue;
    sharing([&] {
      share_new_ghosts();
      hand_on_data();
    });
  }
  if (!is_settled && (grid.n_cell_data == 0 || tells_all_children)) {
    sharing([&] { share_children(tells_all_children); });
  }
}

// Others are told first what is needed of them: with a margin that is more than what was wanted.
void Partition::Parts::release() {
  sharing([&] { exchange_needs(); });
  release_until_kept();
}

void Partition::Parts::release_until_kept() {
  bool has_lost = true;
  for (int pass = 0; has_lost; ++pass) {
    messages.alone([&] { piece->release(); });
    sharing([&] { has_lost = exchange_needs(); });
    // Hardly ever does the first pass let go all: the second comes without asking the others.
    has_lost = pass == 0 || messages.any(has_lost ? 1 : 0) != 0;
  }
}

/// Tells what is needed of others, and own nodes that have gone.
/// @return whether more own nodes may go
bool Partition::Parts::exchange_needs() {
  const std::vector<int>& ranks = messages.neighbours();
  std::vector<std::vector<Place>> out(ranks.size());
  messages.alone([&] {
    const bool are_others = piece->needs_revision() != needs_told;
    std::vector<std::vector<Place>> needs;
    if (are_others) needs = by_owner(piece->needs());
    for (std::size_t i = 0; i < ranks.size(); ++i) {
      if (are_others) {
        std::sort(needs[i].begin(), needs[i].end());
        tell_changes(told_needs.sent[i], std::move(needs[i]), out[i]);
      } else {
        tell_no_changes(out[i]);
      }
      const std::vector<Place> gone = piece->gone_near(boxes[static_cast<std::size_t>(ranks[i])]);
      out[i].insert(out[i].end(), gone.begin(), gone.end());
    }
    needs_told = piece->needs_revision();
  });
  const std::vector<std::vector<Place>> in = messages.exchange(out);
  messages.alone([&] {
    std::vector<Place> gone;
    for (std::size_t i = 0; i < ranks.size(); ++i) {
      ChangesReader reader(in[i]);
      if (reader.read(told_needs.received[i])) holds_more = true;
      gone.insert(gone.end(), reader.rest().begin(), reader.rest().end());
    }
    piece->remove_ghosts(gone);
    if (!std::exchange(holds_more, false)) return;
    std::vector<Place> held;
    for (const std::vector<Place>& places : told_needs.received) {
      held.insert(held.end(), places.begin(), places.end());
    }
    piece->hold_only(held);
  });
  return piece->has_freed();
}

/// All is told anew from now on.
void Partition::Parts::forget_told() {
  const std::size_t n = messages.neighbours().size();
  for (ToldPlaces* told : {&told_borders, &told_needs, &told_linked, &told_others}) {
    told->forget(n);
  }
  sent_rows.assign(n, {});
  needs_told = 0;
  mesh_told = ~std::uint64_t{0};
  has_told = true;
  holds_more = true;
  tells_all_children = true;
}

std::vector<PlaceBox> Partition::Parts::boxes_of_neighbours() const {
  std::vector<PlaceBox> there;
  for (const int rank : messages.neighbours())
    there.push_back(boxes[static_cast<std::size_t>(rank)]);
  return there;
}

/// Each process tells its neighbours about its nodes that rest on theirs, so that they know what
/// their own nodes are linked to.
void Partition::Parts::share_children(bool of_all) {
  tells_all_children = false;
  exchange_borders([&] { return piece->children_places(boxes_of_neighbours(), of_all); }, true);
}

/// And about those that these need to know besides. Needs: all processes' children told.
void Partition::Parts::share_ghosts() {
  exchange_borders([&] { return piece->border_places(boxes_of_neighbours(), true); }, false);
}

/// The same while nodes come, and none goes.
void Partition::Parts::share_new_ghosts() {
  const bool of_all = tells_all_children;
  share_children(of_all);
  exchange_borders([&] { return piece->border_places(boxes_of_neighbours(), of_all); }, true);
}

/// @param adds  to what was told: none goes
void Partition::Parts::exchange_borders(
    const std::function<std::vector<std::vector<Place>>()>& borders, bool adds) {
  std::vector<std::vector<Place>> out(messages.neighbours().size());
  messages.alone([&] {
    if (mesh_told == piece->mesh().revision()) {
      for (std::vector<Place>& message : out) tell_no_changes(message);
      return;
    }
    std::vector<std::vector<Place>> now = borders();
    for (std::size_t i = 0; i < out.size(); ++i) {
      const std::vector<Place>& told = told_borders.sent[i];
      if (adds) {
        std::erase_if(now[i], [&](const Place& place) {
          return std::binary_search(told.begin(), told.end(), place);
        });
      }
      std::sort(now[i].begin(), now[i].end());
      now[i].erase(std::unique(now[i].begin(), now[i].end()), now[i].end());
      if (adds) {
        const auto nb_told = static_cast<std::ptrdiff_t>(told.size());
        now[i].insert(now[i].begin(), told.begin(), told.end());
        std::inplace_merge(now[i].begin(), now[i].begin() + nb_told, now[i].end());
      }
      tell_changes(told_borders.sent[i], std::move(now[i]), out[i]);
    }
  });
  const std::vector<std::vector<Place>> in = messages.exchange(out);
  messages.alone([&] {
    std::vector<Place> come, gone;
    for (std::size_t i = 0; i < in.size(); ++i) {
      ChangesReader reader(in[i]);
      reader.read(told_borders.received[i]);
      come.insert(come.end(), reader.come().begin(), reader.come().end());
      gone.insert(gone.end(), reader.gone().begin(), reader.gone().end());
    }
    piece->change_ghosts(come, gone);
  });
}

/// Of own nodes: 1 where they were there before the update, 0 otherwise, and their data.
void Partition::Parts::write_rows_at(std::span<const Place> places, double* row) {
  for (const Place& place : places) {
    const Cell* c = piece->node_at(place);
    if (c == nullptr) {
      lacks_nodes = true;
      *row = 0.0;
    } else {
      *row = piece->has_come(*c) ? 0.0 : 1.0;
      std::copy(c->data.begin(), c->data.end(), row + 1);
    }
    row += grid.n_cell_data + 1;
  }
}

/// New nodes near a cut may have parents that were not known here: owners tell what these held, and
/// all that follows from it is computed anew.
void Partition::Parts::hand_on_data() {
  if (grid.n_cell_data <= 0) return;
  const std::span<Cell* const> newcomers = piece->newcomers();
  nb_handed_on = std::min(nb_handed_on, newcomers.size());
  std::vector<std::vector<Place>> asked(messages.neighbours().size());
  messages.alone([&] {
    std::vector<Place> places;
    for (const Cell* c : newcomers.subspan(nb_handed_on)) {
      if (!piece->owns(*c)) places.push_back(piece->place_of(*c));
    }
    asked = by_owner(places);
  });
  hand_on_data(asked, messages.exchange(asked));
}

/// @param asked  of others, who know these places; those that are not new stay as they are
void Partition::Parts::hand_on_data(const std::vector<std::vector<Place>>& asked,
                                    const std::vector<std::vector<Place>>& asked_here) {
  if (grid.n_cell_data <= 0) return;
  const std::size_t nb_neighbours = messages.neighbours().size();
  const std::size_t width = static_cast<std::size_t>(grid.n_cell_data) + 1;
  std::vector<std::vector<double>> answers(nb_neighbours);
  std::vector<char> comes(nb_neighbours);
  for (std::size_t i = 0; i < nb_neighbours; ++i) {
    answers[i].resize(asked_here[i].size() * width);
    comes[i] = asked[i].empty() ? 0 : 1;
  }
  messages.alone([&] {
    for (std::size_t i = 0; i < nb_neighbours; ++i) write_rows_at(asked_here[i], answers[i].data());
  });
  const std::vector<std::vector<double>> told = messages.exchange(answers, comes);
  messages.alone([&] {
    for (std::size_t i = 0; i < nb_neighbours; ++i) {
      for (std::size_t k = 0; k < asked[i].size(); ++k) {
        const double* row = told[i].data() + k * width;
        if (row[0] == 0.0) continue;
        Cell* c = piece->node_at(asked[i][k]);
        if (c == nullptr || !piece->has_come(*c)) continue;
        known_ghosts.insert(c);
        std::copy(row + 1, row + width, c->data.begin());
      }
    }
    piece->hand_on_data([&](const Cell& c) { return known_ghosts.contains(&c); }, nb_handed_on);
    nb_handed_on = piece->newcomers().size();
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
  is_settled = false;
  messages.alone([&] { list_owned(); });
  share_children(true);
  share_ghosts();
  plan_exchange();
  if (has_moved_nodes) exchange_positions();
  conclude(false);
}

void Partition::Parts::check_resolve(const size_function& size, const batch_size_function& sizes,
                                     const Resolution& resolution) const {
  check_update(size, sizes);
  if (!(resolution.slope >= 0.0)) throw Error("'slope' must not be negative");
  if (!(resolution.margin >= 0.0)) throw Error("'margin' must not be negative");
  if (resolution.most_nodes < 0) throw Error("'most_nodes' must not be negative");
}

void Partition::Parts::resolve(const size_function& size, const batch_size_function& sizes,
                               init_data_function init_data, const Resolution& resolution) {
  adapted_by = Adapted::by_resolve;
  is_settled = lacks_nodes = false;
  statistics.nb_rounds = 0;
  nb_handed_on = 0;
  known_ghosts.clear();
  slope = resolution.slope;
  if (mesh_told != piece->mesh().revision()) has_told = false;  // it was changed by hand
  messages.alone([&] {
    check_resolve(size, sizes, resolution);
    piece->compute_derivatives();
    if (sizes) {
      piece->begin_batched(sizes, resolution, std::move(init_data));
    } else {
      piece->begin(size, resolution, std::move(init_data));
    }
  });
  if (slope > 0.0) {
    refine_graded();
  } else {
    refine();
    messages.alone([&] { piece->settle(); });
  }
  if (is_settled) {
    piece->end_unchanged();
  } else {
    if (slope > 0.0) {
      release_graded();
    } else {
      release();
    }
    messages.alone([&] { list_owned(); });
  }
  sharing([&] {
    if (!is_settled) {
      share_ghosts();
      plan_exchange(true);
      if (has_moved_nodes) place_newcomers();
    }
    const bool has_to_remap = remaps && !is_settled;
    conclude(!has_to_remap);
    if (has_to_remap) remap();
  });
}

}  // namespace velmar_2d
