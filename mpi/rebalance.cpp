// New boxes, and all nodes in one place: nodes move with their data; links, levels and control
// cells follow from the places.
#include <algorithm>
#include <tuple>

#include "partition.hpp"

namespace velmar_2d {

namespace {

/// What moves with the nodes of one process.
struct Load {
  std::vector<Place> places;
  std::vector<double> rows;  ///< data, gradient, Hessian

  void add(Place place, const Cell& c) {
    places.push_back(place);
    rows.insert(rows.end(), c.data.begin(), c.data.end());
    rows.insert(rows.end(), {c.grad_data, c.grad2_data});
  }
};

/// Needs: the places of a mesh that was resolved, on a piece that has its grid.
void fill(Piece& piece, const std::vector<std::vector<Place>>& places,
          const std::vector<std::vector<double>>& rows, std::size_t n_cell_data) {
  std::vector<Place> all;
  for (const std::vector<Place>& some : places) all.insert(all.end(), some.begin(), some.end());
  piece.hold_all(all);
  std::vector<std::pair<Place, const double*>> sorted;
  sorted.reserve(all.size());
  for (std::size_t i = 0; i < places.size(); ++i) {
    for (std::size_t k = 0; k < places[i].size(); ++k) {
      sorted.emplace_back(places[i][k], rows[i].data() + k * (n_cell_data + 2));
    }
  }
  std::sort(sorted.begin(), sorted.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  for (Cell& c : piece.mesh().nodes()) {
    if (!piece.owns(c)) continue;
    const Place place = piece.place_of(c);
    const auto found = std::lower_bound(
        sorted.begin(), sorted.end(), place,
        [](const auto& entry, const Place& wanted) { return entry.first < wanted; });
    if (found == sorted.end() || found->first != place) {
      throw Error("the mesh of a process is not as an update left it");
    }
    std::copy_n(found->second, n_cell_data, c.data.begin());
    c.grad_data = found->second[n_cell_data];
    c.grad2_data = found->second[n_cell_data + 1];
  }
}

}  // namespace

CellWeights Partition::Parts::weigh_cells() const {
  CellWeights weights{grid.nx - 1, grid.ny - 1, {}};
  weights.weights.assign(
      static_cast<std::size_t>(weights.columns) * static_cast<std::size_t>(weights.rows), 0);
  for (const Cell* c : owned) {
    const Place place = piece->place_of(*c);
    const auto line = [](std::int64_t at, std::int32_t n) {
      return static_cast<std::int32_t>(std::min<std::int64_t>(at / places_per_cell, n - 1));
    };
    ++weights.at(line(place.x, weights.columns), line(place.y, weights.rows));
  }
  return weights;
}

void Partition::Parts::move_nodes(const std::vector<Window>& new_boxes) {
  const auto nb_processes = static_cast<std::size_t>(messages.nb_processes());
  std::vector<Load> loads(nb_processes);
  std::vector<char> sends_to(nb_processes, 0);
  messages.alone([&] {
    boxes = new_boxes;
    find_neighbours();
    for (const Cell* c : owned) {
      const Place place = piece->place_of(*c);
      loads[static_cast<std::size_t>(owner(place))].add(place, *c);
    }
    for (std::size_t i = 0; i < nb_processes; ++i) sends_to[i] = loads[i].places.empty() ? 0 : 1;
  });
  messages.together();
  const std::vector<int> neighbours = messages.neighbours(), partners = messages.partners(sends_to);
  std::vector<std::vector<Place>> places;
  std::vector<std::vector<double>> rows;
  for (const int rank : partners) {
    places.push_back(std::move(loads[static_cast<std::size_t>(rank)].places));
    rows.push_back(std::move(loads[static_cast<std::size_t>(rank)].rows));
  }
  messages.set_neighbours(partners);
  places = messages.exchange(places);
  rows = messages.exchange(rows);
  messages.set_neighbours(neighbours);
  messages.alone([&] {
    Piece moved(whole, grid, box(), options.overlap);
    moved.take_settings(*piece);
    owned.clear();
    ghosts.clear();
    piece.reset();
    piece.emplace(std::move(moved));
    fill(*piece, places, rows, static_cast<std::size_t>(grid.n_cell_data));
  });
  messages.together();
}

bool Partition::Parts::rebalance(double threshold) {
  const std::int64_t nb_nodes = first_numbers.back();
  const auto most = static_cast<double>(messages.largest(static_cast<std::int64_t>(owned.size())));
  if (most * messages.nb_processes() <= threshold * static_cast<double>(nb_nodes)) return false;
  std::vector<Window> new_boxes;
  CellWeights weights;
  messages.alone([&] { weights = weigh_cells(); });
  messages.together();
  weights.weights = messages.sum(std::move(weights.weights));
  messages.alone([&] { new_boxes = cut_into_boxes(weights, messages.nb_processes()); });
  messages.together();
  const bool are_same = std::equal(boxes.begin(), boxes.end(), new_boxes.begin(),
                                   [](const Window& a, const Window& b) {
                                     return std::tie(a.west, a.east, a.south, a.north) ==
                                            std::tie(b.west, b.east, b.south, b.north);
                                   });
  if (are_same) return false;
  move_nodes(new_boxes);
  settle();
  exchange_data();
  return true;
}

std::unique_ptr<Mesh> Partition::Parts::gather() {
  std::vector<char> sends_to(static_cast<std::size_t>(messages.nb_processes()), 0);
  sends_to[0] = 1;
  Load load;
  messages.alone([&] {
    for (const Cell* c : owned) load.add(piece->place_of(*c), *c);
  });
  messages.together();
  const std::vector<int> neighbours = messages.neighbours(), partners = messages.partners(sends_to);
  std::vector<std::vector<Place>> places(partners.size());
  std::vector<std::vector<double>> rows(partners.size());
  places[0] = std::move(load.places);  // process 0 comes first of all partners
  rows[0] = std::move(load.rows);
  messages.set_neighbours(partners);
  places = messages.exchange(places);
  rows = messages.exchange(rows);
  messages.set_neighbours(neighbours);
  std::unique_ptr<Mesh> mesh;
  messages.alone([&] {
    if (messages.rank() != 0) return;
    Piece all(whole, grid, {0, grid.nx - 1, 0, grid.ny - 1}, options.overlap);
    fill(all, places, rows, static_cast<std::size_t>(grid.n_cell_data));
    all.take_settings(*piece);
    mesh = std::make_unique<Mesh>(std::move(all).release_mesh());
  });
  messages.together();
  return mesh;
}

}  // namespace velmar_2d
