// Ghosts: who keeps which, and what they are called in the whole mesh.
#include <algorithm>
#include <bit>
#include <cstring>

#include "partition.hpp"

namespace velmar_2d {

namespace {
constexpr const char* differing =
    "(velmar_2D/Partition:) ERROR: ghosts differ from the nodes of their owners: more overlap is "
    "wanted, or the mesh of a process was changed by hand";

struct Placed {
  Place place;
  Cell* node;
};

/// Sorts nodes by place and lists them.
std::vector<Place> sort_and_list(std::vector<Placed>& nodes, std::vector<Cell*>& list) {
  std::sort(nodes.begin(), nodes.end(),
            [](const Placed& a, const Placed& b) { return a.place < b.place; });
  std::vector<Place> places;
  places.reserve(nodes.size());
  for (const Placed& placed : nodes) {
    places.push_back(placed.place);
    list.push_back(placed.node);
  }
  return places;
}

}  // namespace

// Both sides have the ghosts of a neighbour in the order of their places, linked ones first.
void Partition::Parts::plan_exchange(bool hands_on) {
  const std::vector<int>& ranks = messages.neighbours();
  number_of.clear();
  std::vector<std::vector<Place>> out(ranks.size());
  const bool is_new_plan =
      adapted_by == Adapted::by_update || mesh_told != piece->mesh().revision();
  messages.alone([&] {
    if (!is_new_plan) {
      for (std::vector<Place>& message : out) {
        tell_no_changes(message);
        tell_no_changes(message);
      }
    } else {
      list_received(out);
    }
  });
  const std::vector<std::vector<Place>> in = messages.exchange(out);
  messages.alone([&] {
    list_sent(in, is_new_plan);
    take_fingerprints();
    mesh_told = piece->mesh().revision();
  });
  if (!hands_on) return;
  // All ghosts that have come are among those that have come to these lists.
  nb_handed_on = 0;
  known_ghosts.clear();
  std::vector<std::vector<Place>> asked, asked_here;
  for (std::size_t i = 0; i < ranks.size(); ++i) {
    asked.push_back(all_that_come(out[i]));
    asked_here.push_back(all_that_come(in[i]));
  }
  hand_on_data(asked, asked_here);
}

/// Ghosts, by neighbour, and the messages about them.
void Partition::Parts::list_received(std::vector<std::vector<Place>>& out) {
  const std::size_t nb_neighbours = messages.neighbours().size();
  std::vector<std::vector<Placed>> linked(nb_neighbours), others(nb_neighbours);
  const auto note = [&](Cell& c, Place place, bool is_linked) {
    (is_linked ? linked : others)[neighbour_of(place)].push_back({place, &c});
  };
  if (adapted_by == Adapted::by_update) {
    list_rings();
    for (std::size_t k = 0; k < ghosts.size(); ++k) {
      note(*ghosts[k], piece->place_of(*ghosts[k]), k < nb_linked_ghosts);
    }
  } else {
    piece->for_ghosts(note);
  }
  received.assign(nb_neighbours, {});
  received_rows.assign(nb_neighbours, {});
  nb_received_linked.assign(nb_neighbours, 0);
  ghosts.clear();
  for (const bool is_linked : {true, false}) {
    ToldPlaces& told = is_linked ? told_linked : told_others;
    for (std::size_t i = 0; i < nb_neighbours; ++i) {
      const std::size_t before = received[i].size();
      tell_changes(told.sent[i], sort_and_list((is_linked ? linked : others)[i], received[i]),
                   out[i]);
      for (std::size_t k = before; k < received[i].size(); ++k) {
        received_rows[i].push_back(ghosts.size());
        ghosts.push_back(received[i][k]);
      }
      if (is_linked) nb_received_linked[i] = received[i].size();
    }
    if (is_linked) nb_linked_ghosts = ghosts.size();
  }
}

/// Own nodes that others have ghosts of.
void Partition::Parts::list_sent(const std::vector<std::vector<Place>>& in, bool is_new_plan) {
  const std::size_t nb_neighbours = messages.neighbours().size();
  sends_rows.assign(nb_neighbours, 0);
  sent.resize(nb_neighbours);
  sent_rows.resize(nb_neighbours);
  nb_sent_linked.resize(nb_neighbours);
  for (std::size_t i = 0; i < nb_neighbours; ++i) {
    // The two lists come one after the other for each neighbour.
    ChangesReader reader(in[i]);
    const bool is_first_new = reader.read(told_linked.received[i]);
    const bool is_second_new = reader.read(told_others.received[i]);
    if (!is_new_plan && !is_first_new && !is_second_new) continue;
    nb_sent_linked[i] = told_linked.received[i].size();
    sent[i].clear();
    std::vector<std::int32_t> rows;
    rows.reserve(nb_sent_linked[i] + told_others.received[i].size());
    for (const ToldPlaces* told : {&told_linked, &told_others}) {
      for (const Place& place : told->received[i]) {
        const std::int64_t row = piece->row_of(place);
        if (row < 0) {
          lacks_nodes = true;
          continue;
        }
        sent[i].push_back(owned[static_cast<std::size_t>(row)]);
        rows.push_back(static_cast<std::int32_t>(row));
      }
    }
    if (rows == sent_rows[i]) continue;
    sends_rows[i] = 1;
    sent_rows[i] = std::move(rows);
  }
}

void Partition::Parts::take_fingerprints() {
  const auto of = [](const std::vector<std::vector<Cell*>>& nodes,
                     const std::vector<std::size_t>& nb_linked) {
    std::vector<std::uint64_t> fingerprints;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      std::uint64_t hash = nb_linked[i];
      for (std::size_t k = 0; k < nb_linked[i]; ++k) {
        hash = hash * 0x9e3779b97f4a7c15U + fingerprint(*nodes[i][k]);
      }
      fingerprints.push_back(hash);
    }
    return fingerprints;
  };
  sent_fingerprints = of(sent, nb_sent_linked);
  received_fingerprints = of(received, nb_received_linked);
}

