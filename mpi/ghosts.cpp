// Ghosts: who keeps which, and what they are called in the whole mesh.
#include <algorithm>

#include "partition.hpp"

namespace velmar_2d {

void Partition::Parts::plan_exchange() {
  const std::vector<int>& ranks = messages.neighbours();
  owned.clear();
  ghosts.clear();
  sent.assign(ranks.size(), {});
  received.assign(ranks.size(), {});
  nb_received_linked.assign(ranks.size(), 0);
  nb_sent_linked.assign(ranks.size(), 0);
  std::vector<std::vector<Place>> out(ranks.size());
  messages.alone([&] {
    Mesh& mesh = piece->mesh();
    std::vector<Cell*> others;
    for (Cell& c : mesh.nodes()) (piece->owns(c) ? owned : others).push_back(&c);
    const auto is_linked = [this](const Cell* c) {
      for (const Direction d : directions) {
        const Cell* there = link(*c, d).cell();
        if (there != nullptr && piece->owns(*there)) return true;
      }
      return false;
    };
    const auto middle = std::stable_partition(others.begin(), others.end(), is_linked);
    nb_linked_ghosts = static_cast<std::size_t>(middle - others.begin());
    ghosts = std::move(others);
    for (std::size_t k = 0; k < ghosts.size(); ++k) {
      const Place place = piece->place_of(*ghosts[k]);
      const auto found = std::lower_bound(ranks.begin(), ranks.end(), owner(place));
      const auto i = static_cast<std::size_t>(found - ranks.begin());
      received[i].push_back(ghosts[k]);
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
      for (const Place& place : in[i]) {
        Cell* c = piece->owns(place) ? piece->node_at(place) : nullptr;
        if (c == nullptr) throw Error("a neighbour has a ghost of a node that is not there");
        sent[i].push_back(c);
      }
    }
  });
  messages.together();
}

void Partition::Parts::number_nodes() {
  const auto nb_processes = static_cast<std::size_t>(messages.nb_processes());
  const std::vector<std::int64_t> counts =
      messages.gather_from_all(static_cast<std::int64_t>(owned.size()));
  first_numbers.assign(nb_processes + 1, 0);
  for (std::size_t i = 0; i < nb_processes; ++i) first_numbers[i + 1] = first_numbers[i] + counts[i];
  number_of.clear();
  messages.alone([&] {
    number_of.reserve(owned.size() + ghosts.size());
    std::int64_t number = first_numbers[static_cast<std::size_t>(messages.rank())];
    for (const Cell* c : owned) number_of[c] = number++;
  });
  // Numbers are whole up to 2^53.
  exchange_rows(
      1, GhostLayer::all,
      [&](const Cell& c, double* row) { row[0] = static_cast<double>(number_of[&c]); },
      [&](Cell& c, const double* row) { number_of[&c] = static_cast<std::int64_t>(row[0]); });
  messages.together();
}

std::int64_t Partition::global_number(const Cell& c) const {
  const auto found = parts_->number_of.find(&c);
  if (found == parts_->number_of.end()) {
    throw Error("(velmar_2D/Partition:) ERROR: this node has no number here");
  }
  return found->second;
}

void Partition::exchange(int first, int count, GhostLayer layer) {
  Parts& parts = *parts_;
  const int n = parts.grid.n_cell_data;
  const int end = count < 0 ? n : first + count;
  if (first < 0 || end > n || end < first) {
    throw Error("(velmar_2D/Partition:) ERROR: values " + std::to_string(first) + " to " +
                std::to_string(end - 1) + " of " + std::to_string(n));
  }
  parts.exchange_rows(
      static_cast<std::size_t>(end - first), layer,
      [=](const Cell& c, double* row) {
        std::copy(c.data.begin() + first, c.data.begin() + end, row);
      },
      [=](Cell& c, const double* row) {
        std::copy(row, row + (end - first), c.data.begin() + first);
      });
}

namespace {

/// A number for all that a node is, wherever it is kept.
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

}  // namespace

bool Partition::agrees() {
  Parts& parts = *parts_;
  std::int64_t nb_different = 0;
  parts.exchange_rows(
      1, GhostLayer::linked,
      [](const Cell& c, double* row) { row[0] = std::bit_cast<double>(fingerprint(c)); },
      [&](const Cell& c, const double* row) {
        if (std::bit_cast<std::uint64_t>(row[0]) != fingerprint(c)) ++nb_different;
      });
  return parts.messages.together(nb_different) == 0;
}

}  // namespace velmar_2d
