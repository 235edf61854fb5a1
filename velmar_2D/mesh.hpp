// velmar_2d::Mesh: an adaptive mesh as an object.
//
//     velmar_2d::Mesh mesh({0.0, 1.0, 0.0, 1.0}, {.nx = 17, .subdiv_max = 9});
//     mesh.resolve([](double x, double y, auto...) { return 0.002 + 0.2 * std::abs(y - x * x); });
//     for (velmar_2d::Cell& c : mesh.nodes()) { /* c.x, c.y, mesh.area(c) ... */ }
//
// The life of a mesh
// ------------------
//   1. Mesh(rectangle, grid)      makes a uniform grid of level 0.
//   2. resolve(size)              adapts it to the spacing you want, as often as you like.
//   3. nodes(), link(), area(), faces(), compute_derivatives() ...     read it.
//   4. The end of its scope       gives its nodes back.
//
// A Mesh owns its nodes and the records of its sides; it can be moved, not copied. References to
// its nodes and records stay good when it is moved. Any number of meshes may live side by side, in
// one thread or in many.
//
// Mistakes throw an Error that says what is wrong; so does exhausted memory (std::bad_alloc where
// none is left even for the text). The mesh is whole afterwards: a node is in it with all its links
// or not at all. Callbacks may throw what they like, with the same promise; where they change the
// mesh that asks them, an Error ends that. Nothing is printed and nothing waits for a key; who
// wants to read the warnings sets a message handler.
//
// Threads: a mesh may be changed by one thread at a time, and by none while others read it. All
// that is const here, the measures of control cells and compute_derivatives() on different nodes
// included, may be called by any number of threads at the same time, as long as none changes the
// mesh or its data.
//
// The records, and drawings of directions and levels, are in records.hpp. The same mesh is at hand
// as free procedures and library-wide variables in velmar_2D.hpp.
#pragma once

#include <iterator>
#include <memory>

#include "velmar_2D/records.hpp"

namespace velmar_2d {

class MeshArrays;

namespace detail {
struct State;
struct SnapshotAccess;
struct StateDeleter {
  VELMAR_2D_API void operator()(State* state) const;
};
}  // namespace detail

// ---------------------------------------------------------------------------------------------
// What a mesh is made from, and what it gives
// ---------------------------------------------------------------------------------------------

struct Rectangle {
  double x_min = 0.0, x_max = 1.0, y_min = 0.0, y_max = 1.0;
};

/// How a mesh begins: as a uniform grid of squares.
struct Grid {
  std::int32_t nx = 17;           ///< nodes along x, at least 2
  std::int32_t ny = 0;            ///< along y; 0: from the height, which must be a whole number of
                                  ///< squares
  std::int32_t subdiv_max = 10;   ///< the limit: highest level that a node may have, up to 60
  std::int32_t n_cell_data = 0;   ///< data values per node
  bc_type_function bc_type = {};  ///< kinds of the sides; empty: Dirichlet everywhere
};

/// Number of nodes along y that a grid has over a rectangle. Throws Error as Mesh() does.
VELMAR_2D_API std::int32_t rows_of(const Rectangle& rectangle, const Grid& grid);

/// The same kind of condition on every side: bc_type_dir, bc_type_neu or bc_type_oth.
VELMAR_2D_API bc_type_function same_kind(std::int32_t kind);
/// One kind for each side.
VELMAR_2D_API bc_type_function kind_by_side(std::int32_t north, std::int32_t east,
                                            std::int32_t south, std::int32_t west);

/// A gradient.
struct Gradient {
  double dfdx = 0.0, dfdy = 0.0;
};

/// Class of a control cell, see Mesh::shape().
struct CellShape {
  std::int32_t type = 0, shift = 0;
};

/// Corners of a control cell, anticlockwise, without repetition.
struct CellPolygon {
  std::array<Point, max_cell_corners> corners{};
  std::int32_t n = 0;

