// velmar_2d::mpi: one mesh over many processes.
//
//     MPI_Init(&argc, &argv);
//     {
//       velmar_2d::Partition part(MPI_COMM_WORLD, {0.0, 1.0, 0.0, 1.0},
//                                 {.nx = 65, .n_cell_data = 1});
//       part.resolve(size);
//       for (velmar_2d::Cell* c : part.owned()) {
//         // links of owned nodes are those of one mesh
//       }
//       part.exchange();   // values of ghosts from their owners
//       part.rebalance();  // where some process owns too many nodes
//     }
//     MPI_Finalize();
//
// The rectangle is cut into boxes, one for each process. A process owns the nodes in its box and
// keeps, beyond it, the ghosts that its own nodes are linked to and those next to them. The owned
// nodes of all processes are those of one mesh of one process, to the last bit: positions, links,
// levels, control cells, data that are handed on, and derivatives.
//
// Procedures marked collective are called by all processes of the communicator, with the same
// arguments but for functions, which need to know what concerns the own nodes alone. A fault on one
// process (a function that throws, exhausted memory, too many nodes) throws an Error on all, which
// names the process. Each mesh is whole afterwards, but they do not agree any more: all that is
// collective throws from then on, mesh() can be read, and owned() and ghosts() are empty. Where
// memory is exhausted while a message arrives, all processes end instead, with a line that names
// the process.
//
// Nodes of mesh() may be read, and their data values, `used` and `data_ptr` be written. What
// changes the mesh is for the Partition alone.
#pragma once

#include <mpi.h>

#include <memory>

#include "velmar_2D/piece.hpp"

#if defined(VELMAR_2D_MPI_SHARED)
#define VELMAR_2D_MPI_API __attribute__((visibility("default")))
#else
#define VELMAR_2D_MPI_API
#endif

namespace velmar_2d {

struct PartitionOptions {
  /// Cells of the grid that a process keeps beyond its box, at least 1. More for update().
  std::int32_t overlap = 3;
  /// Where the overlap turns out to be too small: makes it twice as large, up to the whole, and
  /// begins what needs it anew. Functions are called again then, references to nodes become invalid
  /// and mesh() is another one; `used` and `data_ptr` of owned nodes stay. False: throws Error
  /// instead.
  bool repairs = true;
};

/// Over all processes.
struct PartitionStatistics {
  std::int64_t nb_nodes = 0;          ///< of the whole mesh
  std::int64_t nb_ghosts = 0;         ///< sum over the processes
  std::int64_t most_nodes_owned = 0;  ///< by one process
  int nb_rounds = 0;                  ///< of messages in the last update, until nothing was new
  std::int64_t inserted = 0, removed = 0, visited = 0, refused = 0;  ///< owned, last update
  double imbalance = 1.0;     ///< most_nodes_owned x number of processes / nb_nodes
  std::int64_t nb_bytes = 0;  ///< that all processes sent in the last update
  /// Time of the processor that the slowest process took for the last update, without what it spent
  /// in messages, and what of it went into ghosts, their data, the plan of exchanges and the check.
  double update_seconds = 0.0, sharing_seconds = 0.0;
  int nb_repairs = 0;        ///< since the Partition was made: how often windows were too narrow
  std::int32_t overlap = 0;  ///< now
};

enum class GhostLayer {
  linked,  ///< ghosts that are linked to owned nodes
  all,     ///< and those next to them, that derivatives of owned nodes need
};

class VELMAR_2D_MPI_API Partition {
 public:
  /// Collective. Makes the grid, cut into boxes as equal as cells of the grid allow.
  ///
  /// Throws Error where Mesh does, and where there are more processes than cells of the grid.
  Partition(MPI_Comm communicator, const Rectangle& whole, const Grid& grid,
            const PartitionOptions& options = {});
  /// Collective. Shares out a mesh that process 0 has, with its data; the others give null. Boxes
  /// hold about as many nodes each.
  ///
  /// So a run goes on with any number of processes:
  ///
  ///     if (const auto whole = part.gather()) velmar_2d::save(*whole, "run.h5");
  ///
  ///     std::optional<velmar_2d::Mesh> whole;
  ///     if (rank == 0) whole = velmar_2d::load("run.h5", {.bc_type = bc_type});
  ///     velmar_2d::Partition part(MPI_COMM_WORLD, whole ? &*whole : nullptr, bc_type);
  ///
  /// A mesh that update() or single steps have changed last goes on as it would, the order of its
  /// nodes with it. It takes the overlap that update() wants, and the whole on each process, until
  /// resolve(), where nodes rest on others that have gone. Nodes of one that was resolved last
  /// count as having come by place, see update().
  ///
  /// @param communicator  of all that keep the mesh together
  /// @param whole         on process 0 the mesh, which it may let go afterwards
  /// @param bc_type       kinds of the sides, as the mesh has them; empty: Dirichlet everywhere
  /// @param options       as above
  Partition(MPI_Comm communicator, const Mesh* whole, const bc_type_function& bc_type = {},
            const PartitionOptions& options = {});
  Partition(Partition&& from) noexcept;
  Partition& operator=(Partition&& from) noexcept;
  ~Partition();  ///< not collective, but before MPI_Finalize

