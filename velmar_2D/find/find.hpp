// Finding things by place: the node whose control cell holds a point, values between the nodes,
// what a line crosses, what lies under another mesh. Reads a mesh and changes nothing. Never
// installed.
#pragma once

#include <limits>
#include <optional>

#include "velmar_2D/cells/cells.hpp"
#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

// ---------------------------------------------------------------------------------------------
// The node at a point (locate.cpp, locate_many.cpp)
// ---------------------------------------------------------------------------------------------

/// Whether a point lies in the rectangle, its sides included. False for not-a-number.
inline bool holds(const Domain& domain, Point p) {
  return p.x >= domain.x_min && p.x <= domain.x_max && p.y >= domain.y_min && p.y <= domain.y_max;
}

/// The node whose control cell holds a point, from a start that should be near; nullptr outside the
/// rectangle.
const Cell* locate(const State& state, Point p, const Cell* start = nullptr);
/// For many points, in any order. `progress` is told of each.
void locate_many(const State& state, std::span<const Point> points, std::span<const Cell*> found,
                 ProgressTeller* progress = nullptr);

/// Throws what the mesh throws where memory is exhausted.
template <typename T>
std::vector<T> make_table(const State& state, std::size_t size, const T& value = {}) {
  try {
    return std::vector<T>(size, value);
  } catch (const std::exception&) {  // no memory, or more than can be addressed
    // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer
    allocation_failed(state.handlers, size * sizeof(T));
  }
}

