// What every other room stands on: directions, tolerances, messages, levels and the lattice, dense
// algebra. Knows nothing of a mesh as a whole. Never installed.
#pragma once

#include <atomic>
#include <bit>
#include <chrono>
#include <limits>
#include <string>
#include <thread>

#include "velmar_2D/records.hpp"

namespace velmar_2d::detail {

// ---------------------------------------------------------------------------------------------
// Directions: numbers 0 to 7 clockwise from north, an eighth turn apart. Arithmetic wraps, so a
// rule for one side or quadrant is turned to the others by adding 2, 4 or 6.
// ---------------------------------------------------------------------------------------------

enum : int { north, north_east, east, south_east, south, south_west, west, north_west };

inline constexpr int nb_directions = 8;

inline constexpr std::array<NeighbourLink Cell::*, nb_directions> link_members = {
    &Cell::n, &Cell::ne, &Cell::e, &Cell::se, &Cell::s, &Cell::sw, &Cell::w, &Cell::nw};
inline constexpr std::array<std::int32_t Cell::*, nb_directions> link_level_members = {
    &Cell::nl, &Cell::nel, &Cell::el, &Cell::sel, &Cell::sl, &Cell::swl, &Cell::wl, &Cell::nwl};

inline NeighbourLink& link(Cell& c, int direction) { return c.*link_members[direction & 7]; }
inline NeighbourLink link(const Cell& c, int direction) { return c.*link_members[direction & 7]; }
inline std::int32_t& link_level(Cell& c, int direction) {
  return c.*link_level_members[direction & 7];
}

inline constexpr int opposite(int direction) { return (direction + 4) & 7; }

/// Straight directions have even numbers, diagonal ones odd numbers.
inline constexpr std::array<int, 4> straight_directions = {north, east, south, west};
inline constexpr std::array<int, 4> diagonal_directions = {north_east, south_east, south_west,
                                                           north_west};

/// Signs of x and y on the way in each direction.
inline constexpr std::array<double, nb_directions> away_x = {0, 1, 1, 1, 0, -1, -1, -1};
inline constexpr std::array<double, nb_directions> away_y = {1, 1, 0, -1, -1, -1, 0, 1};

/// `signature` of a node on one side without finer neighbours, by side: n, e, s, w.
inline constexpr std::array<std::array<std::uint8_t, 2>, 4> side_signatures = {
    {{42, 8}, {138, 2}, {162, 128}, {168, 32}}};

/// Length of the way from a to b along a straight direction; negative where b lies behind.
inline double distance_along(int direction, const Cell& a, const Cell& b) {
  switch (direction & 7) {
    case north: return b.y - a.y;
    case east: return b.x - a.x;
    case south: return a.y - b.y;
    default: return a.x - b.x;
  }
}

// ---------------------------------------------------------------------------------------------
// What compilers spell differently
// ---------------------------------------------------------------------------------------------

// The same input gives the same mesh only where each operation is rounded by itself, to double
// precision. cmake/compile_options.cmake has the options for it.
#if defined(__FAST_MATH__) || (defined(__FINITE_MATH_ONLY__) && __FINITE_MATH_ONLY__) || \
    defined(__ASSOCIATIVE_MATH__) || defined(__RECIPROCAL_MATH__) ||                     \
    defined(__NO_SIGNED_ZEROS__) || defined(_M_FP_FAST)
#error "velmar_2d needs exact floating-point arithmetic: no -ffast-math, -Ofast, /fp:fast"
#endif
#if (defined(__FLT_EVAL_METHOD__) && (__FLT_EVAL_METHOD__ < 0 || __FLT_EVAL_METHOD__ == 2)) || \
    (defined(_M_IX86_FP) && _M_IX86_FP < 2)
#error \
    "velmar_2d needs arithmetic in double precision, on x86 SSE2: -msse2 -mfpmath=sse, /arch:SSE2"
#endif

// A procedure that only prefetches has no effect as far as g++ can see, and calls of it none
// either: it must be a part of its caller.
#if defined(__GNUC__)
#define VELMAR_2D_ALWAYS_INLINE [[gnu::always_inline]] inline
#else
#define VELMAR_2D_ALWAYS_INLINE inline
#endif

inline constexpr std::size_t cache_line = 64;
inline constexpr std::size_t huge_page = std::size_t{1} << 21;  ///< that the system may give

/// Brings a cache line closer that will be read, or written, soon. Any address will do.
VELMAR_2D_ALWAYS_INLINE void prefetch([[maybe_unused]] const void* address) {
#if defined(__GNUC__)
  __builtin_prefetch(address);
#endif
}
VELMAR_2D_ALWAYS_INLINE void prefetch_to_write([[maybe_unused]] const void* address) {
#if defined(__GNUC__)
  __builtin_prefetch(address, 1);
#endif
}

/// Reading and writing what several threads may find out at the same time and note in one place:
/// all of them note the same. Costs what a plain access costs.
template <typename T>
T load_shared(const T& from) {
#if defined(__GNUC__)
  T value;
  __atomic_load(&from, &value, __ATOMIC_ACQUIRE);
  return value;
#else
  return std::atomic_ref<T>(const_cast<T&>(from)).load(std::memory_order_acquire);
#endif
}
template <typename T>
void store_shared(T& to, T value) {
#if defined(__GNUC__)
  __atomic_store(&to, &value, __ATOMIC_RELEASE);
#else
  std::atomic_ref<T>(to).store(value, std::memory_order_release);
#endif
}

// ---------------------------------------------------------------------------------------------
// Tolerances: all that the library has, with their units and the reasons for their values
// ---------------------------------------------------------------------------------------------

// Making the grid

/// The cells count as squares where width and height agree within this fraction of the width:
/// ten times the machine epsilon, the rounding of the divisions that give them.
inline constexpr double square_tolerance = 2.220446049250313e-15;
/// The same for a height from which the number of squares is told, as a fraction of the height: far
/// above the rounding of coordinates, far below what anyone would call another height.
inline constexpr double height_tolerance = 1e-9;
/// Of the largest coordinate. In smaller cells the rounding of coordinates, 1e-16 of them, would
/// exceed a thousandth of the cell, and soon after two nodes would have one position.
inline constexpr double smallest_cell = 1e-13;
/// Lengths, for which any unit can be chosen. Fourth powers of spacings and coordinates occur in
/// areas and fits, and those of 1e-77 and 1e77 would leave the range of numbers; deep levels take
/// up to 1e9 of what is left.
inline constexpr double smallest_dist_0 = 1e-60, farthest_coordinate = 1e60;
/// Covers the rounding of positions when the length of a link is compared with dist_0, of which it
/// is a fraction.
inline constexpr double link_length_margin = 1e-3;

// Positions

/// Offsets this close, in units of dist_0, are the same position.
inline constexpr double position_tolerance = 1e-12;
/// A coordinate is good to one rounding; its offset in units of dist_0 passes through a few more.
inline constexpr double roundings_of_an_offset = 8.0;
/// The finest spacing of a mesh is at least this many times rounding_of_positions(), 64 roundings
/// of the largest coordinate. Two neighbours are closer or farther than they should be by two of
/// those at the most, and lattice_tolerance forgives four.
inline constexpr double finest_spacing = 8.0;
/// Parents whose x differs by less than this fraction of the level's spacing lie above or below.
inline constexpr double same_column = 1e-6;

// Wanted levels

/// In levels. A node is removed only where the wanted level lies further than this below its own.
/// Refinement has no such margin; the gap between the two keeps nodes from coming and going.
inline constexpr double coarsening_margin = 1.05;
/// Of a ratio of spacings: far more than the rounding of a logarithm.
inline constexpr double threshold_margin = 1e-9;

// Derivatives

/// How far a neighbour of a regular square may be from its place, relative to the squared spacing:
/// 1e-6 of the spacing, well above the rounding of positions and well below a finer neighbour.
inline constexpr double regular_square_tolerance = 2e-6;
/// How far a row may be from its place on the lattice, in its unit of length: coordinates are
/// rounded. The derivatives are corrected for that, up to its square and its product with what a
/// fit of more than six rows leaves over; rows farther off are fitted where they are.
inline constexpr double offset_tolerance = 1e-8;
/// Distance from a line below which a node counts as lying on it, relative to the stencil's size:
/// far above the rounding of positions, far below any spacing.
inline constexpr double alignment_tolerance = 1e-9;

// Control cells

/// Largest deviation of a linked node from its place on the lattice, as a fraction of the distance.
/// Far from the origin the rounding of coordinates shows; neighbouring spacings differ by a factor
/// of 2, so there is ample room.
inline constexpr double lattice_tolerance = 1.0 / 16.0;
/// Corners nearer to a bisector than this fraction of the distance between the nodes lie on it.
inline constexpr double corner_tolerance = 1e-12;
/// How well a node's distance to a side of the domain is known, in units of the machine epsilon
/// times the largest coordinate. A cell that only touches a side must not lose a corner to it.
inline constexpr double side_tolerance = 8.0;

// Checking

/// Cell areas and the lengths of their sides sum to the domain's within this fraction, and the
/// rounding of the domain's corners.
inline constexpr double sum_tolerance = 1e-9;
/// A cached area differs from a fresh one by the rounding of a few products; a fraction.
inline constexpr double area_tolerance = 1e-12;

// ---------------------------------------------------------------------------------------------
// Messages (message.cpp): the one door for text, the one for pauses, the one for the end
// ---------------------------------------------------------------------------------------------

/// Who takes the texts of a mesh.
struct Handlers {
  text_function fatal, message, pause;
  /// Where they are empty: those of the process. A mesh that has such defaults is an object: its
  /// fatal errors are exceptions, and without a handler it prints nothing and waits for nothing.
  const Handlers* defaults = nullptr;

