// A mesh over many processes in a file. Process 0 writes and reads it; what it throws, all throw.
#include <new>

#include "velmar_2D/velmar_2D_mpi_hdf5.hpp"

namespace velmar_2d {

namespace {

/// Runs a step on process 0; throws Error on all where it fails there.
template <typename Step>
void on_process_0(MPI_Comm communicator, const Step& step) {
  int rank = 0;
  MPI_Comm_rank(communicator, &rank);
  std::string fault;
  if (rank == 0) {
    try {
      step();
    } catch (const std::bad_alloc&) {
      fault = "(velmar_2D/Partition:) ERROR on process 0: memory is exhausted";
    } catch (const std::exception& error) {
      fault = error.what();
    }
  }
  int length = static_cast<int>(fault.size());
  MPI_Bcast(&length, 1, MPI_INT, 0, communicator);
  if (length == 0) return;
  fault.resize(static_cast<std::size_t>(length));
  MPI_Bcast(fault.data(), length, MPI_CHAR, 0, communicator);
  throw Error(fault);
}

}  // namespace

void save(Partition& part, const std::string& path, const SaveOptions& options) {
  const std::unique_ptr<Mesh> whole = part.gather();
  on_process_0(part.communicator(), [&] { save(*whole, path, options); });
}

Partition load_partition(MPI_Comm communicator, const std::string& path, const LoadOptions& options,
                         const PartitionOptions& partition) {
  std::optional<Mesh> whole;
  on_process_0(communicator, [&] { whole = load(path, options); });
  return {communicator, whole ? &*whole : nullptr, options.bc_type, partition};
}

}  // namespace velmar_2d