/// Hands each node of the list, joined or split, to a procedure.
template <typename Use>
void for_each_node(const State& state, const Use& use) {
  for (std::size_t stretch = 0; stretch < state.level_beg.size(); ++stretch) {
    const Cell* last = state.level_end[stretch].next;
    for (Cell* c = state.level_beg[stretch].next; c != nullptr; c = c->next) {
      use(*c);
      if (c == last) break;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Triangles between the nodes (faces.cpp, triangulation.cpp)
// ---------------------------------------------------------------------------------------------

/// A face: what links enclose. Corners anticlockwise, each with the direction to the next one.
struct Face {
  /// No face of a whole mesh has more than a few; around holes there can be many.
  static constexpr std::size_t capacity = 64;
  std::size_t n = 0;
  std::array<const Cell*, capacity> corners{};
  std::array<std::uint8_t, capacity> directions{};
};

/// The face to the left of the way from a node in a direction, which is that of a link or leads
/// along a side to the next node there. False where there is no such way, no face, or one with too
/// many corners.
bool face_left_of(const Cell& c, int direction, Face& face);

/// A face cut into triangles, by the numbers of its corners, anticlockwise.
struct CutFace {
  std::size_t n = 0;
  std::array<std::array<std::uint8_t, 3>, Face::capacity> triangles{};
};
void cut_into_triangles(const Face& face, CutFace& cut);

/// Twice the area of a triangle, positive where it runs anticlockwise.
inline double doubled_area(const Cell& a, const Cell& b, const Cell& c) {
  return (b.x - a.x) * (c.y - a.y) - (c.x - a.x) * (b.y - a.y);
}

void triangulate(const State& state, Triangulation& result);

// ---------------------------------------------------------------------------------------------
// Values at points (value_at.cpp)
// ---------------------------------------------------------------------------------------------

/// How the values at a point come from those of nodes: of one, plus weights times how those of
/// others differ from it. A constant field is kept to the last bit.
struct Blend {
  const Cell* base = nullptr;
  int n = 0;
  std::array<const Cell*, nb_directions> others{};
  std::array<double, nb_directions> weights{};

  void add(const Cell* other, double weight) {
    others[static_cast<std::size_t>(n)] = other;
    weights[static_cast<std::size_t>(n++)] = weight;
  }
  double value(std::size_t k) const {
    const auto of = [k](const Cell& c) { return k < c.data.size() ? c.data[k] : 0.0; };
    const double at_base = of(*base);
    double sum = at_base;
    for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
      sum += weights[i] * (of(*others[i]) - at_base);
    }
    return sum;
  }
};

/// Needs: the node that locate() gives for the point.
Blend blend_at(const Cell& c, Point p, Interpolation how);

/// One value at a point; not-a-number outside the rectangle. Ends the process where there is no
/// value of this number.
double value_at(const State& state, Point p, std::int32_t value, Interpolation how,
                const Cell* start);
/// All values of each point, one point after the other; not-a-number outside the rectangle.
void values_at(const State& state, std::span<const Point> points, Interpolation how,
               std::span<double> values);

// ---------------------------------------------------------------------------------------------
// What cells of two meshes share (shared_part.cpp)
// ---------------------------------------------------------------------------------------------

/// A convex polygon that edges of other cells have cut. Each edge knows the face of the cell below
/// that it is a part of, -1: of none.
struct SharedPart {
  struct Corner {
    double x, y;
    int edge;  ///< the one from here to the next corner
  };
  /// Each of two polygons adds its edges; rounding might add one at each cut.
  static constexpr std::size_t capacity = 4 * max_cell_corners;
  std::size_t n = 0;
  std::array<Corner, capacity> corners;

  SharedPart() = default;
  SharedPart(const SharedPart& other) { *this = other; }
  SharedPart& operator=(const SharedPart& other) {  // of most corners there are few
    n = other.n;
    std::copy_n(other.corners.begin(), n, corners.begin());
    return *this;
  }
  ~SharedPart() = default;
  explicit SharedPart(const Polygon& whole) {
    for (std::size_t i = 0; i < whole.n; ++i) add({whole.corners[i].x, whole.corners[i].y, -1});
  }
  void add(const Corner& c) {
    if (n < capacity) corners[n++] = c;
  }
  /// Keeps what lies to the left of a line from a to b, which becomes the edge of that number.
  void cut(const Point& a, const Point& b, int edge);
  /// Keeps what lies in a cell that is so far away.
  void cut(const Polygon& cell, double x, double y);
  double area() const;
};

/// The control cell of a node, relative to it, with the direction of each face; sides of the domain
/// are 8 and more.
Polygon cell_below(const Domain& domain, const Cell& c);
Polygon cell_below(const Domain& domain, const KnownShape& shape, std::int32_t level);

// ---------------------------------------------------------------------------------------------
// Lines (line_cut.cpp) and other meshes (transfer.cpp)
// ---------------------------------------------------------------------------------------------

void line_cut(const State& state, Point a, Point b, std::vector<LinePiece>& pieces);

/// Both return the number of nodes that got values.
std::int64_t transfer(const State& from, State& to, Interpolation how);
std::int64_t transfer_conservative(const State& from, State& to);

// ---------------------------------------------------------------------------------------------
// Values by what lay under a cell before an update (remapping.cpp, cell_tree.cpp)
// ---------------------------------------------------------------------------------------------

/// A rectangle. Empty at first.
struct Bounds {
  double west = std::numeric_limits<double>::infinity(), east = -west, south = west, north = -west;

  void add(const Bounds& other) {
    west = std::min(west, other.west);
    east = std::max(east, other.east);
    south = std::min(south, other.south);
    north = std::max(north, other.north);
  }
  /// Sides that touch share nothing.
  bool meets(const Bounds& other) const {
    return west < other.east && other.west < east && south < other.north && other.south < north;
  }
};

/// A control cell wherever it is kept: its node, and its corners relative to that.
struct PlacedCell {
  Point at;
  Polygon polygon;

  Bounds bounds() const;
};

/// What one of the cells of before shares with a cell, and what it held.
struct CellPart {
  Point at;  ///< of the node of before
  double area;
  const double* values;
};

/// Which of many rectangles meet another one. Takes all memory that it needs in reserve().
class CellTree {
 public:
  void reserve(std::size_t nb_cells);
  /// Cells in an order in which neighbours lie near one another, by their numbers.
  ///
  /// @param cells  is put in that order
  void build(std::vector<std::uint32_t>& cells,
             const std::function<Bounds(std::uint32_t cell)>& bounds_of);
  /// All of them.
  Bounds bounds() const { return boxes_.empty() ? Bounds{} : boxes_.back(); }
  /// Calls `use` with where each one that meets a rectangle stands in that order.
  template <typename Use>
  void for_those_that_meet(const Bounds& where, const Use& use) const;

 private:
  static constexpr std::size_t width = 4;       ///< boxes in one of the next row
  static constexpr std::size_t most_rows = 17;  ///< for 2^32 cells
  std::vector<Bounds> boxes_;                   ///< by rows, those of the cells first
  std::array<std::size_t, most_rows + 1> first_of_row_{};
  std::size_t nb_rows_ = 0;
  std::vector<std::pair<std::uint64_t, std::uint32_t>> keys_;
};

/// The control cells that an update changes, as they were before it, with what they held. Nodes
/// tell of themselves as they come, go, or lose or gain a part of their cell; once all is done,
/// those that are not what they were get their values from what lay there.
///
/// The cells that have gone or changed cover just what those cover that have come or changed: so
/// all others can be left out. Sums are taken in the order of the places of before, from south to
/// north and from west to east. So positions before and after decide about every bit.
class Remapping {
 public:
  /// From now on the mesh tells.
  explicit Remapping(State& state);
  Remapping(const Remapping&) = delete;
  Remapping& operator=(const Remapping&) = delete;
  /// The mesh may be gone: end() is for the others.
  ~Remapping() = default;
  void end();

  /// The cell of a node is about to change, or the node to go. Takes the memory that is needed for
  /// it until the end, and throws what the mesh throws where there is none.
  void will_change(Cell& c);
  /// Takes memory for so many nodes to come.
  void make_room_for(std::size_t nb_newcomers) { make_room(0, nb_newcomers); }
  /// A node has come that room was made for; data[0] stays if it was given by the caller.
  void has_come(Cell& c, bool has_first_value) noexcept;
  void goes(const Cell& c) noexcept;

  // At the end.

  /// Finds out which cells are not what they were, of those whose nodes are meant.
  template <typename Meant>
  void compare(const Meant& is_meant);
  /// What the cells of before covered that are not what they were.
  Bounds bounds_before() const { return tree_.bounds(); }
  std::span<Cell* const> changed() const { return changed_; }
  PlacedCell cell_of(const Cell& c) const;
  /// Appends what lay under a cell.
  void find_parts(const PlacedCell& cell, std::vector<CellPart>& parts) const;
  /// Their mean becomes the values of a node. Parts are put in order.
  void write_mean(std::vector<CellPart>& parts, Cell& c) const;
  /// All of it, on a mesh that is the whole. Takes no memory.
  void remap() noexcept;

  // A mesh that is made anew while the update goes on.

  /// All cells are those of before, whatever else is told.
  void note_all(std::span<Cell* const> nodes);
  bool has_all() const { return nb_noted_at_once_ > 0; }
  /// Goes on with another mesh that has these nodes; those that were not there have come.
  void move_to(State& state, std::span<Cell* const> nodes);
  void keep_first_values() noexcept;

  std::size_t nb_values() const { return nb_values_; }

 private:
  struct Before {
    Point at;
    const KnownShape* shape;  ///< none: it has a polygon
    std::int32_t level;
    std::uint32_t polygon;
    Cell* node;  ///< none when it has gone
  };
  struct Newcomer {
    Cell* node;
    bool has_first_value;
  };
  void make_room(std::size_t nb_cells, std::size_t nb_newcomers);
  PlacedCell cell_of(const Before& before) const;
  bool is_as_before(const Before& before) const;
  std::size_t first_value_of(const Cell& c) const;

  State* state_;
  std::size_t nb_values_;
  std::vector<Before> before_;
  std::vector<Polygon> polygons_;
  std::vector<double> values_;
  std::vector<Newcomer> newcomers_;
  std::size_t nb_noted_at_once_ = 0;
  std::size_t room_for_cells_ = 0, room_for_newcomers_ = 0;
  std::vector<std::uint32_t> order_;  ///< of the cells in the tree
  CellTree tree_;
  std::vector<Cell*> changed_;
  std::vector<CellPart> parts_;
};

/// Remaps what an operation changes at its end, however it is left, where that is wanted.
class RemapAtEnd {
 public:
  explicit RemapAtEnd(State& state) {
    const bool remaps = state.transfer == Transfer::remap && state.n_cell_data > 0;
    if (remaps && !state.is_of_piece) remapping_.emplace(state);
  }
  RemapAtEnd(const RemapAtEnd&) = delete;
  RemapAtEnd& operator=(const RemapAtEnd&) = delete;
  ~RemapAtEnd() {
    if (!remapping_) return;
    remapping_->remap();
    remapping_->end();
  }

 private:
  std::optional<Remapping> remapping_;
};

template <typename Use>
void CellTree::for_those_that_meet(const Bounds& where, const Use& use) const {
  if (nb_rows_ == 0 || !bounds().meets(where)) return;
  struct Entry {
    std::size_t row, number;
  };
  std::array<Entry, width * most_rows> to_look_at;
  std::size_t n = 0;
  to_look_at[n++] = {nb_rows_ - 1, 0};
  while (n > 0) {
    const auto [row, number] = to_look_at[--n];
    if (row == 0) {
      use(number);
      continue;
    }
    const std::size_t first = first_of_row_[row - 1];
    const std::size_t end = std::min((number + 1) * width, first_of_row_[row] - first);
    for (std::size_t i = number * width; i < end; ++i) {
      if (boxes_[first + i].meets(where)) to_look_at[n++] = {row - 1, i};
    }
  }
}

template <typename Meant>
void Remapping::compare(const Meant& is_meant) {
  order_.clear();
  changed_.clear();
  for (std::size_t i = 0; i < before_.size(); ++i) {
    const Before& before = before_[i];
    if (!is_meant(before.at) || is_as_before(before)) continue;
    order_.push_back(static_cast<std::uint32_t>(i));
    if (before.node != nullptr) changed_.push_back(before.node);
  }
  for (const Newcomer& newcomer : newcomers_) {
    const Cell* c = newcomer.node;
    if (c != nullptr && is_meant(Point{c->x, c->y})) changed_.push_back(newcomer.node);
  }
  tree_.build(order_, [this](std::uint32_t i) { return cell_of(before_[i]).bounds(); });
}

}  // namespace velmar_2d::detail
