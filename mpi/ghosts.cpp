// Ghosts: who keeps which, and what they are called in the whole mesh.
#include <algorithm>
#include <bit>

#include "partition.hpp"

namespace velmar_2d {

void Partition::Parts::plan_exchange() {
  const std::vector<int>& ranks = messages.neighbours();
  number_of.clear();
  sent.assign(ranks.size(), {});
  sent_numbers.assign(ranks.size(), {});
  received.assign(ranks.size(), {});
  received_rows.assign(ranks.size(), {});
  nb_received_linked.assign(ranks.size(), 0);
  nb_sent_linked.assign(ranks.size(), 0);
  std::vector<std::vector<Place>> out(ranks.size());
  messages.alone([&] { list_nodes(); });
  messages.alone([&] {
    for (std::size_t k = 0; k < ghosts.size(); ++k) {
      const Place place = piece->place_of(*ghosts[k]);
      const std::size_t i = neighbour_of(place);
      received[i].push_back(ghosts[k]);
      received_rows[i].push_back(k);
      out[i].push_back(place);
      if (k < nb_linked_ghosts) ++nb_received_linked[i];
    }
  });
  std::vector<std::vector<std::int64_t>> nb_linked(ranks.size());
  for (std::size_t i = 0; i < ranks.size(); ++i) {
    nb_linked[i].push_back(static_cast<std::int64_t>(nb_received_linked[i]));
  }
  const std::vector<std::vector<Place>> in = messages.exchange(out);
  const std::vector<std::vector<std::int64_t>> nb_linked_there = messages.exchange(nb_linked);
  messages.alone([&] {
    for (std::size_t i = 0; i < ranks.size(); ++i) {
      nb_sent_linked[i] = static_cast<std::size_t>(nb_linked_there[i].at(0));
      sent[i].reserve(in[i].size());
      sent_numbers[i].reserve(in[i].size());
      for (const Place& place : in[i]) {
        const std::int64_t row = piece->row_of(place);
        if (row < 0) throw Error("a neighbour has a ghost of a node that is not there");
        sent[i].push_back(owned[static_cast<std::size_t>(row)]);
        sent_numbers[i].push_back(row);
      }
    }
  });
  messages.together();
}

void Partition::Parts::list_nodes() {
  const std::span<Cell*const> own = piece->own_nodes(), around = piece->ghosts();
  owned.assign(own.begin(), own.end());
  if (adapted_by == Adapted::by_update) {
    list_rings();
    return;
  }
  ghosts.assign(around.begin(), around.end());
  const auto is_linked = [this](const Cell* c) {
    for (const Direction d : directions) {
      const Cell* there = link(*c, d).cell();
      if (there != nullptr && piece->owns(*there)) return true;
    }
    return false;
  };
  const auto middle = std::stable_partition(ghosts.begin(), ghosts.end(), is_linked);
  nb_linked_ghosts = static_cast<std::size_t>(middle - ghosts.begin());
}

void Partition::Parts::number_nodes() {
  const auto nb_processes = static_cast<std::size_t>(messages.nb_processes());
  const std::vector<std::int64_t> counts =
      messages.gather_from_all(static_cast<std::int64_t>(owned.size()));
  first_numbers.assign(nb_processes + 1, 0);
  for (std::size_t i = 0; i < nb_processes; ++i) {
    first_numbers[i + 1] = first_numbers[i] + counts[i];
  }
  const std::int64_t first = first_numbers[static_cast<std::size_t>(messages.rank())];
  for (std::vector<std::int64_t>& numbers : sent_numbers) {
    for (std::int64_t& number : numbers) number += first;
  }
  received_numbers = messages.exchange(sent_numbers);
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
      for (std::size_t k = 0; k < parts.received[i].size(); ++k) {
        table[parts.received[i][k]] = parts.received_numbers[i][k];
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
  const auto first = first_numbers[static_cast<std::size_t>(messages.rank())];
  const auto n = [layer](std::size_t linked, std::size_t all) {
    return layer == GhostLayer::linked ? linked : all;
  };
  std::vector<std::vector<double>> out(sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) {
    const std::size_t nb_rows = n(nb_sent_linked[i], sent[i].size());
    out[i].resize(nb_rows * width);
    for (std::size_t k = 0; k < nb_rows; ++k) {
      const auto row = static_cast<std::size_t>(sent_numbers[i][k] - first);
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
  std::int64_t nb_different = 0;
  exchange_rows(
      1, GhostLayer::linked,
      [](const Cell& c, double* row) { row[0] = std::bit_cast<double>(fingerprint(c)); },
      [&](const Cell& c, const double* row) {
        if (std::bit_cast<std::uint64_t>(row[0]) != fingerprint(c)) ++nb_different;
      });
  return messages.together(nb_different) == 0;
}

bool Partition::agrees() {
  return parts_->messages.collective([&] { return parts_->agrees(); });
}

}  // namespace velmar_2d