void Partition::Parts::list_owned() {
  const std::span<Cell* const> own = piece->own_nodes();
  owned.assign(own.begin(), own.end());
}

// A message has the fingerprint, the number of rows that follow, data, and rows by twos.
void Partition::Parts::write_conclusion(std::vector<std::vector<std::uint64_t>>& out,
                                        std::size_t width) {
  const std::size_t nb_neighbours = out.size();
  if (is_settled) sends_rows.assign(nb_neighbours, 0);
  for (std::size_t i = 0; i < nb_neighbours; ++i) {
    const std::size_t nb_rows = sends_rows[i] != 0 ? sent_rows[i].size() : 0;
    out[i].resize(2 + sent[i].size() * width + (nb_rows + 1) / 2);
    out[i][0] = sent_fingerprints[i];
    out[i][1] = nb_rows;
    std::uint64_t* next = out[i].data() + 2;
    for (const Cell* c : sent[i]) {
      if (width > 0) std::memcpy(next, c->data.data(), width * sizeof(double));
      next += width;
    }
    if (nb_rows > 0) std::memcpy(next, sent_rows[i].data(), nb_rows * sizeof(std::int32_t));
  }
}

bool Partition::Parts::read_conclusion(const std::vector<std::vector<std::uint64_t>>& in,
                                       std::size_t width) {
  const std::size_t nb_neighbours = in.size();
  bool are_alike = true;
  rows_there.resize(nb_neighbours);
  for (std::size_t i = 0; i < nb_neighbours; ++i) {
    const std::size_t n = received[i].size();
    const bool has_rows = in[i].size() > 1 && in[i][1] > 0;
    if (in[i].size() != 2 + n * width + (has_rows ? (n + 1) / 2 : 0)) {
      are_alike = false;  // or a fault there, told in gather_together()
      continue;
    }
    are_alike = are_alike && in[i][0] == received_fingerprints[i];
    const std::uint64_t* next = in[i].data() + 2;
    for (Cell* c : received[i]) {
      if (width > 0) std::memcpy(c->data.data(), next, width * sizeof(double));
      next += width;
    }
    if (!has_rows) continue;
    rows_there[i].resize(n);
    std::memcpy(rows_there[i].data(), next, n * sizeof(std::int32_t));
  }
  return are_alike;
}

void Partition::Parts::conclude(bool with_data) {
  const std::size_t width = with_data ? static_cast<std::size_t>(std::max(grid.n_cell_data, 0)) : 0;
  std::vector<std::vector<std::uint64_t>> out(messages.neighbours().size());
  messages.alone([&] { write_conclusion(out, width); });
  const std::vector<std::vector<std::uint64_t>> in = messages.exchange(out);
  bool are_alike = true;
  messages.alone(
      [&] { are_alike = !std::exchange(lacks_nodes, false) && read_conclusion(in, width); });
  constexpr std::int64_t differs = 1, ends_too_soon = 2, count = 4;
  std::int64_t found = (are_alike ? 0 : differs) | (piece->reaches_cut() ? ends_too_soon : 0);
  if (is_settled) {
    found = static_cast<std::int64_t>(messages.any(static_cast<std::uint64_t>(found)));
  } else {
    const std::vector<std::int64_t> numbers =
        messages.gather_together(count * static_cast<std::int64_t>(owned.size()) + found);
    first_numbers.assign(1, 0);
    for (const std::int64_t number : numbers) {
      first_numbers.push_back(first_numbers.back() + number / count);
      found |= number % count;
    }
  }
  if ((found & ends_too_soon) != 0) throw TooNarrow(narrow);
  if ((found & differs) != 0) throw TooNarrow(differing);
}