  MPI_Comm communicator() const;  ///< a copy of the one that it was made with
  int rank() const;
  int nb_processes() const;
  /// What each process owns, by rank.
  std::span<const PlaceBox> place_boxes() const;
  /// Cells of the grid that these reach into: where boxes cut cells, they share them.
  const Window& box() const;              ///< of this process
  std::span<const Window> boxes() const;  ///< of all, by rank
  /// The mesh of the window: owned nodes and ghosts. It is there to be read, to write data values,
  /// and for what is chosen once: transfer, handlers, values of sides. What changes nodes or the
  /// limit is for the Partition. A progress handler of it is told of the nodes of this process, in
  /// plain updates of all in the window, and throws to leave the update on all processes. Node
  /// hooks are for a mesh of one process: here they are called for ghosts, too, and again where an
  /// update begins anew.
  Mesh& mesh();
  const Mesh& mesh() const;

  /// Collective. As Mesh::resolve() of the whole mesh; derivatives, where there are data, are those
  /// of owned nodes. Ghosts must hold the data of their owners before, as exchange() leaves them,
  /// and do so afterwards. After update() it makes other windows first: references to nodes become
  /// invalid and mesh() is another one; `used` and `data_ptr` of owned nodes stay.
  ///
  /// `most_nodes` counts the nodes of one process, ghosts with them. With `slope` sizes are graded
  /// over the whole mesh, in more rounds. Throws Error with Transfer::conservative, whose values
  /// are a matter of the order in which nodes of the whole mesh come and go; Transfer::remap
  /// conserves, too, and gives the values of one mesh.
  void resolve(const size_function& size, const Resolution& resolution = {});
  void resolve(const size_function& size, init_data_function init_data,
               const Resolution& resolution = {});
  /// The same, asked for many nodes at once: all owned ones, then those of each generation.
  void resolve_batched(const batch_size_function& sizes, const Resolution& resolution = {});
  void resolve_batched(const batch_size_function& sizes, init_data_function init_data,
                       const Resolution& resolution = {});

  /// Collective. As Mesh::update() of the whole mesh. What it makes depends on the order in which
  /// nodes came. Updates keep that of one mesh; nodes that resolve() has left count as having come
  /// by place, on any number of processes. So after resolve() it makes what Mesh::update() makes of
  /// the mesh that gather() would give; and other windows first, so that references to nodes become
  /// invalid and mesh() is another one, while `used` and `data_ptr` of owned nodes stay.
  ///
  /// Each process updates all of its window, whose nodes near the cuts are not quite those of the
  /// whole mesh; they are asked for their sizes, too. So it needs more overlap than resolve(): 3 to
  /// 4 cells where sizes are a matter of place, 6 where they follow data, more where those change
  /// abruptly. After each update owners tell whether ghosts are theirs. Where they are not, the
  /// update is repaired, see PartitionOptions::repairs; for that own nodes are copied before it. It
  /// throws Error on all processes where the processes do not know the order of their nodes any
  /// more; then a Partition with more overlap has to begin anew. mesh() has all nodes of the
  /// window; those that are neither owned() nor ghosts() are of no use.
  ///
  /// Throws Error with Transfer::conservative.
  void update(const size_function& size);
  void update(const size_function& size, init_data_function init_data);
  void update_batched(const batch_size_function& sizes);
  void update_batched(const batch_size_function& sizes, init_data_function init_data);

  /// Collective. As Mesh::set_limit() of the whole mesh: lowering the limit removes every node that
  /// lies above, raising it changes no node. Ghosts must hold the data of their owners before.
  /// After update() it is an update of the windows like any other, which may be repaired.
  ///
  /// Throws Error where Mesh does, and with Transfer::conservative.
  void set_limit(std::int32_t limit);

  /// Nodes of this process, in list order; then ghosts, those linked to owned nodes first. Good
  /// until the mesh changes.
  std::span<Cell* const> owned() const;
  std::span<Cell* const> ghosts() const;
  std::span<Cell* const> linked_ghosts() const;
  bool owns(const Cell& c) const;
  int owner(const Cell& c) const;  ///< rank
  /// Number of an owned node or a ghost in the whole mesh: those of process 0 first, in the order
  /// of owned(). The first call after an update makes a table of 16 to 32 bytes a node.
  std::int64_t global_number(const Cell& c) const;
  std::int64_t first_global_number() const;  ///< of this process
  std::int64_t size() const;                 ///< nodes of the whole mesh

  /// Collective. Gives ghosts the values `first` to `first + count - 1` of their owners' data;
  /// count -1: to the last.
  void exchange(int first = 0, int count = -1, GhostLayer layer = GhostLayer::all);
  /// Collective. The same for an array of the caller's, one row of `width` numbers for each owned
  /// node and then each ghost.
  void exchange(std::span<double> rows, int width = 1, GhostLayer layer = GhostLayer::all);

  /// Collective. Derivatives of data[0] at owned nodes.
  void compute_derivatives();

  /// Collective. Whether ghosts that are linked to owned nodes are what their owners have:
  /// position, level and links. Every update and rebalance() ends with this check, and throws where
  /// it fails.
  bool agrees();

  /// Collective. Cuts the rectangle anew, by halving it again and again, where the imbalance
  /// exceeds `threshold`: data and derivatives go with their nodes, `used` and `data_ptr` do not.
  /// References to nodes become invalid where it returns true, and mesh() is another one.
  ///
  /// After update() it leaves all as it is where plain updates cannot make the nodes anew: where a
  /// node rests on others that have gone, which takes steep sizes, or where processes differ about
  /// the order in which nodes came.
  /// @return whether it did
  bool rebalance(double threshold = 1.1);

  /// Collective. The whole mesh, with its data, on process 0; null elsewhere. For small cases.
  /// After update() later plain updates make of it what they make of the mesh of one process, as
  /// long as the overlap is wide enough for processes not to differ about the order in which nodes
  /// came.
  std::unique_ptr<Mesh> gather();

  /// Collective.
  PartitionStatistics statistics();

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace velmar_2d