  const Point* begin() const { return corners.data(); }
  const Point* end() const { return corners.data() + n; }
};

/// Nodes that would refine the mesh around a node.
struct Proposals {
  std::array<Vertex, 4> vertices{};
  std::int32_t n = 0;

  const Vertex* begin() const { return vertices.data(); }
  const Vertex* end() const { return vertices.data() + n; }
};

/// Nodes of a list, one after the other. `Node` is Cell or const Cell.
///
/// Good until the mesh changes; while single nodes are inserted or removed by hand, step over the
/// current one first.
template <typename Node>
class NodeRange {
 public:
  class iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Cell;
    using difference_type = std::ptrdiff_t;
    using pointer = Node*;
    using reference = Node&;

    iterator() = default;
    iterator(Node* node, std::span<const Handle> stretches) : node_(node), stretches_(stretches) {
      to_next_stretch();
    }
    Node& operator*() const { return *node_; }
    Node* operator->() const { return node_; }
    iterator& operator++() {
      node_ = node_->next;
      if (node_ == nullptr) to_next_stretch();
      return *this;
    }
    iterator operator++(int) {
      iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const iterator& a, const iterator& b) { return a.node_ == b.node_; }

   private:
    void to_next_stretch() {
      while (node_ == nullptr && !stretches_.empty()) {
        node_ = stretches_.front().next;
        stretches_ = stretches_.subspan(1);
      }
    }

    Node* node_ = nullptr;
    std::span<const Handle> stretches_;  ///< that follow, where the list is split
  };

  NodeRange(Node* first, Node* end, std::span<const Handle> stretches = {})
      : first_(first), end_(end), stretches_(stretches) {}
  iterator begin() const { return iterator(first_, stretches_); }
  iterator end() const { return iterator(end_, {}); }
  bool empty() const { return begin() == end(); }

 private:
  Node *first_, *end_;
  std::span<const Handle> stretches_;
};

// ---------------------------------------------------------------------------------------------
// The mesh
// ---------------------------------------------------------------------------------------------

class VELMAR_2D_API VELMAR_2D_WITH_VECTORS Mesh {
 public:
  /// Makes a uniform grid over the rectangle. Every node gets n_cell_data values of 0.0.
  ///
  /// Throws Error: nx below 2, a height that is not a whole number of squares, an empty rectangle
  /// or one whose cells are lost in the rounding of its coordinates, cells below 1e-60 or
  /// coordinates beyond 1e60, more nodes than memory or ids allow, a limit that is negative, above
  /// 60 or too deep for the coordinates, kinds of sides other than 0, 1 and 2.
  explicit Mesh(const Rectangle& rectangle, const Grid& grid = {});

  // -------------------------------------------------------------------------------------------
  // Adapting
  // -------------------------------------------------------------------------------------------

