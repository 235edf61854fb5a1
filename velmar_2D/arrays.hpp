// velmar_2d::MeshArrays: the mesh as arrays, for solvers that take many steps between two changes
// of the mesh, or hand it to others: matrices, other languages, other devices.
//
//     velmar_2d::MeshArrays a(mesh);                  // makes the arrays
//     for (int step = 0; step < 1000; ++step) {
//       if (step % 10 == 0) {
//         mesh.resolve(size);
//         a.update();                               // nothing, where the mesh has not changed
//         a.pull();                                 // data values, from the nodes into arrays
//       }
//       const std::span<double> u = a.values(0);
//       for (std::int32_t i = 0; i < a.size(); ++i) { /* a.links(i), a.weights(i), u[i] ... */ }
//       if (step % 10 == 9) a.push();               // and back
//     }
//
// Nodes are numbered from 0 in the order of the list; a number is good until the next update().
// Eight links a node, clockwise from north, tell the number of the node there, no_link, or the code
// of a side. docs/arrays.md shows a whole solver.
//
// One thread at a time may call what is not const. update() and pull() read the mesh, as any reader
// may; push() writes its data.
#pragma once

#include "velmar_2D/mesh.hpp"

namespace velmar_2d {

// ---------------------------------------------------------------------------------------------
// What a link is in an array
//
//     code >= 0    the number of the linked node
//     no_link      nothing is there
//     below that   the record of a side: -2 - 3 * side - kind, with side n 0, e 1, s 2, w 3
// ---------------------------------------------------------------------------------------------

inline constexpr std::int32_t no_link = -1;

/// The code of a side, given by its straight direction, and a kind: bc_type_dir, bc_type_neu or
/// bc_type_oth.
constexpr std::int32_t side_code(Direction side, std::int32_t kind) {
  return -2 - 3 * (static_cast<std::int32_t>(side) / 2) - kind;
}
constexpr bool is_side(std::int32_t code) { return code < no_link; }
/// Needs: is_side(code).
constexpr Direction side_of(std::int32_t code) {
  return static_cast<Direction>(2 * ((-2 - code) / 3));
}
constexpr std::int32_t kind_of(std::int32_t code) { return (-2 - code) % 3; }

// ---------------------------------------------------------------------------------------------
// The arrays
// ---------------------------------------------------------------------------------------------

namespace detail {
struct ArraysOfMesh;
struct ArraysDeleter {
  VELMAR_2D_API void operator()(ArraysOfMesh* arrays) const;
};
}  // namespace detail

/// Belongs to one mesh, which may be moved; where it is deleted the arrays stay, and update(),
/// pull() and push() throw an Error. So they do where memory is exhausted, and where the mesh has
/// other nodes by now; those of default_mesh() end the process then, as its mistakes do.
///
/// Spans are good until the next update() that makes the arrays anew.
/// Takes some 80 bytes a node, and 8 for each data value that is pulled here.
class VELMAR_2D_API MeshArrays {
 public:
  /// Makes the arrays of a mesh as it is. Data values come with pull().
  ///
  /// `threads` is how many may work at update(), pull() and push(), the caller's included. The
  /// arrays are the same to the last bit.
  explicit MeshArrays(Mesh& mesh, int threads = 1);

  /// Makes the arrays anew where nodes have come or gone: then numbers are others, and values are
  /// to be pulled again. Nothing otherwise. Where it throws, the arrays are empty.
  ///
  /// Must not be called by callbacks of what changes the mesh.
  /// @return whether the arrays are new
  bool update();
  /// Whether the mesh is there, and has just these nodes.
  bool is_current() const;
  /// Of the mesh, when the arrays were made.
  std::uint64_t revision() const;

  // -------------------------------------------------------------------------------------------
  // Nodes
  // -------------------------------------------------------------------------------------------

  std::int32_t size() const { return static_cast<std::int32_t>(nodes_.size()); }
  /// The nodes themselves, for what is not here. Needs: is_current().
  std::span<Cell* const> nodes() const { return nodes_; }
  Cell& node(std::int32_t i) const { return *nodes_[static_cast<std::size_t>(i)]; }
  /// Of a node; -1 for what is no node of these. Reads the address and not the node.
  std::int32_t number(const Cell& c) const;

  std::span<const double> x() const { return positions_.first(nodes_.size()); }
  std::span<const double> y() const { return positions_.subspan(nodes_.size()); }
  /// Both: all x, then all y.
  std::span<const double> positions() const { return positions_; }
  std::span<const std::int32_t> levels() const { return levels_; }
  /// 1 where a Dirichlet condition prescribes the data, see known_value(); otherwise 0.
  std::span<const std::uint8_t> known() const { return known_; }

  /// Eight for each node.
  std::span<const std::int32_t> links() const { return links_; }
  std::span<const std::int32_t, 8> links(std::int32_t i) const {
    return links_.subspan(8 * static_cast<std::size_t>(i)).first<8>();
  }

  // -------------------------------------------------------------------------------------------
  // Control cells
  // -------------------------------------------------------------------------------------------

  std::span<const double> areas() const { return areas_; }
  /// Length / distance of the faces, by direction: what a two-point flux is multiplied with. 0
  /// where there is no face, so that sides and empty links need no case where they are read as the
  /// node itself. 0, 1/2 or 1 in whole meshes.
  const std::array<double, 8>& weights(std::int32_t i) const {
    return rows_[static_cast<std::size_t>(shapes_[static_cast<std::size_t>(i)])];
  }
  /// Which of the `weight_rows` is that of a node. Cells of the same shape and orientation share
  /// one.
  std::span<const std::int32_t> shapes() const { return shapes_; }
  std::span<const std::array<double, 8>> weight_rows() const { return rows_; }
  /// As Mesh::faces() has them, to the last bit.
  CellFaces faces(std::int32_t i) const;
  /// As Mesh::shape() has it.
  CellShape shape(std::int32_t i) const;

  // -------------------------------------------------------------------------------------------
  // Data values
  // -------------------------------------------------------------------------------------------

  /// Brings all n_cell_data() values from the nodes; 0.0 where a node has fewer.
  void pull();
  /// Takes them back to the nodes. Where a node had fewer, it has as many afterwards.
  void push();
  /// One value of all nodes, as the last pull() found it or as it was written here since. Throws
  /// Error where there is none, or update() has made the arrays anew since.
  std::span<double> values(std::int32_t value);
  std::span<const double> values(std::int32_t value) const;

  /// The same for one value and an array of the caller's, of size(). Throws Error where it has
  /// another size, or the mesh no such value.
  void pull(std::int32_t value, std::span<double> into) const;
  void push(std::int32_t value, std::span<const double> from);

 private:
  void show_tables();
  std::span<double> values_of(std::int32_t value) const;

  std::unique_ptr<detail::ArraysOfMesh, detail::ArraysDeleter> arrays_;  ///< none: moved away
  std::span<Cell* const> nodes_;
  std::span<const double> positions_, areas_;
  std::span<const std::int32_t> links_, levels_, shapes_;
  std::span<const std::uint8_t> known_;
  std::span<const std::array<double, 8>> rows_;
};

}  // namespace velmar_2d