  /// Calls of handlers that have not come back yet.
  mutable std::atomic<std::int32_t> nb_running = 0;
  /// Set where one of them deletes the mesh that these belong to: done when it has come back.
  void (*delete_owner)(void* owner) = nullptr;
  void* owner = nullptr;

  bool of_object() const { return defaults != nullptr; }
};

/// Prints the lines of a message block, each closed by a line end.
void message(const Handlers& handlers, std::string_view block);
/// Prints a prompt without a line end and waits for a line of input; goes on at its end.
void pause(const Handlers& handlers, std::string_view prompt);
/// Throws the message block as an Error, or prints it, flushes and ends the process.
[[noreturn]] void fatal(const Handlers& handlers, std::string_view block);
/// Prints the message block and ends the process; asks no one.
[[noreturn]] void end_at_once(std::string_view block);
/// Shortest decimal text that reads back as the same value.
std::string to_text(double value);

[[noreturn]] void allocation_failed(const Handlers& handlers, std::size_t bytes);
[[noreturn]] void release_of_missing(const Handlers& handlers, std::string_view name);

// ---------------------------------------------------------------------------------------------
// Progress (progress.cpp)
// ---------------------------------------------------------------------------------------------

/// Tells a caller how far the work is, if there is one who wants to know.
class ProgressTeller {
 public:
  progress_function handler;
  double seconds_between_calls = 0.1;