  /// Adapts the mesh to the spacing that `size` wants; data[0] of new nodes is interpolated.
  ///
  /// Where there are data values, their derivatives are computed at every node first. Then
  /// stretches are walked upwards, inserting nodes where the wanted level 2 log2(dist_0 / size)
  /// exceeds a node's level, and downwards, removing nodes whose level exceeds the wanted one by
  /// more than 1.05. Nodes may stay too coarse however often it is called, the more of them the
  /// faster sizes grow: see resolve(). References to removed nodes become invalid, no others.
  /// Cost: linear in the number of nodes.
  UpdateStatistics update(const size_function& size);
  /// The same; data[0] of new nodes comes from `init_data`, which is forgotten when this returns.
  UpdateStatistics update(const size_function& size, init_data_function init_data);
  /// The same, with one call of `sizes` for each stretch that holds nodes and each of the two
  /// passes. The mesh is the same as with a size_function that gives the same spacings. For
  /// spacings that are cheaper in bulk. Keeps 8 to 16 bytes a node so that the next call knows the
  /// nodes at once.
  UpdateStatistics update_batched(const batch_size_function& sizes);
  UpdateStatistics update_batched(const batch_size_function& sizes, init_data_function init_data);
  /// Adapts the mesh until no node is coarser than `size` wants, with as few nodes as that takes;
  /// data[0] of new nodes is interpolated.
  ///
  /// A node's wanted level is the lowest one with a spacing of at most `size`, to a billionth, and
  /// not above the limit. Nodes are asked once each, new ones as they come, which they do some
  /// hundreds at a time; then nodes that nothing needs go. A second call with the same sizes
  /// changes nothing, not even revision(). Up to a slope of sizes of 0.41 the mesh depends on the
  /// size function alone and not on what it was before, and up to 1.41 a point where fine spacing
  /// is wanted is always found from the grid; what lies between nodes and shows at none of them is
  /// missed (see Resolution::slope). A size that is negative or not a number wants the level that
  /// the node has when all that others want has come.
  /// References to removed nodes are invalid afterwards; all others stay good.
  /// Throws Error as update() does, and where more than resolution.most_nodes would be needed.
  /// Cost: linear in the number of nodes; where the mesh was changed by anything else since the
  /// last call, with a table of about 100 bytes a node while it is put in order.
  UpdateStatistics resolve(const size_function& size, const Resolution& resolution = {});
  /// The same; data[0] of new nodes comes from `init_data`, which is forgotten when this returns.
  UpdateStatistics resolve(const size_function& size, init_data_function init_data,
                           const Resolution& resolution = {});
  /// The same, with one call of `sizes` for all nodes, in list order, and one for each generation
  /// of new nodes, in the order in which they came. The mesh is the same, to the last bit, as with
  /// a size_function that gives the same spacings. Takes 16 bytes a node while it lasts.
  UpdateStatistics resolve_batched(const batch_size_function& sizes,
                                   const Resolution& resolution = {});
  UpdateStatistics resolve_batched(const batch_size_function& sizes, init_data_function init_data,
                                   const Resolution& resolution = {});
  /// What becomes of data values where nodes come and go; data[0] is interpolated and nothing else
  /// handed on as long as nothing is chosen. Transfer::remap takes 130 bytes and those of the
  /// values for each node that comes, goes or gets another cell, until the update ends.
  Transfer transfer() const;
  void set_transfer(Transfer transfer);
  /// Told how far an update has come, set_limit(), transfer() to this mesh, and
  /// compute_derivatives(). Throws to leave it. Called no sooner than `seconds` after
  /// the last time: fewer let it answer a key more promptly.
  void set_progress_handler(progress_function handler, double seconds = 0.1);
  /// Called for each node that comes or goes from now on; empty ones cost nothing.
  void set_node_hooks(NodeHooks hooks);
  /// What the last update did, also where it ended by an exception.
  const UpdateStatistics& statistics() const;

  /// The subdivision limit.
  std::int32_t limit() const;
  /// Changes it. Lowering it removes every node that lies above; raising it changes no node. Throws
  /// Error where it is negative, above 60 or too deep for the coordinates.
  void set_limit(std::int32_t limit);

  // -------------------------------------------------------------------------------------------
  // Nodes
  // -------------------------------------------------------------------------------------------

  /// All nodes, by the level of their position: first those of the grid, then those of level 1 ...
  NodeRange<Cell> nodes();
  NodeRange<const Cell> nodes() const;
  /// Those whose position belongs to one level (`ipos`); none above the limit.
  NodeRange<Cell> nodes(std::int32_t level);
  NodeRange<const Cell> nodes(std::int32_t level) const;
  std::int64_t size() const;  ///< number of nodes
  /// Grows whenever a node comes or goes, and with that wherever a link or a level changes: what
  /// was derived from the mesh is current while this number is.
  std::uint64_t revision() const;
  std::int32_t n_cell_data() const;  ///< data values per node
  std::int64_t next_id() const;      ///< id of the next node that comes; ids are never used again

