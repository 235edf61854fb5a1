// The records of a mesh and the types of the procedures that its users hand in: what the object
// (mesh.hpp) and the free procedures (velmar_2D.hpp) have in common.
//
// Directions and levels
// ---------------------
// Every node has eight links, always walked in this order:
//
//          nw  n  ne             7  0  1
//            \ | /                \ | /
//         w -- c -- e          6 -- c -- 2
//            / | \                / | \          .
//          sw  s  se             5  4  3
//
// The grid of level 0 has the spacing dist_0. Refinement alternates between two kinds of level:
//
//      odd level 2k-1: the centre of a square,        even level 2k: the midpoints of the
//      linked through its diagonal links only         sides, linked through straight links only
//
//          o-------o                                      o---2---o
//          | \   / |                                      |   |   |
//          |   1   |                                      2---1---2
//          | /   \ |                                      |   |   |
//          o-------o                                      o---2---o
//
// so that two levels halve the spacing: level L stands for the spacing dist_0 / 2^(L/2).
#pragma once

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#if defined(__cpp_rtti)
#include <typeinfo>
#endif

#if !defined(VELMAR_2D_SHARED)
#define VELMAR_2D_API
#elif defined(_WIN32) && defined(velmar_2d_EXPORTS)
#define VELMAR_2D_API __declspec(dllexport)
#elif defined(_WIN32)
#define VELMAR_2D_API __declspec(dllimport)
#else
#define VELMAR_2D_API __attribute__((visibility("default")))
#endif

// With _GLIBCXX_DEBUG a vector has another size. What holds or returns one has another name then,
// so that a program and a library that disagree are not linked.
#if defined(_GLIBCXX_DEBUG)
#define VELMAR_2D_WITH_VECTORS __attribute__((abi_tag("glibcxx_debug")))
#else
#define VELMAR_2D_WITH_VECTORS
#endif

namespace velmar_2d {

struct Cell;

// ---------------------------------------------------------------------------------------------
// Directions
// ---------------------------------------------------------------------------------------------

/// The eight directions of links, clockwise from north, an eighth turn apart. Straight ones have
/// even numbers.
enum class Direction : std::int32_t {
  north,
  north_east,
  east,
  south_east,
  south,
  south_west,
  west,
  north_west
};

/// All of them, in the order in which links are walked.
inline constexpr std::array<Direction, 8> directions = {
    Direction::north, Direction::north_east, Direction::east, Direction::south_east,
    Direction::south, Direction::south_west, Direction::west, Direction::north_west};

constexpr Direction opposite(Direction d) {
  return static_cast<Direction>((static_cast<std::int32_t>(d) + 4) & 7);
}

// ---------------------------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------------------------

/// Kinds of side condition: each selects one of the three records of a side.
inline constexpr std::int32_t bc_type_dir = 0;  ///< Dirichlet
inline constexpr std::int32_t bc_type_neu = 1;  ///< Neumann
inline constexpr std::int32_t bc_type_oth = 2;  ///< anything else
inline constexpr std::int32_t bc_type_cut = 3;  ///< no side: a window of a larger mesh ends here

/// Natural logarithm of 2.
inline constexpr double log_of_2 = 0.6931471805599453;

/// One condition on one side of the domain. Owned by the caller, never copied by the library.
struct Boundary {
  double c = 0.0;  ///< prescribed value; on Dirichlet records: the side's coordinate
  std::int32_t bc_type = bc_type_dir;  ///< bc_type_dir, bc_type_neu or bc_type_oth
};

/// A link of a node: empty, to another node, or to the record of a side. Owns nothing.
class NeighbourLink {
 public:
  NeighbourLink() = default;
  NeighbourLink(std::nullptr_t) {}
  NeighbourLink(Cell* cell) : bits_(reinterpret_cast<std::uintptr_t>(cell)) {}
  NeighbourLink(Boundary* boundary)
      : bits_(boundary == nullptr ? 0 : reinterpret_cast<std::uintptr_t>(boundary) | boundary_tag) {
  }

