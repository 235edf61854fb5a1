// New boxes, and all nodes in one place: nodes move with their data; links, levels and control
// cells follow from the places.
#include <algorithm>
#include <bit>
#include <cmath>
#include <tuple>

#include "partition.hpp"

namespace velmar_2d {

namespace {

/// What moves with the nodes of one process.
struct Load {
  std::vector<Place> places;
  std::vector<double> rows;  ///< data, gradient, second derivative, position
  std::vector<std::uint64_t> fingerprints;

  void add(Place place, const Cell& c) {
    places.push_back(place);
    rows.insert(rows.end(), c.data.begin(), c.data.end());
    rows.insert(rows.end(), {c.grad_data, c.grad2_data, c.x, c.y});
    fingerprints.push_back(fingerprint(c));
  }
};

constexpr const char* unresolved =
    "the mesh is not as resolve() leaves it: places of nodes alone do not tell their links";

template <typename T>
std::vector<T> joined(const std::vector<std::vector<T>>& parts) {
  std::vector<T> all;
  for (const std::vector<T>& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

/// Needs: what fill() has returned for these nodes.
void require_same(std::span<Cell* const> nodes, const std::vector<std::size_t>& rows,
                  const std::vector<std::uint64_t>& fingerprints) {
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    if (fingerprint(*nodes[i]) != fingerprints[rows[i]]) throw Error(unresolved);
  }
}

/// What process 0 tells about a mesh that it shares out.
struct Heading {
  Rectangle rectangle;
  std::int32_t nx, ny, limit, n_cell_data;
  Transfer transfer;
  bool is_resolved;
};

}  // namespace

std::vector<std::size_t> fill(Piece& piece, const PieceNodes& nodes, bool& has_moved) {
  piece.hold_all(nodes.places);
  std::vector<std::pair<Place, std::size_t>> sorted;
  sorted.reserve(nodes.places.size());
  for (std::size_t i = 0; i < nodes.places.size(); ++i) sorted.emplace_back(nodes.places[i], i);
  std::sort(sorted.begin(), sorted.end());
  std::vector<std::size_t> rows;
  rows.reserve(sorted.size());
  for (Cell* c : piece.own_nodes()) {
    const std::pair<Place, std::size_t> wanted{piece.place_of(*c), 0};
    const auto found = std::lower_bound(sorted.begin(), sorted.end(), wanted);
    if (found == sorted.end() || found->first != wanted.first) throw Error(unresolved);
    const std::size_t row = found->second, n = c->data.size();
    const double* values = nodes.rows.data() + row * (n + 4);
    std::copy_n(values, n, c->data.begin());
    c->grad_data = values[n];
    c->grad2_data = values[n + 1];
    const double x = values[n + 2], y = values[n + 3];
    if (!std::isnan(x) && (x != c->x || y != c->y)) {
      c->x = x;
      c->y = y;
      has_moved = true;
    }
    if (!nodes.handles.empty()) std::tie(c->used, c->data_ptr) = nodes.handles[row];
    rows.push_back(row);
  }
  return rows;
}

std::vector<Window> Partition::Parts::cut_by_nodes(std::span<const Cell* const> nodes) {
  CellWeights weights{grid.nx - 1, grid.ny - 1, {}};
  messages.alone([&] {
    weights.weights.assign(
        static_cast<std::size_t>(weights.columns) * static_cast<std::size_t>(weights.rows), 0);
    const auto line = [](std::int64_t at, std::int32_t n) {
      return static_cast<std::int32_t>(std::min<std::int64_t>(at / places_per_cell, n - 1));
    };
    for (const Cell* c : nodes) {
      const Place place = piece->place_of(*c);
      ++weights.at(line(place.x, weights.columns), line(place.y, weights.rows));
    }
  });
  messages.together();
  weights.weights = messages.sum(std::move(weights.weights));
  std::vector<Window> new_boxes;
  messages.alone([&] { new_boxes = cut_into_boxes(weights, messages.nb_processes()); });
  messages.together();
  return new_boxes;
}

void Partition::Parts::move_nodes(std::span<const Cell* const> nodes,
                                  const std::vector<Window>& new_boxes) {
  const auto nb_processes = static_cast<std::size_t>(messages.nb_processes());
  std::vector<Load> loads(nb_processes);
  std::vector<char> sends_to(nb_processes, 0);
  messages.alone([&] {
    boxes = new_boxes;
    find_neighbours();
    for (const Cell* c : nodes) {
      const Place place = piece->place_of(*c);
      loads[static_cast<std::size_t>(owner(place))].add(place, *c);
    }
    for (std::size_t i = 0; i < nb_processes; ++i) sends_to[i] = loads[i].places.empty() ? 0 : 1;
  });
  messages.together();
  const std::vector<int> partners = messages.partners(sends_to);
  std::vector<std::vector<Place>> places;
  std::vector<std::vector<double>> rows;
  std::vector<std::vector<std::uint64_t>> fingerprints;
  for (const int rank : partners) {
    Load& load = loads[static_cast<std::size_t>(rank)];
    places.push_back(std::move(load.places));
    rows.push_back(std::move(load.rows));
    fingerprints.push_back(std::move(load.fingerprints));
  }
  places = messages.exchange_with(partners, places);
  rows = messages.exchange_with(partners, rows);
  fingerprints = messages.exchange_with(partners, fingerprints);
  PieceNodes moved;
  std::vector<std::uint64_t> expected;
  messages.alone([&] {
    moved = {joined(places), joined(rows), {}};
    expected = joined(fingerprints);
  });
  messages.together();
  const std::vector<std::size_t> row_of_node = make_again(moved);
  messages.alone([&] { require_same(owned, row_of_node, expected); });
  messages.together();
}

bool Partition::Parts::rebalance(double threshold) {
  const std::int64_t nb_nodes = first_numbers.back();
  const auto most = static_cast<double>(messages.largest(static_cast<std::int64_t>(owned.size())));
  if (most * messages.nb_processes() <= threshold * static_cast<double>(nb_nodes)) return false;
  const std::vector<Window> new_boxes = cut_by_nodes(owned);
  const bool are_same = std::equal(boxes.begin(), boxes.end(), new_boxes.begin(),
                                   [](const Window& a, const Window& b) {
                                     return std::tie(a.west, a.east, a.south, a.north) ==
                                            std::tie(b.west, b.east, b.south, b.north);
                                   });
  if (are_same) return false;
  if (adapted_by == Adapted::by_update) return rebalance_updated(new_boxes);
  move_nodes(owned, new_boxes);
  return true;
}

void Partition::Parts::share_out(const Mesh* mesh, const bc_type_function& bc_type) {
  const bool is_here = messages.rank() == 0;
  Heading heading{};
  std::vector<const Cell*> nodes;
  messages.alone([&] {
    if (!is_here) return;
    if (mesh == nullptr) throw Error("there is no mesh to share out");
    const auto lines = [&](double length) {
      return static_cast<std::int32_t>(std::lround(length / mesh->dist_0())) + 1;
    };
    const Rectangle r = mesh->rectangle();
    heading = {r,
               lines(r.x_max - r.x_min),
               lines(r.y_max - r.y_min),
               mesh->limit(),
               mesh->n_cell_data(),
               mesh->transfer(),
               Piece::is_resolved(*mesh)};
    for (const Cell& c : mesh->nodes()) nodes.push_back(&c);
  });
  messages.together();
  heading = messages.gather_from_all(heading)[0];
  whole = heading.rectangle;
  grid = {heading.nx, heading.ny, heading.limit, heading.n_cell_data, bc_type};
  begin_evenly();
  messages.alone([&] { piece->mesh().set_transfer(heading.transfer); });
  const std::vector<Window> new_boxes = cut_by_nodes(nodes);
  if (heading.is_resolved) {
    adapted_by = Adapted::by_resolve;
    move_nodes(nodes, new_boxes);
    return;
  }
  AgedNodes own;
  messages.alone([&] {
    KeptNodes kept{{}, nodes, nodes.size()};
    for (const Cell* c : nodes) kept.cells.push_back(*c);
    own = aged(kept);
    for (std::size_t i = 0; i < own.nodes.size(); ++i) {
      if (own.nodes[i].ipos > 0) own.nodes[i].age = static_cast<std::int64_t>(i) + 1;
    }
    boxes = new_boxes;
  });
  messages.together();
  adapted_by = Adapted::by_update;
  replay(own, true);
}

std::unique_ptr<Mesh> Partition::Parts::gather() {
  std::vector<char> sends_to(static_cast<std::size_t>(messages.nb_processes()), 0);
  sends_to[0] = 1;
  Load load;
  messages.alone([&] {
    for (const Cell* c : owned) load.add(piece->place_of(*c), *c);
  });
  messages.together();
  const std::vector<int> partners = messages.partners(sends_to);
  std::vector<std::vector<Place>> places(partners.size());
  std::vector<std::vector<double>> rows(partners.size());
  std::vector<std::vector<std::uint64_t>> fingerprints(partners.size());
  places[0] = std::move(load.places);  // process 0 comes first of all partners
  rows[0] = std::move(load.rows);
  fingerprints[0] = std::move(load.fingerprints);
  places = messages.exchange_with(partners, places);
  rows = messages.exchange_with(partners, rows);
  fingerprints = messages.exchange_with(partners, fingerprints);
  std::unique_ptr<Mesh> mesh;
  messages.alone([&] {
    if (messages.rank() != 0) return;
    grid.subdiv_max = piece->mesh().limit();
    Piece all(whole, grid, {0, grid.nx - 1, 0, grid.ny - 1}, options.overlap);
    bool has_moved = false;
    const std::vector<std::size_t> row_of_node =
        fill(all, {joined(places), joined(rows), {}}, has_moved);
    require_same(all.own_nodes(), row_of_node, joined(fingerprints));
    all.take_settings(*piece);
    mesh = std::make_unique<Mesh>(std::move(all).release_mesh());
  });
  messages.together();
  return mesh;
}

}  // namespace velmar_2d