  /// Link of a node in a direction.
  static NeighbourLink link(const Cell& c, Direction direction) {
    return velmar_2d::link(c, direction);
  }

  // -------------------------------------------------------------------------------------------
  // The domain
  // -------------------------------------------------------------------------------------------

  Rectangle rectangle() const;  ///< in use; its height is a whole number of squares to the last bit
  double x_min() const;
  double x_max() const;
  double y_min() const;
  double y_max() const;
  double dist_0() const;                              ///< spacing of the grid of level 0
  double spacing_of_level(std::int32_t level) const;  ///< dist_0 / 2^(level/2)
  /// The record of a straight direction and a kind, where a solver keeps the value that it
  /// prescribes; on Dirichlet records `c` holds the side's coordinate at first. Throws Error where
  /// there is no such side or kind.
  Boundary& side_record(Direction side, std::int32_t kind);
  const Boundary& side_record(Direction side, std::int32_t kind) const;

  // -------------------------------------------------------------------------------------------
  // Derivatives of data[0]
  // -------------------------------------------------------------------------------------------

  /// At one node, from its neighbours: stores the gradient norm in `grad_data` and the Frobenius
  /// norm of the Hessian in `grad2_data`; a node without data counts as holding 0.0. A grid of 2 by
  /// n nodes tells no curvature: once it is resolved, the gradient is that of a plane there and the
  /// Hessian 0; before that, Error.
  /// @return the gradient; a component across a Neumann side is 0
  Gradient compute_derivatives(Cell& c) const;
  /// At every node, as update() does first; by several threads where there are, with the same bits.
  void compute_derivatives(int threads = 1);

  // -------------------------------------------------------------------------------------------
  // Control cells: the points that are nearer to a node than to any node it is linked to, cut by
  // the domain. All of them together fill the domain without gap or overlap.
  // -------------------------------------------------------------------------------------------

  /// Area of the control cell, cached in the node until the mesh around it changes.
  double area(Cell& c) const;
  /// Faces of the control cell: length / distance is the weight of a two-point flux. Both cells
  /// that share a face get the same length and distance, to the last bit.
  CellFaces faces(const Cell& c) const;
  CellPolygon polygon(const Cell& c) const;
  /// Class of the control cell: type 1 to 9 inside, 11 and up on a side, 31 and up at a corner of
  /// the domain; 0 where no known shape has its signature. Caches `signature` in the node.
  CellShape shape(Cell& c) const;

  // -------------------------------------------------------------------------------------------
  // Values anywhere
  // -------------------------------------------------------------------------------------------

  /// The node whose control cell holds a point: the nearest one. On a border between cells it is
  /// the one farthest to the east, and of those the one farthest to the north. nullptr outside the
  /// rectangle and for not-a-number; the sides belong to the rectangle.
  ///
  /// Walks over links from `start`, a node of the mesh that should be near: that of the last point
  /// mostly is. Without one, and where it lies farther off than a square of the grid, from the
  /// grid.
  Cell* locate(double x, double y, const Cell* start = nullptr);
  const Cell* locate(double x, double y, const Cell* start = nullptr) const;
  /// The same for many points, in any order; quickest where each lies near the one before.
  std::vector<const Cell*> locate(std::span<const Point> points) const;

  /// One of the data values at a point; not-a-number where locate() finds no node. At a node it is
  /// the node's own. Throws Error where the nodes have no value of this number.
  double value_at(double x, double y, std::int32_t value = 0,
                  Interpolation how = Interpolation::linear, const Cell* start = nullptr) const;
  /// All n_cell_data() values of each point, one point after the other.
  std::vector<double> values_at(std::span<const Point> points,
                                Interpolation how = Interpolation::linear) const;

  /// The pieces into which the control cells cut the line from a to b, in its order: each ends
  /// where the next one begins. What lies outside the rectangle is left out; none where all of it
  /// does, or where a coordinate is not finite.
  std::vector<LinePiece> line_cut(Point a, Point b) const;

