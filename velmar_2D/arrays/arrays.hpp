// The mesh as arrays: nodes by number, and tables by number. Reads a mesh and writes nothing in it
// but the values that are pushed. Never installed.
#pragma once

#include <memory>

#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

/// Numbers that are all written before they are read: nothing is set from the start, and room is
/// kept from one use to the next.
template <typename T>
class Table {
 public:
  void resize(std::size_t size) {
    if (size > capacity_) {
      const std::size_t capacity = size + size / 16;  // meshes grow little by little
      size_ = capacity_ = 0;
      entries_.reset();
      entries_ = std::make_unique_for_overwrite<T[]>(capacity);
      capacity_ = capacity;
    }
    size_ = size;
  }
  std::size_t size() const { return size_; }
  T& operator[](std::size_t i) { return entries_[i]; }
  const T& operator[](std::size_t i) const { return entries_[i]; }
  std::span<T> all() { return {entries_.get(), size_}; }
  std::span<const T> all() const { return {entries_.get(), size_}; }

 private:
  std::unique_ptr<T[]> entries_;
  std::size_t size_ = 0, capacity_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Numbers by address (node_numbers.cpp)
// ---------------------------------------------------------------------------------------------

/// Tells the number of a node from its address, without reading the node. Pages of memory that hold
/// nodes are found by hashing, of which there are few; nodes within a page by their place.
class NodeNumbers {
 public:
  static constexpr std::int32_t of_nothing = -1;  ///< of the null pointer
  static constexpr std::int32_t unknown = std::numeric_limits<std::int32_t>::min();

  NodeNumbers() { forget(); }

  /// Forgets all nodes and gives the memory back.
  void forget();
  /// Where to write the number of a node. May throw std::bad_alloc.
  std::int32_t* place_for(const Cell* c);
  /// Where its number is to be read, or the `unknown` of a node that has none.
  const std::int32_t* place_of(const Cell* c) const {
    const auto address = reinterpret_cast<std::uintptr_t>(c);
    const std::uintptr_t page = address / page_bytes;
    std::size_t i = slot_of(page);
    while (slots_[i].page != page) {
      if (slots_[i].numbers == nullptr) return &number_of_unknown;
      i = (i + 1) & (slots_.size() - 1);
    }
    return slots_[i].numbers + address % page_bytes / sizeof(Cell);
  }

 private:
  static constexpr std::uintptr_t page_bytes = std::uintptr_t{1} << 20;
  static constexpr std::size_t nodes_of_page = page_bytes / sizeof(Cell) + 1;
  static constexpr std::int32_t number_of_unknown = unknown;

  struct Slot {
    std::uintptr_t page = ~std::uintptr_t{0};
    std::int32_t* numbers = nullptr;  ///< none: the slot is empty
  };
  std::size_t slot_of(std::uintptr_t page) const {
    constexpr std::uint64_t golden_ratio = 0x9e3779b97f4a7c15;
    return static_cast<std::size_t>((page * golden_ratio) >> 32) & (slots_.size() - 1);
  }
  void insert(const Slot& slot);
  void add_page(std::uintptr_t page);

  std::vector<Slot> slots_;  ///< open addressing, at most half full
  Slot last_;                ///< that a place was asked for in
  std::vector<std::unique_ptr<std::int32_t[]>> pages_;
  std::int32_t nothing_ = of_nothing;
};

// ---------------------------------------------------------------------------------------------
// The tables (make_tables.cpp)
// ---------------------------------------------------------------------------------------------

/// What is told of side records in tables of links, below -1 for a link to nothing.
constexpr std::int32_t code_of_side(int direction, std::int32_t kind) {
  return -2 - 3 * (direction / 2) - kind;
}

/// Everything about the nodes, by their number: their place in the list.
struct MeshTables {
  Table<Cell*> nodes;
  Table<double> x, y, area;
  Table<std::int32_t> links;  ///< eight a node: a number, -1, or the code of a side
  Table<std::int32_t> level;
  Table<std::int32_t> shape;  ///< row of `weights`
  Table<std::uint8_t> known;  ///< see known_value()
  NodeNumbers numbers;
  /// Length / distance of the faces: a row for each known shape, then one for each node of another.
  std::vector<std::array<double, nb_directions>> weights;
  std::vector<CellFaces> others;  ///< faces of the latter
  Domain domain;
};

/// Makes the tables of a mesh. Whatever is thrown on the way leaves them half made.
///
/// @param threads  how many may work at it, this one included; the tables are the same
void make_tables(const State& state, MeshTables& tables, std::int32_t threads);
/// As cell_faces() has them. `neighbour` too.
CellFaces faces_of(const MeshTables& tables, std::size_t number);

// ---------------------------------------------------------------------------------------------
// Values (move_values.cpp)
// ---------------------------------------------------------------------------------------------

/// Brings some data values of all nodes, from the first one on, into arrays. What a node lacks is
/// 0.0.
void pull_values(const MeshTables& tables, std::size_t first,
                 std::span<const std::span<double>> into, std::int32_t threads);
/// The way back. Nodes that have fewer values get more: may throw std::bad_alloc.
void push_values(const MeshTables& tables, std::size_t first,
                 std::span<const std::span<const double>> from, std::int32_t threads);

// ---------------------------------------------------------------------------------------------
// Threads (parts.cpp)
// ---------------------------------------------------------------------------------------------

/// Cuts numbers 0 to n - 1 into parts, and calls `work` with the begin and the end of each, by
/// several threads where there are. An exception ends the work and leaves this in the end.
void in_parts(std::size_t n, std::int32_t threads,
              const std::function<void(std::size_t begin, std::size_t end)>& work);

}  // namespace velmar_2d::detail
