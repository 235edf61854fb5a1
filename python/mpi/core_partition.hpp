// What the files of the module velmar_2d._mpi share.
#pragma once

#include <optional>

#include "python/core/asking.hpp"
#include "velmar_2D/velmar_2D_mpi.hpp"

namespace velmar_2d::python {

/// One mesh of many processes as Python sees it: velmar_2d._mpi.Partition. Between calls it holds
/// no object of Python's. `kinds` are those of make_mesh().
class CorePartition {
 public:
  /// Communicators come as the numbers that Fortran has for them, so that nothing of mpi4py is
  /// needed to compile this.
  CorePartition(std::int64_t communicator, const std::array<double, 4>& rectangle, std::int32_t nx,
                std::int32_t ny, std::int32_t subdiv_max, std::int32_t n_cell_data,
                const py::object& kinds, bool kinds_vectorised, std::int32_t overlap, bool repairs);
  /// @param mesh  on process 0; null elsewhere
  CorePartition(std::int64_t communicator, CoreMesh* mesh, const py::object& kinds,
                bool kinds_vectorised, std::int32_t overlap, bool repairs);
  CorePartition(const CorePartition&) = delete;
  CorePartition& operator=(const CorePartition&) = delete;

  /// `progress`: None, or a function that is told of progress.
  void update(const py::function& size, const py::object& init_data, bool vectorised,
              bool init_vectorised, const py::object& progress, const py::object& kinds,
              bool kinds_vectorised);
  void resolve(const py::function& size, const py::object& init_data, double margin,
               std::int64_t most_nodes, double slope, bool vectorised, bool init_vectorised,
               const py::object& progress, const py::object& kinds, bool kinds_vectorised);
  void set_limit(std::int32_t limit, const py::object& kinds, bool kinds_vectorised);
  bool rebalance(double threshold, const py::object& kinds, bool kinds_vectorised);
  /// None but on process 0. Its kinds are a function of this object's, where they are a function.
  std::unique_ptr<CoreMesh> gather(const py::object& kinds, bool kinds_vectorised);
  void set_transfer(std::int32_t transfer) {
    at_rest().mesh().set_transfer(static_cast<Transfer>(transfer));
  }
  /// Collective. The first process that is not fine, or the number of processes.
  int first_at_fault(bool is_fine);

  /// For what only looks, or runs no functions of Python's. Throws Error in the middle of a change.
  Partition& at_rest();
  /// Grows whenever arrays of the nodes become old.
  std::uint64_t version() const { return version_; }
  const Rectangle& whole() const { return whole_; }

 private:
  void take_partition();
  template <typename Operation>
  auto changing(const py::object& kinds, bool kinds_vectorised, const Operation& operation);
  void adapt(const Functions& functions, const std::optional<Resolution>& resolution,
             const py::object& progress, const py::object& kinds, bool kinds_vectorised);

  bc_type_function kind_at_;
  std::optional<Partition> partition_;
  Rectangle whole_{};
  std::uint64_t version_ = 0;
  bool is_changing_ = false;  ///< guarded by Python's lock
};

void define_partition_arrays(py::class_<CorePartition>& partition);

}  // namespace velmar_2d::python
