// The mesh as arrays: nodes by number, and tables by number. Reads a mesh and writes nothing in it
// but the values that are pushed. Never installed.
#pragma once

#include <memory>
#include <type_traits>

#include "velmar_2D/cells/cells.hpp"

namespace velmar_2d::detail {

/// Memory for arrays, large ones in huge pages where the system has them: those are sooner there
/// and sooner found. May throw std::bad_alloc.
class Room {
 public:
  Room() = default;
  explicit Room(std::size_t bytes);
  Room(const Room&) = delete;
  Room& operator=(const Room&) = delete;
  Room(Room&& other) noexcept { swap(other); }
  Room& operator=(Room&& other) noexcept {
    swap(other);
    return *this;
  }
  ~Room();

  void* begin() const { return begin_; }

 private:
  void swap(Room& other) noexcept {
    std::swap(begin_, other.begin_);
    std::swap(bytes_, other.bytes_);
  }

  void* begin_ = nullptr;
  std::size_t bytes_ = 0;
};

/// Numbers that are all written before they are read: nothing is set from the start, and room is
/// kept from one use to the next.
template <typename T>
class Table {
 public:
  void resize(std::size_t size) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (size > capacity_) {
      const std::size_t capacity = size + size / 16;  // meshes grow little by little
      size_ = capacity_ = 0;
      entries_ = nullptr;
      { const Room given_back = std::move(room_); }
      // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer
      room_ = Room(capacity * sizeof(T));
      entries_ = static_cast<T*>(room_.begin());
      capacity_ = capacity;
    }
    size_ = size;
  }
  std::size_t size() const { return size_; }
  T& operator[](std::size_t i) { return entries_[i]; }
  const T& operator[](std::size_t i) const { return entries_[i]; }
  std::span<T> all() { return {entries_, size_}; }
  std::span<const T> all() const { return {entries_, size_}; }

 private:
  Room room_;
  T* entries_ = nullptr;
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

  /// For many questions in a row. Good until the next place is asked for.
  class Lookup;
  Lookup lookup() const;

 private:
  static constexpr std::uintptr_t page_bytes = std::uintptr_t{1} << 20;
  static constexpr std::size_t nodes_of_page = page_bytes / sizeof(Cell) + 1;
  static constexpr std::int32_t number_of_unknown = unknown;

  struct Slot {
    std::uintptr_t page = ~std::uintptr_t{0};
    std::int32_t* numbers = nullptr;  ///< none: the slot is empty
  };
  static std::size_t hash_of(std::uintptr_t page) {
    constexpr std::uint64_t golden_ratio = 0x9e3779b97f4a7c15;
    return static_cast<std::size_t>((page * golden_ratio) >> 32);
  }
  void insert(const Slot& slot);
  void add_page(std::uintptr_t page);

  std::vector<Slot> slots_;  ///< open addressing, at most half full
  Slot last_;                ///< that a place was asked for in
  std::vector<std::unique_ptr<std::int32_t[]>> pages_;
  std::int32_t nothing_ = of_nothing;
};

class NodeNumbers::Lookup {
 public:
  /// Where the number of a node is to be read, or the `unknown` of one that has none.
  const std::int32_t* place_of(const Cell* c) const {
    const auto address = reinterpret_cast<std::uintptr_t>(c);
    const std::uintptr_t page = address / page_bytes;
    const Slot* slot = &slots_[hash_of(page) & last_];
    while (slot->page != page) {
      if (slot->numbers == nullptr) return &number_of_unknown;
      slot = slot != &slots_[last_] ? slot + 1 : slots_;
    }
    return slot->numbers + address % page_bytes / sizeof(Cell);
  }

 private:
  friend class NodeNumbers;
  Lookup(const Slot* slots, std::size_t last) : slots_(slots), last_(last) {}

  const Slot* slots_;
  std::size_t last_;
};

inline NodeNumbers::Lookup NodeNumbers::lookup() const {
  return {slots_.data(), slots_.size() - 1};
}

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
  Table<double> position;  ///< x of all nodes, then y of all nodes
  Table<double> area;
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

/// Calls `work` in this thread and in `threads` - 1 others, fewer where the system has no more. The
/// first exception leaves this when all have ended.
void in_threads(std::size_t threads, const std::function<void()>& work);
/// Cuts numbers 0 to n - 1 into parts of so many, and calls `work` with the begin and the end of
/// each, by several threads where there are. An exception ends the work and leaves this in the end.
void in_parts(std::size_t n, std::int32_t threads,
              const std::function<void(std::size_t begin, std::size_t end)>& work,
              std::size_t numbers_of_part = 4096);

}  // namespace velmar_2d::detail