  void begin(std::string_view phase, std::int64_t known) {
    phase_ = phase;
    done_ = 0;
    known_ = known;
    until_look_ = steps_between_looks;
  }
  /// Once for each node. May throw what the handler throws.
  void step() {
    if (--until_look_ == 0) look();
  }
  /// The same for work beside: now and then, a few microseconds apart or more.
  void look_aside();

  /// Enlarges a table, which takes time where the system has to find the memory first.
  template <typename T>
  void resize(std::vector<T>& table, std::size_t size, const T& value = {}) {
    constexpr std::size_t at_once = std::size_t{1} << 16;
    table.reserve(size);
    while (table.size() < size) {
      table.resize(std::min(size, table.size() + at_once), value);
      look_aside();
    }
  }
  /// Makes room for one entry more, likewise.
  template <typename T>
  void make_room(std::vector<T>& table) {
    if (table.size() < table.capacity()) return;
    constexpr std::size_t at_once = std::size_t{1} << 16, smallest = 16;
    std::vector<T> enlarged;
    enlarged.reserve(std::max(2 * table.size(), smallest));
    while (enlarged.size() < table.size()) {
      const auto from = table.begin() + static_cast<std::ptrdiff_t>(enlarged.size());
      const std::size_t n = std::min(table.size() - enlarged.size(), at_once);
      enlarged.insert(enlarged.end(), from, from + static_cast<std::ptrdiff_t>(n));
      look_aside();
    }
    table.swap(enlarged);
  }

 private:
  static constexpr std::int32_t steps_between_looks = 1024;  // the clock is read no more often
  void look();