  bool empty() const { return bits_ == 0; }
  /// The linked node, or nullptr where the link is empty or designates a Boundary.
  Cell* cell() const {
    return (bits_ & boundary_tag) != 0 ? nullptr : reinterpret_cast<Cell*>(bits_);
  }
  /// The linked side record, or nullptr where the link is empty or designates a Cell.
  Boundary* boundary() const {
    return (bits_ & boundary_tag) == 0 ? nullptr
                                       : reinterpret_cast<Boundary*>(bits_ & ~boundary_tag);
  }

  friend bool operator==(NeighbourLink, NeighbourLink) = default;

 private:
  // Both records are aligned to at least 8 bytes, so the lowest bit of an address is free.
  static constexpr std::uintptr_t boundary_tag = 1;
  std::uintptr_t bits_ = 0;
};

/// The data values of one node: a small resizable array of double.
///
/// Up to one value lies inside the record itself, so that the common case costs no allocation and
/// no second cache line. Values gained by resize() are 0.0.
class CellData {
 public:
  CellData() = default;
  CellData(const CellData& other) { *this = other; }
  CellData(CellData&& other) noexcept { swap(other); }
  CellData& operator=(const CellData& other) {
    if (this != &other) {
      resize(other.size());
      std::copy(other.begin(), other.end(), begin());
    }
    return *this;
  }
  CellData& operator=(CellData&& other) noexcept {
    swap(other);
    return *this;
  }
  ~CellData() {
    if (!inside()) delete[] store_.outside;
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  double* data() { return inside() ? &store_.inside : store_.outside; }
  const double* data() const { return inside() ? &store_.inside : store_.outside; }
  /// Needs: i < size(), which Debug builds of the caller assert.
  double& operator[](std::size_t i) {
    assert(i < size_ && "a node has n_cell_data data values");
    return data()[i];
  }
  double operator[](std::size_t i) const {
    assert(i < size_ && "a node has n_cell_data data values");
    return data()[i];
  }
  double* begin() { return data(); }
  double* end() { return data() + size_; }
  const double* begin() const { return data(); }
  const double* end() const { return data() + size_; }

  /// Keeps the first values, new ones are 0.0. Throws std::bad_alloc when memory is exhausted.
  void resize(std::size_t size) {
    if (size > capacity_) {
      auto* grown = new double[size];
      std::copy(begin(), end(), grown);
      if (!inside()) delete[] store_.outside;
      store_.outside = grown;
      capacity_ = static_cast<std::uint32_t>(size);
    }
    if (size > size_) std::fill(data() + size_, data() + size, 0.0);
    size_ = static_cast<std::uint32_t>(size);
  }

 private:
  bool inside() const { return capacity_ <= 1; }
  void swap(CellData& other) noexcept {
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    std::swap(store_, other.store_);
  }

  std::uint32_t size_ = 0;
  std::uint32_t capacity_ = 1;
  union {
    double inside;
    double* outside;
  } store_{0.0};
};

/// A reference to anything of the caller's, functions included: remembers the type it was set with,
/// owns nothing.
class UserReference {
 public:
  UserReference() = default;
  template <typename T>
  UserReference(T* object) : bits_(reinterpret_cast<std::uintptr_t>(object)), tag_(tag_of<T>()) {}

  bool empty() const { return bits_ == 0; }
  /// The object, or nullptr where none was set or where it was set with another type.
  template <typename T>
  T* get() const {
    return is_tag(tag_of<T>()) ? reinterpret_cast<T*>(bits_) : nullptr;
  }

