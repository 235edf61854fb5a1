// velmar_2d::mpi_hdf5: one mesh over many processes in an HDF5 file, to go on from it with any
// other number of processes, or with one and a Mesh.
//
//     velmar_2d::save(part, "run.h5");
//     auto part = velmar_2d::load_partition(MPI_COMM_WORLD, "run.h5", {.bc_type = bc_type});
#pragma once

#include "velmar_2D/velmar_2D_hdf5.hpp"
#include "velmar_2D/velmar_2D_mpi.hpp"

#if defined(VELMAR_2D_MPI_HDF5_SHARED)
#define VELMAR_2D_MPI_HDF5_API __attribute__((visibility("default")))
#else
#define VELMAR_2D_MPI_HDF5_API
#endif

namespace velmar_2d {

/// Collective. Writes the whole mesh, with its data, as save() writes a Mesh. Process 0 gathers and
/// writes it, so that it needs room for all; the options of the others do not matter.
///
/// Throws Error on all processes where it cannot be written: what was there before stays.
VELMAR_2D_MPI_HDF5_API void save(Partition& part, const std::string& path,
                                 const SaveOptions& options = {});

/// Collective. Shares out a saved mesh, as resolve() left it, in boxes of about as many nodes each.
/// Process 0 reads it; `path` and `options` of the others do not matter but for `bc_type`.
///
/// Throws Error on all processes where the file is not there, is no sound one, or holds a mesh that
/// a Partition cannot take over.
VELMAR_2D_MPI_HDF5_API Partition load_partition(MPI_Comm communicator, const std::string& path,
                                                const LoadOptions& options = {},
                                                const PartitionOptions& partition = {});

}  // namespace velmar_2d
