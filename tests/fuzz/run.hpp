// One run of calls from bytes. What the calls of the default mesh are stands in calls.cpp, those of
// a Mesh in objects.cpp, what they are given in arguments.cpp.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "velmar_2D/mesh.hpp"
#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::tests::fuzz {

inline constexpr double infinity = std::numeric_limits<double>::infinity();
inline constexpr double no_number = std::numeric_limits<double>::quiet_NaN();

/// What a fatal error, a callback or a message handler leaves by.
struct Thrown : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The bytes, one after the other; 0 for ever after the last one.
class Bytes {
 public:
  explicit Bytes(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
  bool empty() const { return at_ >= bytes_.size(); }
  std::uint8_t next() { return empty() ? std::uint8_t{0} : bytes_[at_++]; }
  std::int32_t below(std::int32_t n) { return next() % n; }
  auto one_of(const auto& values) { return values[next() % values.size()]; }

 private:
  std::span<const std::uint8_t> bytes_;
  std::size_t at_ = 0;
};

/// A Mesh beside the default one. The caller never breaks its geometry.
struct Object {
  std::optional<Mesh> mesh;
  std::uint64_t hash = 0;   ///< state_hash() after its last call
  bool big_enough = false;  ///< for derivatives
};

/// One run: the calls, and what is known of the meshes that they made.
class Run {
 public:
  explicit Run(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::string run();

 private:
  /// The library without a mesh, as if the process had just begun.
  void prepare();
  void clear();

  // Calls of the default mesh.
  void call();
  void call_default_mesh();
  void resolve_default_mesh();
  void set_records();
  void set_number_of_values();
  void make_mesh();
  void insert_proposal();
  void insert_anything();
  void remove();
  void read();
  void end_or_hinder();
  /// Found out by the next call, unless it fits the level arrays.
  void write_limit();

  // Calls of a Mesh.
  void call_object(Object& object);
  void resolve_object(Mesh& mesh);
  void resolve_object_in_batches(Mesh& mesh);
  void make_object(Object& object);
  void change_node(Mesh& mesh);
  void end_or_move(Object& object);
  /// Several threads read all nodes and must find the same.
  void read_in_threads(Mesh& mesh);

  // What they are given.
  Resolution resolution();
  std::int32_t limit();
  std::int32_t small_limit();
  /// Callbacks throw when the countdown that they share ends; updates must end some time.
  void count_down();
  void set_countdown();
  bc_type_function sides();
  init_data_function data();
  size_function size(const Mesh& mesh);
  /// Sometimes some are not written.
  batch_size_function in_batches(const size_function& size);
  /// A node of the mesh, or nullptr where there is none.
  Cell* node();

  // What must hold.
  /// No node is coarser than wanted. Sizes that follow data are left out: derivatives change with
  /// the mesh.
  void check_wants(const Mesh& mesh, const size_function& wanted);
  /// Some ends must not come about while the caller did everything right.
  void judge_end(std::string_view text);
  void judge_end_of_object(std::string_view text);
  /// Only the one that was called may have changed.
  void check_objects();
  void check();

  /// Calls from these bytes on; those before are of the default mesh, by their lowest four bits.
  static constexpr int first_of_resolves = 208, end_of_resolves = 224, first_of_batches = 224,
                       first_of_readers = 230, first_of_objects = 232,
                       first_of_object_resolves = 230;
  static constexpr std::array<std::string_view, 4> bad_ends = {
      "internal error", "cannot be removed", "belongs to level", "insert_node_odd on_boundary"};
  static constexpr std::array<double, 8> origins = {0.0,  -1.0, 10.0,      1000.0,
                                                    -0.1, 1e9,  no_number, infinity};
  static constexpr std::array<double, 8> widths = {1.0,  2.0,    4.0, 0.3,
                                                   1e-3, 1e-300, 0.0, no_number};

  Bytes bytes_;
  std::array<Boundary, 12> records_;
  std::array<Object, 2> objects_;
  const Object* current_ = nullptr;  ///< that was called last
  std::string fault_;
  int call_ = 0, countdown_ = 0;
  int size_kind_ = 0;                ///< of the last size function
  bool batches_are_written_ = true;  ///< by the last one in batches, or there is none
  bool intrude_ = false;             ///< a callback changes the default mesh
  bool regular_ = true;              ///< the caller did nothing that breaks the geometry
  bool tame_ = false;                ///< positions can be told apart well
  bool big_enough_ = false;          ///< for derivatives
  bool values_differ_ = false;       ///< in number: n_cell_data is the caller's to change
};

}  // namespace velmar_2d::tests::fuzz