 private:
#if defined(__cpp_rtti)
  // Each shared object may have a type_info of its own for one type; they compare as equal.
  template <typename T>
  static std::uintptr_t tag_of() {
    return reinterpret_cast<std::uintptr_t>(&typeid(T*));
  }
  bool is_tag(std::uintptr_t tag) const {
    const auto type = [](std::uintptr_t t) { return reinterpret_cast<const std::type_info*>(t); };
    return tag_ == tag || (tag_ != 0 && (tag_ & no_type_info) == 0 && *type(tag_) == *type(tag));
  }
#else
  template <typename T>
  alignas(2) static inline const char address_of = 0;
  template <typename T>
  static std::uintptr_t tag_of() {
    return reinterpret_cast<std::uintptr_t>(&address_of<T>) | no_type_info;
  }
  bool is_tag(std::uintptr_t tag) const { return tag_ == tag; }
#endif
  static constexpr std::uintptr_t no_type_info = 1;
  std::uintptr_t bits_ = 0, tag_ = 0;
};

/// One node of the mesh. The defaults are those of a freshly created node.
///
/// Callers read every field, and write `data`, `data_ptr` and `used`; the rest is kept by the
/// library. Copying a node copies its data values and borrows everything else.
/// One cache line holds what a walk over the nodes reads, there and at their neighbours; the next
/// one the links; the third one what an insertion or a removal changes nearby. What is read rarely
/// comes last.
struct alignas(64) Cell {
  double x = 0.0, y = 0.0;                  ///< position
  std::int32_t level = 0;                   ///< rises as the mesh around the node is refined
  std::int32_t reserve = 4;                 ///< finer neighbours still awaited before `level` rises
  std::int32_t ipos = 0;                    ///< level at which a node at this position is created
  std::array<std::uint8_t, 2> signature{};  ///< shape of the control cell, see cell_type()
  bool signature_set = false;               ///< whether `signature` is current
  std::uint8_t wanted_level = 0;            ///< up to which resolve() keeps finer neighbours
  Cell *prev = nullptr, *next = nullptr;    ///< node list, mesh_beg to mesh_end
  CellData data;                            ///< n_cell_data values; data[0] drives the adaptation
  NeighbourLink n, ne, e, se, s, sw, w, nw;
  std::int32_t on_boundary = 0;   ///< 0 inside, 1 on a side, 2 at a corner of the domain
  std::int32_t cell_before = -1;  ///< number of its control cell before an update that remaps data
  double area = -1.0;       ///< area of the control cell; negative: not computed, see cell_area()
  double grad_data = 0.0;   ///< gradient norm of data[0], see compute_data_at_node()
  double grad2_data = 0.0;  ///< Frobenius norm of the Hessian of data[0]
  std::int32_t nl = 2, nel = 2, el = 2, sel = 2, sl = 2, swl = 2, wl = 2,
               nwl = 2;    ///< link levels, 1 or 2
  std::int64_t id = 0;     ///< unique among all nodes that the mesh has had, taken from next_id
  std::int32_t used = 0;   ///< a mark for the caller's own walks
  UserReference data_ptr;  ///< for the caller, never read or set by the library
};

/// The link of a node in a direction.
inline NeighbourLink link(const Cell& c, Direction d) {
  constexpr std::array<NeighbourLink Cell::*, 8> members = {
      &Cell::n, &Cell::ne, &Cell::e, &Cell::se, &Cell::s, &Cell::sw, &Cell::w, &Cell::nw};
  return c.*members[static_cast<std::size_t>(d)];
}

/// A node that does not exist yet: what build_vertex() proposes and the insertions take.
struct Vertex {
  double x = 0.0, y = 0.0;
  CellData data;
  std::int32_t level = 0;
  Cell *p1 = nullptr, *p2 = nullptr, *p3 = nullptr,
       *p4 = nullptr;  ///< surrounding nodes; p4 is none on a side
};

/// One end of a stretch of the node list.
struct Handle {
  Cell* next = nullptr;
};

/// A mistake in the use of a Mesh, or exhausted memory: the text says which. Meshes that are
/// objects throw it; the free procedures end the process instead.
class VELMAR_2D_API Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What an adaptation did. Inserted minus removed is the change of nb_nodes; a node that one call
/// inserts and removes again counts in both.
struct UpdateStatistics {
  std::int64_t visited = 0;  ///< nodes whose wanted spacing was asked for; twice, if by both passes
  std::int64_t inserted = 0;  ///< nodes created
  std::int64_t removed = 0;   ///< nodes released
  /// Insertions that the wanted spacing asked for and the subdivision limit forbade. Each of the
  /// nodes around a place that asks for it counts.
  std::int64_t refused = 0;
};

/// What resolve_mesh_*() and Mesh::resolve() may be told besides the sizes.
struct Resolution {
  /// Levels by which a want must have fallen before nodes go: keeps nodes from coming and going
  /// where sizes follow data that flicker. 0.5 to 1.5 settle gradients and Hessians.
  double margin = 0.0;
  /// Most nodes that the mesh may have; 0: as many as there is memory for. An update that needs
  /// more ends with an error, with as many nodes as it was allowed and a mesh that is whole.
  std::int64_t most_nodes = 0;
  /// Above 0, the wanted sizes are graded over the mesh: none is larger than that of a parent
  /// or a child of the node and `slope` times the way to it. For features so thin, and size
  /// functions so steep, that nodes of a coarse mesh do not see them from one to the next; one that
  /// no node sees is missed all the same. Costs three times the time of a resolve from the first
  /// grid, five to ten times that of one that changes little, and 90 to 150 bytes a node meanwhile.
  double slope = 0.0;
  /// How many threads, the caller's included, may ask nodes for their sizes and compute derivatives.
  /// With more than one the size function must be safe to call by several at the same time, and no
  /// node comes or goes while nodes are asked: first all there are, then all that have come, and so
  /// on. The mesh is the same to the last bit, and so is what leaves the update where the size
  /// function throws.
  int threads = 1;
};

// ---------------------------------------------------------------------------------------------
// Callbacks
// ---------------------------------------------------------------------------------------------

/// Kind of condition at (x, y) on the side "North", "East", "South" or "West".
using bc_type_function = std::function<std::int32_t(double x, double y, std::string_view side)>;
/// Wanted spacing at a node, in the unit of x and y. Zero asks for the finest level, infinity for
/// the coarsest; a node for which it is negative or not a number is left as it is.
using size_function = std::function<double(double x, double y, std::span<const double> data,
                                           double grad_data, double grad2_data)>;
/// Wanted spacings of many nodes at once: sizes[i] receives that of *nodes[i], as a size_function
/// would return it; one that is not written leaves its node as it is.
using batch_size_function =
    std::function<void(std::span<const Cell* const> nodes, std::span<double> sizes)>;
/// First data value of a new node at (x, y).
using init_data_function = std::function<double(double x, double y)>;
/// How far an update has come.
struct Progress {
  /// "restoring", "derivatives", "refining", "coarsening" or "transferring".
  std::string_view phase;
  std::int64_t done = 0;  ///< nodes that the phase has visited
  /// Nodes that it was to visit when it began; others may come while it lasts.
  std::int64_t known = 0;
};
/// Told at most ten times a second. What it throws leaves the update, and the mesh is whole.
using progress_function = std::function<void(const Progress& progress)>;
/// Receives a text of the library; see fatal_handler, message_handler and pause_handler.
using text_function = std::function<void(std::string_view text)>;

// ---------------------------------------------------------------------------------------------
// What becomes of data where nodes come and go
// ---------------------------------------------------------------------------------------------

/// Where the data values of new nodes come from, and what becomes of those of nodes that go. With
/// an init_data_function, data[0] of new nodes comes from that whatever is chosen here.
enum class Transfer : std::int32_t {
  first,  ///< data[0] is the mean of the parents, along the side on a side; the others are 0.0
  all,    ///< every value is such a mean
  /// The sum of area times value over the mesh stays what it is, for every value. A new node takes
  /// from the cells around it what the part of each that becomes its own held. What a node that
  /// goes held is left to its neighbours, by the parts of its cell that become theirs, such that
  /// their values change least and none leaves the range of those around it.
  conservative,
  /// The sum of area times value stays what it is here, too. Each control cell that is new or has
  /// changed holds at the end the mean, by shared areas, of what lay under it before the update;
  /// others keep their values to the last bit. While the update goes on, new nodes have means of
  /// their parents. The order in which nodes come and go does not matter, so that many processes
  /// get the values of one. Values that `init_data` gives stay.
  remap
};

/// A part of the grid of a larger mesh: from one grid line to another, both included, counted from
/// the lower left corner.
struct Window {
  std::int32_t west = 0, east = 0, south = 0, north = 0;
};

/// Called for single nodes while a mesh changes, whatever changes it. They may write the data
/// values of the nodes that they are given and nothing else, and must not change the mesh.
struct NodeHooks {
  /// A node has come: position, links and data, from its parents, are set, its derivatives are not.
  /// Has up to four parents; a node that was put where others were missing may have fewer.
  std::function<void(Cell& node, std::span<Cell* const> parents)> inserted;
  /// A node is about to go: it and its neighbours, the linked nodes that its cell falls to, are
  /// still as they were. Where it throws, the node stays.
  std::function<void(Cell& node, std::span<Cell* const> neighbours)> removing;
};

// ---------------------------------------------------------------------------------------------
// What is asked of a mesh
// ---------------------------------------------------------------------------------------------

/// Whether a Dirichlet condition prescribes the data of this node: it lies on the boundary and one
/// of its four straight links designates a Boundary of kind bc_type_dir.
VELMAR_2D_API bool known_value(const Cell& tmp);
VELMAR_2D_API std::int32_t cell_ipos(const Cell* c);         ///< the node's `ipos`
VELMAR_2D_API std::int32_t cell_on_boundary(const Cell* c);  ///< the node's `on_boundary`
VELMAR_2D_API std::int32_t velmar_get_cell_on_boundary(
    const Cell* c);                                                 ///< the node's `on_boundary`
VELMAR_2D_API std::int32_t velmar_get_cell_reserve(const Cell* c);  ///< the node's `reserve`

/// What surrounds a control cell. Directions are numbered n 0, ne 1, e 2, se 3, s 4, sw 5, w 6,
/// nw 7.
struct CellFaces {
  std::array<Cell*, 8> neighbour{};  ///< the linked nodes; nullptr: none, or a side of the domain
  std::array<double, 8> length{};    ///< of the face between the two cells; 0 where there is none
  std::array<double, 8> distance{};  ///< to the linked node; 0 where there is none
  std::array<double, 4> side{};      ///< length of the domain side n, e, s, w that bounds the cell
};

/// A point of the plane.
struct Point {
  double x = 0.0, y = 0.0;
};

/// Most corners that a control cell can have: the four of the domain, and each of eight links cuts
/// off a part, which adds one corner at most.
inline constexpr std::size_t max_cell_corners = 12;

/// How the values at a point come from those of the nodes.
enum class Interpolation {
  constant,  ///< those of the node whose control cell holds the point
  linear,    ///< on the triangles between the nodes: continuous
  gradient,  ///< those of that node, and its gradient by least squares over the linked nodes
};

/// The piece of a line that lies in one control cell.
struct LinePiece {
  const Cell* node = nullptr;
  double enter = 0.0, leave = 0.0;  ///< distances along the line from its start
  Point from, to;                   ///< where that is
};

/// The mesh as triangles between linked nodes. They fill the domain, and every edge inside belongs
/// to two of them: no corner of one lies within the edge of another.
struct Triangulation {
  std::vector<const Cell*> nodes;                      ///< in list order
  std::vector<std::array<std::int32_t, 3>> triangles;  ///< indices into `nodes`, anticlockwise
};

/// A rule of the mesh that does not hold at some place.
struct Finding {
  std::string_view rule;            ///< its name, see check_mesh()
  std::string_view text;            ///< what is wrong, in words
  const Cell* node = nullptr;       ///< where; nullptr: the mesh as a whole
  const Cell* neighbour = nullptr;  ///< the other node concerned, if any. It may have left the
                                    ///< mesh: compare it, do not follow it
};

}  // namespace velmar_2d
