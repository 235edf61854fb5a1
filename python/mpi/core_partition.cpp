// Making and adapting one mesh of many processes with functions of Python's.
#include "python/mpi/core_partition.hpp"

#include <cmath>

#include "python/core/progress.hpp"

namespace velmar_2d::python {

namespace {

MPI_Comm communicator_of(std::int64_t number) {
  return MPI_Comm_f2c(static_cast<MPI_Fint>(number));
}

}  // namespace

CorePartition::CorePartition(std::int64_t communicator, const std::array<double, 4>& rectangle,
                             std::int32_t nx, std::int32_t ny, std::int32_t subdiv_max,
                             std::int32_t n_cell_data, const py::object& kinds,
                             bool kinds_vectorised, std::int32_t overlap, bool repairs) {
  const auto [west, east, south, north] = rectangle;
  const Rectangle domain = {west, east, south, north};
  Grid grid;
  grid.nx = nx;
  grid.ny = ny;
  grid.subdiv_max = subdiv_max;
  grid.n_cell_data = n_cell_data;
  grid.bc_type = kinds_of_mesh(kind_at_, kinds);
  KindsAtHand kinds_at_hand(kind_at_, kinds, kinds_vectorised);
  kinds_at_hand.foresee_grid(domain, nx, ny);
  {
    const LetOthersRun others(kinds_at_hand.one_by_one());
    partition_.emplace(communicator_of(communicator), domain, grid,
                       PartitionOptions{.overlap = overlap, .repairs = repairs});
  }
  take_partition();
}

CorePartition::CorePartition(std::int64_t communicator, CoreMesh* mesh, const py::object& kinds,
                             bool kinds_vectorised, std::int32_t overlap, bool repairs) {
  std::optional<Busy> busy;
  try {
    if (mesh != nullptr) busy.emplace(*mesh, "making a Partition");
  } catch (const Error&) {
    mesh = nullptr;  // the others wait: all are told that there is none
  }
  KindsAtHand kinds_at_hand(kind_at_, kinds, kinds_vectorised);
  {
    const LetOthersRun others(kinds_at_hand.one_by_one());
    partition_.emplace(communicator_of(communicator), mesh == nullptr ? nullptr : mesh->mesh.get(),
                       kinds_of_mesh(kind_at_, kinds),
                       PartitionOptions{.overlap = overlap, .repairs = repairs});
  }
  take_partition();
}

void CorePartition::take_partition() {
  const py::gil_scoped_release others_may_run;
  partition_->mesh().set_message_handler(log);
  const Rectangle window = partition_->mesh().rectangle();
  std::array<double, 4> ends = {-window.x_min, window.x_max, -window.y_min, window.y_max};
  MPI_Allreduce(MPI_IN_PLACE, ends.data(), 4, MPI_DOUBLE, MPI_MAX, partition_->communicator());
  whole_ = {-ends[0], ends[1], -ends[2], ends[3]};
}

Partition& CorePartition::at_rest() {
  if (is_changing_) {
    throw Error(
        "velmar_2d: a Partition was used while it changes: by a callback of an update, or by "
        "another thread");
  }
  return *partition_;
}

template <typename Operation>
auto CorePartition::changing(const py::object& kinds, bool kinds_vectorised,
                             const Operation& operation) {
  at_rest();
  struct Change {
    CorePartition& core;
    explicit Change(CorePartition& changed) : core(changed) { core.is_changing_ = true; }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;
    ~Change() {
      core.is_changing_ = false;
      ++core.version_;
    }
  };
  const Change change(*this);
  KindsAtHand kinds_at_hand(kind_at_, kinds, kinds_vectorised);
  const Mesh& mesh = partition_->mesh();
  kinds_at_hand.expect_apart(mesh.dist_0() * std::exp2(-0.5 * mesh.limit()));
  return operation(kinds_at_hand);
}

// Where windows are made anew the mesh stays the same object, and keeps its handlers.
void CorePartition::adapt(const Functions& functions, const std::optional<Resolution>& resolution,
                          const py::object& progress, const py::object& kinds,
                          bool kinds_vectorised) {
  changing(kinds, kinds_vectorised, [&](KindsAtHand& kinds_at_hand) {
    const ProgressAtHand progress_at_hand(partition_->mesh(), progress);
    Asking asking(functions, kinds_at_hand, resolution.has_value());
    const batch_size_function sizes = [&](Nodes nodes, std::span<double> of) {
      asking.sizes_at(partition_->mesh(), whole_, nodes, of);
    };
    const LetOthersRun others(asking.asks_one_by_one());
    if (resolution) {
      asking.expect_holes(partition_->mesh());
      partition_->resolve_batched(sizes, asking.value_at, *resolution);
    } else if (asking.interpolates()) {
      partition_->update_batched(sizes);
    } else {
      partition_->update_batched(sizes, asking.value_at);
    }
  });
}

void CorePartition::update(const py::function& size, const py::object& init_data, bool vectorised,
                           bool init_vectorised, const py::object& progress,
                           const py::object& kinds, bool kinds_vectorised) {
  adapt({size, init_data, vectorised, init_vectorised}, {}, progress, kinds, kinds_vectorised);
}

void CorePartition::resolve(const py::function& size, const py::object& init_data, double margin,
                            std::int64_t most_nodes, double slope, bool vectorised,
                            bool init_vectorised, const py::object& progress,
                            const py::object& kinds, bool kinds_vectorised) {
  adapt({size, init_data, vectorised, init_vectorised}, Resolution{margin, most_nodes, slope},
        progress, kinds, kinds_vectorised);
}

void CorePartition::set_limit(std::int32_t limit, const py::object& kinds, bool kinds_vectorised) {
  changing(kinds, kinds_vectorised, [&](const KindsAtHand& kinds_at_hand) {
    const ProgressAtHand progress_at_hand(partition_->mesh(), py::none());
    const LetOthersRun others(kinds_at_hand.one_by_one());
    partition_->set_limit(limit);
  });
}

bool CorePartition::rebalance(double threshold, const py::object& kinds, bool kinds_vectorised) {
  return changing(kinds, kinds_vectorised, [&](const KindsAtHand& kinds_at_hand) {
    const LetOthersRun others(kinds_at_hand.one_by_one());
    return partition_->rebalance(threshold);
  });
}

std::unique_ptr<CoreMesh> CorePartition::gather(const py::object& kinds, bool kinds_vectorised) {
  return changing(kinds, kinds_vectorised, [&](const KindsAtHand& kinds_at_hand) {
    auto core = std::make_unique<CoreMesh>();
    const LetOthersRun others(kinds_at_hand.one_by_one());
    core->mesh = partition_->gather();
    if (core->mesh == nullptr) return std::unique_ptr<CoreMesh>();
    core->mesh->set_message_handler(log);
    return core;
  });
}

int CorePartition::first_at_fault(bool is_fine) {
  const Partition& partition = at_rest();
  const py::gil_scoped_release others_may_run;
  const int own = is_fine ? partition.nb_processes() : partition.rank();
  int first = own;
  MPI_Allreduce(&own, &first, 1, MPI_INT, MPI_MIN, partition.communicator());
  return first;
}

}  // namespace velmar_2d::python