  /// The mesh as triangles, on which linear values are linear.
  /// Cost: linear, about 100 bytes of memory for each node.
  Triangulation triangulation() const;

  // -------------------------------------------------------------------------------------------
  // Checking, and single steps of an adaptation
  // -------------------------------------------------------------------------------------------

  /// Every place where a rule of the mesh does not hold; check_mesh() of velmar_2D.hpp lists the
  /// rules. None for a whole mesh. Cost: linear, with a table of 48 to 96 bytes a node.
  std::vector<Finding> check() const;

  /// The nodes that refine the mesh around one: centres of its squares and diamonds that have none.
  Proposals build_vertex(Cell& c) const;
  /// Adds the centre of the square of v.p1 .. v.p4; the new node. Throws Error where v.level is
  /// above the limit, a parent is missing, or the position has no place among the levels.
  Cell& insert_node_odd_level(const Vertex& v);
  /// Adds the midpoint of an edge: four parents inside, three (v.p4 none) on a side.
  Cell& insert_node_even_level(const Vertex& v);
  /// Removes the centre of a square; false where the node declines, since it lies on the boundary
  /// or has a straight link.
  bool remove_node_odd_level(Cell& c);
  /// Removes the midpoint of an edge; false where the node declines, since it has a diagonal link.
  bool remove_node_even_level(Cell& c);

  /// Cuts the node list into one list per level of position, and joins them again. nodes() walks
  /// both; a walk through one level then ends with it whatever is inserted at others meanwhile.
  void split_sublists();
  void join_sublists();

  // -------------------------------------------------------------------------------------------
  // Texts
  // -------------------------------------------------------------------------------------------

  /// Who reads the warnings of this mesh; empty, as at first: whoever reads those of the process
  /// (message_handler of velmar_2D.hpp), or no one.
  void set_message_handler(text_function handler);
  /// Called with the text of an Error before that is thrown; may throw something else.
  void set_fatal_handler(text_function handler);
  /// Called where the free procedures would wait for a key.
  void set_pause_handler(text_function handler);

 private:
  friend class Piece;
  friend Mesh& default_mesh();
  friend struct detail::SnapshotAccess;
  friend class MeshArrays;
  friend VELMAR_2D_API std::int64_t transfer(const Mesh& from, Mesh& to, Interpolation how);
  friend VELMAR_2D_API std::int64_t transfer_conservative(const Mesh& from, Mesh& to);
  explicit Mesh(detail::State* state) : state_(state) {}
  Mesh(const Rectangle& rectangle, const Grid& grid, const Window* window);
  detail::State& state() const;

  std::unique_ptr<detail::State, detail::StateDeleter> state_;  ///< none once it was moved away
};

/// Gives each node of one mesh the values that another mesh has at its place. Values that only one
/// of them has, and nodes that lie beyond the rectangle of `from`, stay as they are.
/// @return number of nodes that got values
VELMAR_2D_API std::int64_t transfer(const Mesh& from, Mesh& to,
                                    Interpolation how = Interpolation::linear);
/// Gives each node of one mesh the means of the other mesh's values over its control cell, with the
/// control cells of the other mesh as pieces of constant value. So the sums of area x value over
/// what both rectangles share are the same, and no mean leaves the range of the values under it.
///
/// Where a control cell reaches beyond the rectangle of `from`, the mean is that over the part
/// inside; where it lies beyond, its values stay.
/// @return number of nodes that got values
VELMAR_2D_API std::int64_t transfer_conservative(const Mesh& from, Mesh& to);

/// The mesh of the free procedures and library-wide variables, as an object, for what takes a Mesh.
/// Its mistakes end the process and its messages are printed, as theirs are. May have no nodes.
VELMAR_2D_API Mesh& default_mesh();

}  // namespace velmar_2d
