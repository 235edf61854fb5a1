// Plain updates: each process updates all of its window by itself.
//
// What such an update makes depends on the order in which nodes came and are visited. In a window
// that is whole, this is the order that they have in the whole mesh, and nodes far from its cuts
// become what they become there. Near the cuts they do not. What is wrong there stays there, since
// before the next update ghosts get positions, values and derivatives from their owners, and those
// that no owner has are to go. Whether it has come near own nodes is told by their owners after
// each update.
#include <algorithm>
#include <bit>
#include <limits>

#include "partition.hpp"

namespace velmar_2d {

namespace {

/// New nodes that come closer than that to a cut are not refined around: derivatives there are
/// those of a mesh that ends.
constexpr double cells_without_refinement = 0.5;

std::uint64_t mixed(std::uint64_t hash, double value) {
  hash = (hash ^ std::bit_cast<std::uint64_t>(value)) * 0x94d049bb133111ebU;
  return hash ^ hash >> 31;
}
/// Numbers for what a node holds, and where; and for all that it is, with its derivatives.
std::uint64_t fingerprint_of_values(const Cell& c) {
  std::uint64_t hash = mixed(mixed(1, c.x), c.y);
  for (const double value : c.data) hash = mixed(hash, value);
  return hash;
}
std::uint64_t fingerprint_of_all(const Cell& c) {
  return fingerprint(c) ^ mixed(mixed(fingerprint_of_values(c), c.grad_data), c.grad2_data);
}

}  // namespace

/// Which nodes of windows are there at their owners.
void Partition::Parts::plan_window() {
  const std::size_t nb_neighbours = messages.neighbours().size();
  window_sent.assign(nb_neighbours, {});
  window_received.assign(nb_neighbours, {});
  strangers.clear();
  is_stranger.clear();
  std::vector<std::vector<Cell*>> asked(nb_neighbours);
  std::vector<std::vector<Place>> out(nb_neighbours);
  messages.alone([&] {
    piece->own_nodes();  // row_of() needs them
    for (Cell* c : piece->ghosts()) {
      const Place place = piece->place_of(*c);
      const std::size_t i = neighbour_of(place);
      asked[i].push_back(c);
      out[i].push_back(place);
    }
  });
  const std::vector<std::vector<Place>> in = messages.exchange(out);
  std::vector<std::vector<char>> is_here(nb_neighbours);
  messages.alone([&] {
    const std::span<Cell* const> own = piece->own_nodes();
    for (std::size_t i = 0; i < nb_neighbours; ++i) {
      for (const Place& place : in[i]) {
        const std::int64_t row = piece->row_of(place);
        is_here[i].push_back(row < 0 ? 0 : 1);
        if (row >= 0) window_sent[i].push_back(own[static_cast<std::size_t>(row)]);
      }
    }
  });
  const std::vector<std::vector<char>> is_there = messages.exchange(is_here);
  messages.alone([&] {
    for (std::size_t i = 0; i < nb_neighbours; ++i) {
      for (std::size_t k = 0; k < is_there[i].size(); ++k) {
        (is_there[i][k] != 0 ? window_received[i] : strangers).push_back(asked[i][k]);
      }
    }
    is_stranger = {strangers.begin(), strangers.end()};
  });
  messages.together();
}

/// Nodes that no owner has hold values from when they came: they get those around them, so that
/// sizes that follow data do not go astray near the cuts.
void Partition::Parts::give_values_to_strangers() {
  std::unordered_set<const Cell*> has_values;
  for (Cell* c : strangers) {
    std::vector<double> sum(c->data.size(), 0.0);
    int n = 0;
    for (const Direction d : directions) {
      const Cell* there = link(*c, d).cell();
      if (there == nullptr || (is_stranger.contains(there) && !has_values.contains(there)))
        continue;
      for (std::size_t value = 0; value < sum.size(); ++value) sum[value] += there->data[value];
      ++n;
    }
    for (std::size_t value = 0; value < sum.size() && n > 0; ++value)
      c->data[value] = sum[value] / n;
    has_values.insert(c);
  }
}

/// Nodes of the window that own ones are linked to, and those that these are linked to.
void Partition::Parts::list_rings() {
  std::unordered_set<const Cell*> rings;
  const auto list_linked = [&](std::span<Cell* const> nodes) {
    std::vector<Cell*> found;
    for (const Cell* c : nodes) {
      for (const Direction d : directions) {
        Cell* there = link(*c, d).cell();
        if (there != nullptr && !piece->owns(*there) && rings.insert(there).second) {
          found.push_back(there);
        }
      }
    }
    return found;
  };
  const std::vector<Cell*> first = list_linked(owned), second = list_linked(first);
  ghosts = first;
  ghosts.insert(ghosts.end(), second.begin(), second.end());
  nb_linked_ghosts = first.size();
}

/// Whether all that own nodes look at is what its owners made of it: nodes linked to them in all
/// that they are, the next ones in place and values.
bool Partition::Parts::window_agrees() {
  std::unordered_map<const Cell*, std::size_t> place_in_rings;
  for (std::size_t k = 0; k < ghosts.size(); ++k) place_in_rings[ghosts[k]] = k;
  std::int64_t nb_different = 0;
  exchange_window(
      2,
      [](const Cell& c, double* row) {
        row[0] = std::bit_cast<double>(fingerprint_of_all(c));
        row[1] = std::bit_cast<double>(fingerprint_of_values(c));
      },
      [&](const Cell& c, const double* row) {
        const auto found = place_in_rings.find(&c);
        if (found == place_in_rings.end()) return;
        const bool is_alike =
            found->second < nb_linked_ghosts
                ? std::bit_cast<std::uint64_t>(row[0]) == fingerprint_of_all(c)
                : std::bit_cast<std::uint64_t>(row[1]) == fingerprint_of_values(c);
        if (!is_alike) ++nb_different;
      });
  nb_different += std::count_if(strangers.begin(), strangers.end(),
                                [&](const Cell* c) { return place_in_rings.contains(c); });
  return messages.together(nb_different) == 0;
}

/// Derivatives of nodes that others have in their windows.
void Partition::Parts::exchange_derivatives() {
  derivatives_there.clear();
  if (grid.n_cell_data == 0) return;
  messages.alone([&] {
    std::unordered_set<const Cell*> are_known;
    for (const std::vector<Cell*>& cells : window_sent) {
      for (Cell* c : cells) {
        if (are_known.insert(c).second) piece->mesh().compute_derivatives(*c);
      }
    }
  });
  exchange_window(
      2,
      [](const Cell& c, double* row) {
        row[0] = c.grad_data;
        row[1] = c.grad2_data;
      },
      [&](const Cell& c, const double* row) {
        derivatives_there[&c] = {row[0], row[1]};
      });
}

std::array<double, 2> Partition::Parts::in_cells(const Cell& c) const {
  return {(c.x - whole.x_min) / piece->mesh().dist_0(),
          (c.y - whole.y_min) / piece->mesh().dist_0()};
}

/// How far a node lies from where its window ends inside the whole.
double Partition::Parts::cells_to_cut(const Cell& c) const {
  const auto [column, row] = in_cells(c);
  const auto& [west, east, south, north] = cells_of(messages.rank());
  const std::int32_t overlap = options.overlap;
  double least = std::numeric_limits<double>::infinity();
  if (west > overlap) least = std::min(least, column - (west - overlap));
  if (south > overlap) least = std::min(least, row - (south - overlap));
  if (east + overlap < grid.nx - 1) least = std::min(least, east + overlap - column);
  if (north + overlap < grid.ny - 1) least = std::min(least, north + overlap - row);
  return least;
}

/// Sizes that are wanted in a window. Nodes that were there before the update want what they want
/// in the whole mesh, if their owners have them; else they are to go.
void Partition::Parts::ask_window(std::span<const Cell* const> nodes, std::span<double> of,
                                  const size_function& size, const batch_size_function& sizes) {
  constexpr double as_coarse_as_can_be = std::numeric_limits<double>::infinity();
  std::vector<std::size_t> unwanted;
  for (std::size_t i = 0; i < nodes.size() && grid.n_cell_data > 0; ++i) {
    if (piece->owns(*nodes[i])) continue;
    const auto found = derivatives_there.find(nodes[i]);
    if (found != derivatives_there.end()) {
      Cell& c = const_cast<Cell&>(*nodes[i]);
      c.grad_data = found->second[0];
      c.grad2_data = found->second[1];
    } else if (is_stranger.contains(nodes[i]) ||
               cells_to_cut(*nodes[i]) < cells_without_refinement) {
      unwanted.push_back(i);
    }
  }
  if (sizes) {
    sizes(nodes, of);
  } else {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      const Cell& c = *nodes[i];
      of[i] = size(c.x, c.y, c.data, c.grad_data, c.grad2_data);
    }
  }
  for (const std::size_t i : unwanted) of[i] = as_coarse_as_can_be;
}