  std::string_view phase_;
  std::int64_t done_ = 0, known_ = 0;
  std::int32_t until_look_ = steps_between_looks;
  std::chrono::steady_clock::time_point last_;
};

// ---------------------------------------------------------------------------------------------
// Levels and the lattice (levels.cpp, true_ipos.cpp)
// ---------------------------------------------------------------------------------------------

/// No limit lies above, wherever the domain is: denominators of offsets are 32-bit integers.
inline constexpr std::int32_t deepest_level = 60;

/// Base-2 logarithm: natural logarithm divided by log_of_2.
double log2(double x);
/// 2^level as a signed 32-bit integer where 0 <= level <= 31 (negative at 31), otherwise 0.
double power_of_2(std::int32_t level);
/// 2^exponent; 0 or infinite beyond the range of normal numbers.
constexpr double exact_power_of_2(int exponent) {
  if (exponent < -1022) return 0.0;
  if (exponent > 1023) return std::numeric_limits<double>::infinity();
  return std::bit_cast<double>(static_cast<std::uint64_t>(1023 + exponent) << 52);
}

/// The rectangle of a mesh, and what follows from it.
struct Domain {
  double x_min = 0.0, y_min = 0.0;  ///< lower left corner
  double dist_0 = 0.0;              ///< spacing of the grid of level 0
  double x_max = 0.0, y_max = 0.0;
  /// Largest absolute coordinate of the four sides: decides how well a position can be told.
  double largest_coordinate = 0.0;
  /// No link is longer than this along x or y: the spacing of level 0, as long as all its nodes are
  /// there.
  double longest_link = 0.0;
  /// Positions can be told exactly, and all squares and diamonds of linked nodes are some: no node
  /// of level 0 was removed, and callers inserted nodes only where refinement would.
  bool lattice_is_whole = false;
  /// No limit lies above: deeper down the rounding of coordinates shows.
  std::int32_t deepest_level = detail::deepest_level;

  /// Whether a link of this node can lead to a node on a side, told from its position alone.
  bool may_have_neighbour_on_side(const Cell& c) const {
    return c.x - x_min <= longest_link || x_max - c.x <= longest_link ||
           c.y - y_min <= longest_link || y_max - c.y <= longest_link;
  }
};

/// Notes that all nodes of level 0 are there, and all others where refinement puts them.
void set_regular(Domain& domain);
/// The position index of an offset from the lower left corner, in a mesh with this limit: up to
/// level 38 fractions tell it.
std::int32_t true_ipos(const Domain& domain, double x, double y, std::int32_t limit = 0);
/// How far a node may be from its place on the lattice.
double rounding_of_positions(const Domain& domain);
std::int32_t deepest_level_of(const Domain& domain);
/// Whether true_ipos() tells positions apart without the tolerance that a domain far away needs.
bool positions_are_exact(const Domain& domain);
void real_to_rat(std::int32_t& n, std::int32_t& d, double x, const double* tol = nullptr);
std::int32_t log2_special(std::int32_t n);

// ---------------------------------------------------------------------------------------------
// Threads (helpers.cpp)
// ---------------------------------------------------------------------------------------------

/// Other threads that do some work while this scope lasts; fewer where the system gives no more.
class Helpers {
 public:
  /// @param work  throws nothing
  Helpers(std::size_t number, const std::function<void()>& work);
  Helpers(const Helpers&) = delete;
  Helpers& operator=(const Helpers&) = delete;
  ~Helpers();

 private:
  std::vector<std::thread> threads_;
};

// ---------------------------------------------------------------------------------------------
// Dense algebra (linpack.cpp)
//
// LU factors with partial pivoting, an estimate of the reciprocal condition number, and the
// solution with the factors, for the local fits: the algorithms of J. J. Dongarra, J. R. Bunch,
// C. B. Moler and G. W. Stewart, LINPACK Users' Guide, SIAM 1979, chapter 1. Which stencils a fit
// accepts hangs on this very estimate, so that another factorisation or estimator may not stand in
// for it.
// ---------------------------------------------------------------------------------------------

/// Order of all systems: the coefficients of a quadratic in two variables.
inline constexpr int linpack_order = 6;

/// Factorises the leading 6 x 6 block of a matrix.
///
/// @param a     column by column; receives U and the multipliers of L
/// @param lda   leading dimension, at least 6
/// @param ipvt  receives the 6 pivot rows, counted from 0
/// @return whether no pivot is 0
bool dgefa(double* a, int lda, std::int32_t* ipvt);

/// dgefa() with an estimate of the reciprocal condition number in the 1-norm.
///
/// @param rcond  receives the estimate, at or above the true number up to rounding; 0 or of the
///               order of rounding for a singular matrix
/// @param z      6 entries of scratch; for a nearly singular matrix an approximate null vector
void dgeco(double* a, int lda, std::int32_t* ipvt, double& rcond, double* z);

/// Solves a x = b with the factors of dgefa() or dgeco(); b receives the solution.
void dgesl(const double* a, int lda, const std::int32_t* ipvt, double* b);

}  // namespace velmar_2d::detail
