// A mesh that several processes keep together.
#include "partition.hpp"

#include <algorithm>
#include <cmath>

namespace velmar_2d {

namespace {

/// Whether a window reaches a box, or touches it.
bool touches(const Window& window, const PlaceBox& box) {
  const PlaceBox of(window);
  return of.low.x <= box.high.x && box.low.x <= of.high.x && of.low.y <= box.high.y &&
         box.low.y <= of.high.y;
}

CellWeights even_weights(const Rectangle& whole, const Grid& grid) {
  CellWeights weights{grid.nx - 1, rows_of(whole, grid) - 1, {}};
  weights.weights.assign(
      static_cast<std::size_t>(weights.columns) * static_cast<std::size_t>(weights.rows), 1);
  return weights;
}

}  // namespace

std::size_t Partition::Parts::neighbour_of(Place place) const {
  const std::vector<int>& ranks = messages.neighbours();
  const int rank = owner(place);
  const auto found = std::lower_bound(ranks.begin(), ranks.end(), rank);
  if (found == ranks.end() || *found != rank) {
    throw Error("a node is needed beyond the neighbours: more overlap is wanted");
  }
  return static_cast<std::size_t>(found - ranks.begin());
}

void Partition::Parts::find_neighbours() {
  owners = Owners(boxes);
  cells_of_boxes.clear();
  for (const PlaceBox& of : boxes) cells_of_boxes.push_back(of.cells());
  std::vector<int> neighbours;
  const Window window = window_around(box());
  for (int rank = 0; rank < messages.nb_processes(); ++rank) {
    const PlaceBox& there = boxes[static_cast<std::size_t>(rank)];
    if (rank == messages.rank()) continue;
    if (touches(window, there) || touches(window_around(there), box())) neighbours.push_back(rank);
  }
  messages.set_neighbours(std::move(neighbours));
  forget_told();
}

void Partition::Parts::begin_evenly() {
  messages.alone([&] {
    grid.ny = rows_of(whole, grid);
    if (options.overlap < 1) throw Error("the overlap must be at least 1 cell of the grid");
    boxes = cut_into_boxes(even_weights(whole, grid), messages.nb_processes());
    if (boxes.empty()) throw Error("there are more processes than cells of the grid");
  });
  messages.together();
  messages.alone([&] {
    find_neighbours();
    piece.emplace(whole, grid, box(), options.overlap);
    piece->keep_ghosts();
  });
  messages.together();
}

Partition::Partition(MPI_Comm communicator, const Rectangle& whole, const Grid& grid,
                     const PartitionOptions& options)
    : parts_(new Parts(communicator, whole, grid, options)) {
  Parts& parts = *parts_;
  parts.messages.collective([&] {
    parts.begin_evenly();
    try {
      parts.settle();
    } catch (const TooNarrow& found) {
      parts.widen_windows(found);
      parts.make_again({});
    }
  });
}

Partition::Partition(MPI_Comm communicator, const Mesh* whole, const bc_type_function& bc_type,
                     const PartitionOptions& options)
    : parts_(new Parts(communicator, {}, {}, options)) {
  parts_->messages.collective([&] { parts_->share_out(whole, bc_type); });
}

Partition::Partition(Partition&& from) noexcept = default;
Partition& Partition::operator=(Partition&& from) noexcept = default;
Partition::~Partition() = default;

MPI_Comm Partition::communicator() const { return parts_->messages.communicator(); }
int Partition::rank() const { return parts_->messages.rank(); }
int Partition::nb_processes() const { return parts_->messages.nb_processes(); }
const Window& Partition::box() const { return parts_->cells_of(rank()); }
std::span<const Window> Partition::boxes() const { return parts_->cells_of_boxes; }
std::span<const PlaceBox> Partition::place_boxes() const { return parts_->boxes; }
Mesh& Partition::mesh() { return parts_->piece->mesh(); }
const Mesh& Partition::mesh() const { return parts_->piece->mesh(); }

// Where an update has failed, nodes of the lists may be gone.
std::span<Cell* const> Partition::owned() const {
  if (parts_->messages.is_broken()) return {};
  return parts_->owned;
}
std::span<Cell* const> Partition::ghosts() const {
  if (parts_->messages.is_broken()) return {};
  return parts_->ghosts;
}
std::span<Cell* const> Partition::linked_ghosts() const {
  return ghosts().empty() ? ghosts() : ghosts().first(parts_->nb_linked_ghosts);
}
bool Partition::owns(const Cell& c) const { return parts_->piece->owns(c); }
int Partition::owner(const Cell& c) const { return parts_->owner(parts_->piece->place_of(c)); }
std::int64_t Partition::first_global_number() const {
  return parts_->first_numbers[static_cast<std::size_t>(rank())];
}
std::int64_t Partition::size() const { return parts_->first_numbers.back(); }

void Partition::Parts::check_update(const size_function& size,
                                    const batch_size_function& sizes) const {
  if (!size && !sizes) throw Error("the sizes are no procedure");
  check_transfer();
}
void Partition::Parts::check_transfer() const {
  if (piece->mesh().transfer() == Transfer::conservative && grid.n_cell_data > 0) {
    throw Error(
        "Transfer::conservative is for a Mesh of one process; Transfer::remap conserves, too");
  }
}

void Partition::resolve(const size_function& size, const Resolution& resolution) {
  resolve(size, {}, resolution);
}
void Partition::resolve(const size_function& size, init_data_function init_data,
                        const Resolution& resolution) {
  parts_->begin_resolve(size, {}, std::move(init_data), resolution);
}
void Partition::resolve_batched(const batch_size_function& sizes, const Resolution& resolution) {
  resolve_batched(sizes, {}, resolution);
}
void Partition::resolve_batched(const batch_size_function& sizes, init_data_function init_data,
                                const Resolution& resolution) {
  parts_->begin_resolve({}, sizes, std::move(init_data), resolution);
}
void Partition::Parts::begin_resolve(const size_function& size, const batch_size_function& sizes,
                                     init_data_function init_data, const Resolution& resolution) {
  messages.collective([&] {
    with_statistics([&] {
      if (adapted_by == Adapted::by_update) {
        messages.alone([&] { check_resolve(size, sizes, resolution); });
        sharing([&] { nb_restored = restore(init_data); });
      }
      repairing([&] { resolve(size, sizes, init_data, resolution); });
    });
  });
}

void Partition::update(const size_function& size) { parts_->begin_update(size, {}, std::nullopt); }
void Partition::update(const size_function& size, init_data_function init_data) {
  parts_->begin_update(size, {}, std::move(init_data));
}
void Partition::update_batched(const batch_size_function& sizes) {
  parts_->begin_update({}, sizes, std::nullopt);
}
void Partition::update_batched(const batch_size_function& sizes, init_data_function init_data) {
  parts_->begin_update({}, sizes, std::move(init_data));
}
void Partition::Parts::begin_update(const size_function& size, const batch_size_function& sizes,
                                    const std::optional<init_data_function>& init_data) {
  messages.collective([&] {
    with_statistics([&] {
      if (adapted_by == Adapted::by_resolve) {
        messages.alone([&] { check_update(size, sizes); });
        sharing([&] { keep_windows_from_now(); });
      }
      repairing([&] { update(size, sizes, init_data); });
    });
  });
}

void Partition::Parts::set_limit(std::int32_t limit) {
  messages.alone([&] { check_transfer(); });
  messages.together();
  if (adapted_by != Adapted::by_update) {
    messages.alone([&] { piece->set_limit(limit); });
    remaps = messages.any(wants_remap() ? 1 : 0) != 0;
    settle();  // ghosts that own nodes get linked to are parents of what has gone: they are there
    if (remaps) remap();
    return;
  }
  const std::int32_t before = piece->mesh().limit();
  repairing([&] {
    try {
      update_windows(false, [&] { piece->set_limit(limit); });
    } catch (const TooNarrow&) {
      // That of the nodes that are to be made again.
      messages.alone([&] { piece->mesh().set_limit(before); });
      throw;
    }
  });
}
void Partition::set_limit(std::int32_t limit) {
  parts_->messages.collective([&] { parts_->set_limit(limit); });
}

void Partition::compute_derivatives() {
  Messages& messages = parts_->messages;
  messages.collective([&] {
    messages.alone([&] { parts_->piece->compute_derivatives(); });
    messages.together();
  });
}

PartitionStatistics Partition::statistics() {
  Messages& messages = parts_->messages;
  return messages.collective([&] {
    PartitionStatistics all = parts_->statistics;
    all.nb_repairs = parts_->nb_repairs;
    all.overlap = parts_->options.overlap;
    const auto nb_owned = static_cast<std::int64_t>(owned().size());
    all.nb_nodes = size();
    all.nb_ghosts = messages.sum(static_cast<std::int64_t>(ghosts().size()));
    all.most_nodes_owned = messages.largest(nb_owned);
    for (std::int64_t* number :
         {&all.inserted, &all.removed, &all.visited, &all.refused, &all.nb_bytes}) {
      *number = messages.sum(*number);
    }
    all.update_seconds = messages.largest(all.update_seconds);
    all.sharing_seconds = messages.largest(all.sharing_seconds);
    all.imbalance = static_cast<double>(all.most_nodes_owned) * nb_processes() /
                    static_cast<double>(all.nb_nodes);
    return all;
  });
}

bool Partition::rebalance(double threshold) {
  return parts_->messages.collective([&] { return parts_->rebalance(threshold); });
}

std::unique_ptr<Mesh> Partition::gather() {
  return parts_->messages.collective([&] {
    return parts_->adapted_by == Parts::Adapted::by_update ? parts_->gather_updated()
                                                           : parts_->gather();
  });
}

}  // namespace velmar_2d
