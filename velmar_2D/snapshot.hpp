// A mesh as plain arrays, and back: the one entrance for what keeps meshes elsewhere, such as in
// files. Never installed.
#pragma once

#include "velmar_2D/arrays.hpp"

namespace velmar_2d::detail {

struct Domain;

/// All that a mesh is but what its user brought along: functions, handlers and `data_ptr`; and but
/// what the library-wide variables hold beside the mesh.
///
/// Arrays by node are in the order of the list. Those with several columns hold one column after
/// the other: the link of node i in direction d is links[d * n + i].
struct Snapshot {
  double x_min = 0.0, x_max = 0.0, y_min = 0.0, y_max = 0.0, dist_0 = 0.0;
  std::int32_t limit = 0, n_cell_data = 0;
  std::int64_t next_id = 0;
  std::uint64_t revision = 0, resolved_revision = 0;
  bool surplus_has_gone = false;  ///< with the last resolve
  Transfer transfer = Transfer::first;
  std::array<std::int32_t, 2> level_range{};
  UpdateStatistics statistics;
  bool list_is_split = false, links_may_be_one_way = false, lattice_is_whole = false;
  bool first_grid_is_whole = false;  ///< no node of level 0 was removed
  /// Records of the sides n, e, s, w by kind, as far as there are some.
  std::array<std::array<Boundary, 3>, 4> side_records{};
  std::array<std::array<bool, 3>, 4> has_side_record{};

  std::vector<std::int32_t> stretch_sizes;  ///< nodes of each stretch; their sum is n
  std::vector<std::int64_t> id;
  std::vector<double> x, y;
  std::vector<std::int32_t> level;
  /// Index of the linked node, no_link, or a side_code(). Eight columns.
  std::vector<std::int32_t> links;
  std::vector<std::uint8_t> link_levels;  ///< a bit for each link of level 2, from north on
  std::vector<std::uint8_t> reserve, on_boundary, wanted_level, signature_set;
  std::vector<std::uint8_t> signature;  ///< two columns
  std::vector<double> area;
  std::vector<std::int32_t> used;
  std::vector<double> data;              ///< n_cell_data columns; or node by node, with data_sizes
  std::vector<std::int32_t> data_sizes;  ///< empty where every node has n_cell_data values
  std::vector<double> grad_data, grad2_data;

  std::size_t size() const { return id.size(); }
};

/// More stretches no mesh can have.
inline constexpr std::int32_t most_stretches = 1'000'001;

/// Throws Error where there is no mesh, or where a caller has written to fields of nodes that are
/// the library's, or an operation is changing the mesh. Changes nothing.
VELMAR_2D_API Snapshot take_snapshot(const Mesh& mesh);

/// The mesh of a snapshot from anywhere. Throws Error, in one line, where the arrays make no mesh:
/// every index is in its range, links are mutual, ids are unique; and unless `check` is false every
/// rule of check_mesh() holds.
///
/// @param bc_type  kinds of the sides; empty: one kind for each side, that of all its nodes
VELMAR_2D_API Mesh restore(const Snapshot& snapshot, const bc_type_function& bc_type, bool check);

/// The same in place of the mesh of the free procedures, which goes; where this throws it stays.
VELMAR_2D_API void restore_default(const Snapshot& snapshot, const bc_type_function& bc_type,
                                   bool check);

/// Throws Error where it does not hold.
inline void require(bool holds, const char* otherwise) {
  if (!holds) throw Error(otherwise);
}
/// Throws Error, in one line, where an index is out of its range, or the arrays contradict one
/// another.
///
/// @param mutual  no link may be one-way
void check_snapshot(const Snapshot& snapshot, bool mutual);
/// Needs: arrays whose domain has been checked.
Domain domain_of(const Snapshot& snapshot);

/// The door to the state of a Mesh.
struct SnapshotAccess {
  static const State& state_of(const Mesh& mesh) { return mesh.state(); }
  static Mesh mesh_of(std::unique_ptr<State, StateDeleter> state) { return Mesh(state.release()); }
};

}  // namespace velmar_2d::detail