void Partition::Parts::exchange_values_of_window() {
  const auto n = static_cast<std::size_t>(grid.n_cell_data);
  // Positions too: those of a node that came otherwise may be off by rounding.
  exchange_window(
      n + 4,
      [n](const Cell& c, double* row) {
        for (const double value : {c.x, c.y, c.grad_data, c.grad2_data}) *row++ = value;
        std::copy_n(c.data.begin(), n, row);
      },
      [n](Cell& c, const double* row) {
        for (double* value : {&c.x, &c.y, &c.grad_data, &c.grad2_data}) *value = *row++;
        std::copy_n(row, n, c.data.begin());
      });
}

/// Ghosts are what their owners have, as far as they have them.
void Partition::Parts::prepare_window(bool asks) {
  if (adapted_by == Adapted::by_nothing) {
    adapted_by = Adapted::by_update;
    piece->keep_window();
    plan_window();
  }
  exchange_values_of_window();
  messages.alone([&] { give_values_to_strangers(); });
  if (asks) exchange_derivatives();
}

void Partition::Parts::update_windows(bool asks, const std::function<void()>& change) {
  sharing([&] {
    prepare_window(asks);
    messages.alone([&] {
      if (options.repairs && messages.nb_processes() > 1) keep_nodes();
    });
  });
  messages.alone(change);
  remaps = messages.any(wants_remap() ? 1 : 0) != 0;
  sharing([&] {
    plan_window();
    is_settled = false;
    messages.alone([&] {
      list_owned();
      list_rings();
    });
    if (!window_agrees()) throw TooNarrow(update_is_narrow);
    plan_exchange();
    conclude(false);
    if (remaps) remap();
  });
}

void Partition::Parts::update(const size_function& size, const batch_size_function& sizes,
                              const std::optional<init_data_function>& init_data) {
  messages.alone([&] { check_update(size, sizes); });
  messages.together();
  update_windows(true, [&] {
    const batch_size_function wanted = [&](std::span<const Cell* const> nodes,
                                           std::span<double> of) {
      ask_window(nodes, of, size, sizes);
    };
    if (init_data) {
      piece->update(wanted, *init_data);
    } else {
      piece->update(wanted);
    }
  });
}

}  // namespace velmar_2d