std::int64_t Partition::global_number(const Cell& c) const {
  const Parts& parts = *parts_;
  parts.messages.require_agreement();
  auto& table = parts.number_of;
  if (table.empty()) {
    table.reserve(parts.owned.size() + parts.ghosts.size());
    std::int64_t number = first_global_number();
    for (const Cell* own : parts.owned) table[own] = number++;
    for (std::size_t i = 0; i < parts.received.size(); ++i) {
      const auto owner_rank = static_cast<std::size_t>(parts.messages.neighbours()[i]);
      const std::int64_t first_there = parts.first_numbers[owner_rank];
      for (std::size_t k = 0; k < parts.received[i].size(); ++k) {
        table[parts.received[i][k]] = first_there + parts.rows_there[i][k];
      }
    }
  }
  const auto found = table.find(&c);
  if (found == table.end()) {
    throw Error("(velmar_2D/Partition:) ERROR: this node has no number here");
  }
  return found->second;
}

void Partition::exchange(int first, int count, GhostLayer layer) {
  Parts& parts = *parts_;
  parts.messages.require_agreement();
  const int n = parts.grid.n_cell_data;
  const int end = count < 0 ? n : first + count;
  if (first < 0 || first > n || end < first || end > n) {
    throw Error("(velmar_2D/Partition:) ERROR: there are no values " + std::to_string(first) +
                " to " + std::to_string(end - 1) + " of " + std::to_string(n));
  }
  if (end == first) return;
  parts.messages.collective([&] {
    parts.exchange_rows(
        static_cast<std::size_t>(end - first), layer,
        [=](const Cell& c, double* row) {
          std::copy(c.data.begin() + first, c.data.begin() + end, row);
        },
        [=](Cell& c, const double* row) {
          std::copy(row, row + (end - first), c.data.begin() + first);
        });
  });
}

void Partition::exchange(std::span<double> rows, int width, GhostLayer layer) {
  Parts& parts = *parts_;
  parts.messages.collective([&] {
    parts.messages.alone([&] {
      if (width < 1 ||
          rows.size() != (owned().size() + ghosts().size()) * static_cast<std::size_t>(width)) {
        throw Error("the array must have one row for each owned node and each ghost");
      }
    });
    parts.messages.together();
    parts.exchange_array(rows, static_cast<std::size_t>(width), layer);
  });
}

// Rows are told by the numbers of the nodes; those of ghosts stand behind, in the order of
// ghosts().
void Partition::Parts::exchange_array(std::span<double> rows, std::size_t width, GhostLayer layer) {
  const auto n = [layer](std::size_t linked, std::size_t all) {
    return layer == GhostLayer::linked ? linked : all;
  };
  std::vector<std::vector<double>> out(sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) {
    const std::size_t nb_rows = n(nb_sent_linked[i], sent[i].size());
    out[i].resize(nb_rows * width);
    for (std::size_t k = 0; k < nb_rows; ++k) {
      const auto row = static_cast<std::size_t>(sent_rows[i][k]);
      std::copy_n(rows.begin() + static_cast<std::ptrdiff_t>(row * width), width,
                  out[i].begin() + static_cast<std::ptrdiff_t>(k * width));
    }
  }
  const std::vector<std::vector<double>> in = messages.exchange(out);
  for (std::size_t i = 0; i < in.size(); ++i) {
    for (std::size_t k = 0; k * width < in[i].size(); ++k) {
      const std::size_t row = owned.size() + received_rows[i][k];
      std::copy_n(in[i].begin() + static_cast<std::ptrdiff_t>(k * width), width,
                  rows.begin() + static_cast<std::ptrdiff_t>(row * width));
    }
  }
}

std::uint64_t fingerprint(const Cell& c) {
  std::uint64_t hash = 0x9e3779b97f4a7c15U;
  const auto add = [&hash](std::uint64_t number) {
    hash = (hash ^ number) * 0xbf58476d1ce4e5b9U;
    hash ^= hash >> 29;
  };
  const auto add_place = [&add](const Cell& of) {
    add(std::bit_cast<std::uint64_t>(of.x));
    add(std::bit_cast<std::uint64_t>(of.y));
  };
  add_place(c);
  add(static_cast<std::uint64_t>(c.level) * 8 + static_cast<std::uint64_t>(c.reserve));
  for (const Direction d : directions) {
    const NeighbourLink there = link(c, d);
    if (const Cell* linked = there.cell()) add_place(*linked);
    if (const Boundary* side = there.boundary()) add(static_cast<std::uint64_t>(side->bc_type) + 1);
    add(static_cast<std::uint64_t>(d));
  }
  return hash;
}

bool Partition::Parts::agrees() {
  messages.alone([&] { take_fingerprints(); });
  std::vector<std::vector<std::uint64_t>> out;
  for (const std::uint64_t of_all : sent_fingerprints) out.push_back({of_all});
  const std::vector<std::vector<std::uint64_t>> in = messages.exchange(out);
  bool are_alike = true;
  for (std::size_t i = 0; i < in.size(); ++i) {
    are_alike = are_alike && in[i].at(0) == received_fingerprints[i];
  }
  return messages.any(are_alike ? 0 : 1) == 0;
}

bool Partition::agrees() {
  return parts_->messages.collective([&] { return parts_->agrees(); });
}

}  // namespace velmar_2d
