// velmar_2d::mpi_io: files for ParaView of one mesh over many processes.
//
//     const std::string error = velmar_2d::io::write_pvtu(part, "front.pvtu");
//     if (!error.empty() && part.rank() == 0) std::cerr << error << '\n';
#pragma once

#include "velmar_2D/velmar_2D_io.hpp"
#include "velmar_2D/velmar_2D_mpi.hpp"

#if defined(VELMAR_2D_MPI_IO_SHARED)
#define VELMAR_2D_MPI_IO_API __attribute__((visibility("default")))
#else
#define VELMAR_2D_MPI_IO_API
#endif

namespace velmar_2d::io {

/// Collective. Writes the mesh as it stands to a .pvtu file, which ParaView opens as one mesh. Each
/// process writes what it owns to a .vtu file of its own, in a folder of the same name beside it:
/// front.pvtu and front/front_0.vtu, front/front_1.vtu ...
///
/// The fields are those of write_vtu(), but `id` is the global number. All control cells together
/// are those of the whole mesh, and so are all triangles; nodes at the corners of triangles of
/// several processes are points of each, and the array vtkGhostType is 0 where they are owned and 1
/// elsewhere. The .pvtu file is written when all others are complete. `path` must mean the same
/// file on all processes.
///
/// @return nothing on success; otherwise one line, the same on all processes: the path and the
/// reason
///         of the first process that failed
[[nodiscard]] VELMAR_2D_MPI_IO_API std::string write_pvtu(Partition& part, const std::string& path,
                                                          const VtuOptions& options = {});

}  // namespace velmar_2d::io
