// Windows whose nodes plain updates have made, made anew: wider, around other boxes, or as one.
//
// A window that starts from the grid and is updated with the spacing of each node's level gets
// these nodes and their links, as long as all rest on others: it is replayed. Steep sizes, many
// levels in one update, leave nodes whose parents go later: no update brings those back. Then nodes
// are taken over as they are, which is possible where none is missing: in a window that is the
// whole.
//
// The order in which nodes came decides about what later updates make. Each process knows it for
// its own nodes and for those around its box. All these orders are parts of one, and nodes that no
// process knows together lie so far apart that they never meet: so any order will do that holds all
// of them.
#include <algorithm>
#include <limits>
#include <numeric>
#include <queue>
#include <tuple>

#include "partition.hpp"

namespace velmar_2d {

namespace {

/// Nodes around a box whose order counts: those that an own node may meet in an update. A little
/// more for rounding.
constexpr double cells_of_known_order = 1.001;
constexpr int most_replays = 4;

constexpr std::array<NeighbourLink Cell::*, 8> link_members = {
    &Cell::n, &Cell::ne, &Cell::e, &Cell::se, &Cell::s, &Cell::sw, &Cell::w, &Cell::nw};
constexpr std::array<std::int32_t Cell::*, 8> link_level_members = {
    &Cell::nl, &Cell::nel, &Cell::el, &Cell::sel, &Cell::sl, &Cell::swl, &Cell::wl, &Cell::nwl};

using Nodes = std::vector<AgedNode>;

/// Index of the node at a place, or the number of nodes. Needs: they are sorted by it.
std::size_t find_at(const Nodes& nodes, Place place) {
  const auto found =
      std::lower_bound(nodes.begin(), nodes.end(), place,
                       [](const AgedNode& node, const Place& at) { return node.place < at; });
  return found != nodes.end() && found->place == place
             ? static_cast<std::size_t>(found - nodes.begin())
             : nodes.size();
}

/// A node that stands alone where others around its parents have gone raises no level: so parents
/// want those of all their children. What comes with them goes again.
void want_children(Nodes& nodes) {
  for (AgedNode& node : nodes) node.wanted_level = node.level;
  for (const AgedNode& child : nodes) {
    if (child.ipos == 0) continue;
    const std::int64_t away = places_per_cell >> (child.ipos + 1) / 2;
    for (const int dx : {-1, 0, 1}) {
      for (const int dy : {-1, 0, 1}) {
        if (std::abs(dx) + std::abs(dy) != (child.ipos % 2 == 1 ? 2 : 1)) continue;
        const std::size_t i =
            find_at(nodes, {child.place.x + dx * away, child.place.y + dy * away});
        if (i == nodes.size()) continue;
        nodes[i].wanted_level = std::max(nodes[i].wanted_level, child.ipos);
      }
    }
  }
}

/// Nodes that are not of the grid, in an order that agrees with each of the chains, which go from
/// the oldest to the youngest.
///
/// @param nodes  all that there are, sorted by place; others in the chains do not count
/// @return none where chains contradict one another
std::vector<std::size_t> merged(const Nodes& nodes, const std::vector<Nodes>& chains) {
  std::vector<std::vector<std::size_t>> later(nodes.size());
  std::vector<std::size_t> nb_earlier(nodes.size(), 0);
  std::vector<char> is_met(nodes.size(), 0);
  std::vector<std::size_t> in_turn;
  for (const Nodes& chain : chains) {
    std::size_t before = nodes.size();
    for (const AgedNode& node : chain) {
      const std::size_t i = node.ipos == 0 ? nodes.size() : find_at(nodes, node.place);
      if (i == nodes.size()) continue;
      if (is_met[i] == 0) in_turn.push_back(i);
      is_met[i] = 1;
      if (before < nodes.size()) {
        later[before].push_back(i);
        ++nb_earlier[i];
      }
      before = i;
    }
  }
  std::vector<std::size_t> order;
  std::queue<std::size_t> free;
  for (const std::size_t i : in_turn) {
    if (nb_earlier[i] == 0) free.push(i);
  }
  while (!free.empty()) {
    const std::size_t i = free.front();
    free.pop();
    order.push_back(i);
    for (const std::size_t next : later[i]) {
      if (--nb_earlier[next] == 0) free.push(next);
    }
  }
  if (order.size() < in_turn.size()) order.clear();
  return order;
}

bool is_in(const Window& window, Place place) {
  return place.x >= window.west * places_per_cell && place.x <= window.east * places_per_cell &&
         place.y >= window.south * places_per_cell && place.y <= window.north * places_per_cell;
}

/// Updates the grid until it has these nodes.
/// @return whether the own ones are as they were
bool make_by_updates(Piece& piece, Nodes& nodes) {
  want_children(nodes);
  const auto nb_own = std::count_if(nodes.begin(), nodes.end(),
                                    [&](const AgedNode& node) { return piece.owns(node.place); });
  const batch_size_function as_before = [&](std::span<const Cell* const> asked,
                                            std::span<double> sizes) {
    for (std::size_t k = 0; k < asked.size(); ++k) {
      const std::size_t i = find_at(nodes, piece.place_of(*asked[k]));
      sizes[k] = i < nodes.size() ? piece.mesh().spacing_of_level(nodes[i].wanted_level)
                                  : std::numeric_limits<double>::infinity();
    }
  };
  for (int replay = 0; replay < most_replays; ++replay) {
    piece.update(as_before);
    for (Cell& c : piece.mesh().nodes()) {
      const std::size_t i = find_at(nodes, piece.place_of(c));
      if (i == nodes.size()) continue;
      c.x = nodes[i].x;
      c.y = nodes[i].y;
    }
    const auto is_as_before = [&](const Cell* c) {
      const std::size_t i = find_at(nodes, piece.place_of(*c));
      return i < nodes.size() && nodes[i].fingerprint == fingerprint(*c);
    };
    const std::span<Cell* const> own = piece.own_nodes();
    if (static_cast<std::int64_t>(own.size()) == nb_own &&
        std::all_of(own.begin(), own.end(), is_as_before)) {
      return true;
    }
  }
  return false;
}

/// Needs: all nodes of the whole, and a window that is.
void take_over(Piece& piece, const Nodes& nodes, const std::vector<std::size_t>& oldest_first) {
  std::vector<std::size_t> number_of(nodes.size());
  for (std::size_t k = 0; k < oldest_first.size(); ++k) number_of[oldest_first[k]] = k;
  Boundary side;
  std::vector<Cell> cells(oldest_first.size());
  const std::size_t n = piece.mesh().nodes().begin()->data.size();
  for (std::size_t k = 0; k < cells.size(); ++k) {
    const AgedNode& node = nodes[oldest_first[k]];
    Cell& c = cells[k];
    std::tie(c.x, c.y, c.area) = std::tie(node.x, node.y, node.area);
    std::tie(c.level, c.ipos, c.reserve, c.on_boundary, c.used) =
        std::tie(node.level, node.ipos, node.reserve, node.on_boundary, node.used);
    c.signature = node.signature;
    c.signature_set = node.signature_set;
    c.data.resize(n);
    for (std::size_t d = 0; d < 8; ++d) {
      c.*link_level_members[d] = node.link_levels[d];
      const Place there = node.links[d];
      if (there.x == AgedNode::nowhere) continue;
      if (there.x == AgedNode::to_side) {
        c.*link_members[d] = &side;
        continue;
      }
      const std::size_t i = find_at(nodes, there);
      if (i == nodes.size()) throw Error("a link leads to a node that is not there");
      c.*link_members[d] = &cells[number_of[i]];
    }
  }
  piece.take_nodes(cells);
}

}  // namespace

/// How far a node lies beyond the box of this process.
double Partition::Parts::cells_to_box(const Cell& c) const {
  const auto [column, row] = in_cells(c);
  return std::max({box().west - column, column - box().east, box().south - row, row - box().north});
}

Window Partition::Parts::window_around(const Window& of) const {
  return {std::max(of.west - options.overlap, 0), std::min(of.east + options.overlap, grid.nx - 1),
          std::max(of.south - options.overlap, 0),
          std::min(of.north + options.overlap, grid.ny - 1)};
}

bool Partition::Parts::is_whole(const Window& window) const {
  return window.west == 0 && window.south == 0 && window.east == grid.nx - 1 &&
         window.north == grid.ny - 1;
}

void Partition::Parts::keep_nodes() {
  std::vector<const Cell*>& originals = nodes_before.originals;
  originals.assign(owned.begin(), owned.end());
  nodes_before.nb_own = owned.size();
  for (const std::vector<Cell*>& cells : window_received) {
    for (const Cell* c : cells) {
      if (cells_to_box(*c) <= cells_of_known_order) originals.push_back(c);
    }
  }
  nodes_before.cells.resize(originals.size());
  for (std::size_t i = 0; i < originals.size(); ++i) nodes_before.cells[i] = *originals[i];
}

/// Process 0 makes one order of those that all know.
bool Partition::Parts::age_together(AgedNodes& own) {
  std::vector<char> sends_to(static_cast<std::size_t>(messages.nb_processes()), 0);
  sends_to[0] = 1;
  const std::vector<int> partners = messages.partners(sends_to);
  std::vector<Nodes> chains(partners.size());
  messages.alone([&] { chains[0] = own.nodes; });
  chains = messages.exchange_with(partners, chains);
  std::vector<std::vector<std::int64_t>> ages(partners.size());
  bool is_known = true;
  messages.alone([&] {
    if (messages.rank() != 0) return;
    Nodes nodes;
    for (const Nodes& chain : chains) {
      std::copy_if(chain.begin(), chain.end(), std::back_inserter(nodes),
                   [](const AgedNode& node) { return node.is_own; });
    }
    std::sort(nodes.begin(), nodes.end(),
              [](const AgedNode& a, const AgedNode& b) { return a.place < b.place; });
    const std::vector<std::size_t> order = merged(nodes, chains);
    for (std::size_t k = 0; k < order.size(); ++k)
      nodes[order[k]].age = static_cast<std::int64_t>(k) + 1;
    const auto nb_grid = std::count_if(nodes.begin(), nodes.end(),
                                       [](const AgedNode& node) { return node.ipos == 0; });
    is_known = order.size() + static_cast<std::size_t>(nb_grid) == nodes.size();
    for (std::size_t i = 0; i < chains.size(); ++i) {
      for (const AgedNode& node : chains[i]) {
        if (node.is_own) ages[i].push_back(nodes[find_at(nodes, node.place)].age);
      }
    }
  });
  ages = messages.exchange_with(partners, ages);
  messages.alone([&] {
    auto age = ages[0].begin();
    for (AgedNode& node : own.nodes) {
      if (node.is_own) node.age = *age++;
    }
  });
  return messages.together(is_known ? 0 : 1) == 0;
}

AgedNodes Partition::Parts::aged(const KeptNodes& kept) const {
  const std::size_t nb_nodes = kept.cells.size();
  std::unordered_map<const Cell*, std::size_t> number_of_original;
  number_of_original.reserve(nb_nodes);
  for (std::size_t i = 0; i < nb_nodes; ++i) number_of_original[kept.originals[i]] = i;
  std::vector<Cell> cells = kept.cells;
  for (Cell& c : cells) {
    for (const auto member : link_members) {
      if ((c.*member).cell() == nullptr) continue;
      const auto found = number_of_original.find((c.*member).cell());
      c.*member = found != number_of_original.end() ? &cells[found->second] : nullptr;
    }
  }
  std::vector<std::size_t> oldest_first(nb_nodes);
  std::iota(oldest_first.begin(), oldest_first.end(), std::size_t{0});
  std::sort(oldest_first.begin(), oldest_first.end(),
            [&](std::size_t a, std::size_t b) { return cells[a].id < cells[b].id; });
  AgedNodes nodes;
  for (const std::size_t i : oldest_first) {
    const Cell& c = cells[i];
    AgedNode& node = nodes.nodes.emplace_back();
    node.place = piece->place_of(c);
    node.ipos = c.ipos;
    if (i >= kept.nb_own) continue;
    node.is_own = true;
    node.fingerprint = fingerprint(c);
    std::tie(node.x, node.y, node.area) = std::tie(c.x, c.y, c.area);
    std::tie(node.level, node.reserve, node.on_boundary, node.used) =
        std::tie(c.level, c.reserve, c.on_boundary, c.used);
    node.signature = c.signature;
    node.signature_set = c.signature_set;
    for (std::size_t d = 0; d < 8; ++d) {
      const NeighbourLink there = c.*link_members[d];
      node.link_levels[d] = c.*link_level_members[d];
      node.links[d] = there.cell() != nullptr ? piece->place_of(*there.cell())
                      : there.empty()         ? Place{AgedNode::nowhere, 0}
                                              : Place{AgedNode::to_side, 0};
    }
    nodes.rows.insert(nodes.rows.end(), c.data.begin(), c.data.end());
    nodes.rows.insert(nodes.rows.end(), {c.grad_data, c.grad2_data});
  }
  return nodes;
}

/// Own nodes of all processes that lie in the window that this one wants, sorted by place.
AgedNodes Partition::Parts::nodes_from_all(
    const AgedNodes& own, const std::function<std::optional<Window>(int)>& window_there) {
  const std::size_t width = static_cast<std::size_t>(grid.n_cell_data) + 2;
  const auto nb_processes = static_cast<std::size_t>(messages.nb_processes());
  std::vector<AgedNodes> loads(nb_processes);
  std::vector<char> sends_to(nb_processes, 0);
  messages.alone([&] {
    for (std::size_t rank = 0; rank < nb_processes; ++rank) {
      const std::optional<Window> window = window_there(static_cast<int>(rank));
      auto row = own.rows.begin();
      for (const AgedNode& node : own.nodes) {
        if (!node.is_own) continue;
        const auto end = row + static_cast<std::ptrdiff_t>(width);
        if (window && is_in(*window, node.place)) {
          loads[rank].nodes.push_back(node);
          loads[rank].rows.insert(loads[rank].rows.end(), row, end);
        }
        row = end;
      }
      sends_to[rank] = loads[rank].nodes.empty() ? 0 : 1;
    }
  });
  messages.together();
  const std::vector<int> partners = messages.partners(sends_to);
  std::vector<Nodes> nodes;
  std::vector<std::vector<double>> rows;
  for (const int rank : partners) {
    nodes.push_back(std::move(loads[static_cast<std::size_t>(rank)].nodes));
    rows.push_back(std::move(loads[static_cast<std::size_t>(rank)].rows));
  }
  nodes = messages.exchange_with(partners, nodes);
  rows = messages.exchange_with(partners, rows);
  AgedNodes all;
  messages.alone([&] {
    for (std::size_t i = 0; i < partners.size(); ++i) {
      all.nodes.insert(all.nodes.end(), nodes[i].begin(), nodes[i].end());
      all.rows.insert(all.rows.end(), rows[i].begin(), rows[i].end());
    }
    for (std::size_t k = 0; k < all.nodes.size(); ++k) all.nodes[k].row = k;
    std::sort(all.nodes.begin(), all.nodes.end(),
              [](const AgedNode& a, const AgedNode& b) { return a.place < b.place; });
  });
  return all;
}

std::optional<Piece> Partition::Parts::replayed(
    const AgedNodes& own, const Window* of,
    const std::function<std::optional<Window>(int)>& window_there) {
  AgedNodes all = nodes_from_all(own, window_there);
  std::optional<Piece> made;
  bool is_made = true;
  messages.alone([&] {
    if (of == nullptr) return;
    Nodes& nodes = all.nodes;
    std::vector<std::size_t> oldest_first(nodes.size());
    std::iota(oldest_first.begin(), oldest_first.end(), std::size_t{0});
    const auto by_age_or_place = [&](std::size_t i) {
      const AgedNode& node = nodes[i];
      return std::tie(node.age, node.ipos, node.place.y, node.place.x);
    };
    std::sort(oldest_first.begin(), oldest_first.end(), [&](std::size_t a, std::size_t b) {
      return by_age_or_place(a) < by_age_or_place(b);
    });
    grid.subdiv_max = piece->mesh().limit();
    made.emplace(whole, grid, *of, options.overlap);
    made->keep_ghosts();
    made->keep_window();
    if (is_whole(window_around(*of))) {
      take_over(*made, nodes, oldest_first);
    } else {
      is_made = make_by_updates(*made, nodes);
      std::vector<Place> places(nodes.size());
      for (std::size_t k = 0; k < places.size(); ++k) places[k] = nodes[oldest_first[k]].place;
      made->order_by_age(places);
    }
    for (Cell& c : made->mesh().nodes()) {
      const std::size_t i = find_at(nodes, made->place_of(c)), n = c.data.size();
      if (i == nodes.size()) continue;
      const double* row = all.rows.data() + nodes[i].row * (n + 2);
      std::copy_n(row, n, c.data.begin());
      c.grad_data = row[n];
      c.grad2_data = row[n + 1];
    }
    made->take_settings(*piece);
  });
  if (messages.together(is_made ? 0 : 1) > 0) made.reset();
  return made;
}

bool Partition::Parts::replay(const AgedNodes& own, bool widens) {
  for (;;) {
    messages.alone([&] { find_neighbours(); });
    messages.together();
    std::optional<Piece> made = replayed(own, &box(), [this](int rank) {
      return window_around(boxes[static_cast<std::size_t>(rank)]);
    });
    if (!made) {
      if (!widens) return false;
      widen_windows(TooNarrow(update_is_narrow));
      continue;
    }
    messages.alone([&] {
      owned.clear();
      ghosts.clear();
      *piece = std::move(*made);
    });
    plan_window();
    exchange_values_of_window();
    messages.alone([&] {
      list_owned();
      list_rings();
    });
    if (window_agrees()) break;
    widen_windows(TooNarrow(update_is_narrow));
    widens = true;
  }
  is_settled = false;
  plan_exchange();
  conclude(false);
  return true;
}

/// The nodes before the update that has just failed, with the caller's marks.
void Partition::Parts::repair_update() {
  const KeptNodes kept = std::exchange(nodes_before, {});
  AgedNodes own;
  messages.alone([&] { own = aged(kept); });
  messages.together();
  if (!age_together(own)) throw FaultOfAll(update_is_narrow);
  replay(own, true);
  return_handles(kept);
}

/// The caller's marks, where nodes were made anew.
void Partition::Parts::return_handles(const KeptNodes& kept) {
  messages.alone([&] {
    for (std::size_t i = 0; i < kept.nb_own; ++i) {
      Cell& c = *piece->node_at(piece->place_of(kept.cells[i]));
      std::tie(c.used, c.data_ptr) = std::tie(kept.cells[i].used, kept.cells[i].data_ptr);
    }
  });
  messages.together();
}

bool Partition::Parts::rebalance_updated(const std::vector<Window>& new_boxes) {
  AgedNodes own;
  messages.alone([&] {
    keep_nodes();
    own = aged(std::exchange(nodes_before, {}));
  });
  messages.together();
  if (!age_together(own)) return false;
  const std::vector<Window> boxes_before = std::exchange(boxes, new_boxes);
  if (replay(own, false)) return true;
  boxes = boxes_before;
  messages.alone([&] { find_neighbours(); });
  messages.together();
  plan_exchange();  // what the neighbours were told has been forgotten
  conclude(false);
  return false;
}

std::unique_ptr<Mesh> Partition::Parts::gather_updated() {
  const Window all{0, grid.nx - 1, 0, grid.ny - 1};
  AgedNodes own;
  messages.alone([&] {
    keep_nodes();
    own = aged(std::exchange(nodes_before, {}));
  });
  messages.together();
  age_together(own);
  std::optional<Piece> made = replayed(own, messages.rank() == 0 ? &all : nullptr, [&](int rank) {
    return rank == 0 ? std::optional(all) : std::nullopt;
  });
  std::unique_ptr<Mesh> mesh;
  messages.alone([&] {
    if (made) mesh = std::make_unique<Mesh>(std::move(*made).release_mesh());
  });
  messages.together();
  return mesh;
}

}  // namespace velmar_2d
