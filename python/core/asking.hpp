// What the library asks functions of Python's while a mesh is made or adapted: kinds of the sides,
// wanted spacings, values of new nodes.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "python/core/bulk_values.hpp"
#include "python/core/core.hpp"

namespace velmar_2d::python {

using Nodes = std::span<const Cell* const>;

/// What a mesh is told of its sides where `kinds` are those of make_mesh(). A function of Python's
/// is asked by way of `kind_at`, which is at hand while KindsAtHand lasts.
bc_type_function kinds_of_mesh(const bc_type_function& kind_at, const py::object& kinds);

/// While this lasts a mesh can ask for the kinds of its sides, where they are a function.
class KindsAtHand {
 public:
  KindsAtHand(bc_type_function& kind_at, const py::object& kinds, bool vectorised);
  ~KindsAtHand() { kind_at_ = nullptr; }
  KindsAtHand(const KindsAtHand&) = delete;
  KindsAtHand& operator=(const KindsAtHand&) = delete;

  /// A vectorised function is asked for all of the first grid at once, when the first question
  /// comes: then the library has found rectangle and grid in order.
  void foresee_grid(const Rectangle& rectangle, std::int32_t nx, std::int32_t ny);
  /// Places come that are not foreseen, mostly some `unit` apart.
  void expect_apart(double unit);
  /// Those of a vectorised function, one for each side.
  std::span<BulkValues> sides() { return sides_; }
  /// Whether Python is called for one place after the other.
  bool one_by_one() const { return kind_at_ && sides_.empty(); }

 private:
  bc_type_function& kind_at_;
  std::vector<BulkValues> sides_;
};

/// Lets other threads have Python's lock while this lasts. Not where Python is called for one place
/// after the other: to get the lock back each time can take longer than all the rest.
class LetOthersRun {
 public:
  explicit LetOthersRun(bool one_by_one) {
    if (!one_by_one) released_.emplace();
  }

 private:
  std::optional<py::gil_scoped_release> released_;
};

/// The arrays that a vectorised size function gets. Their memory serves one batch after another, as
/// long as the function keeps none of them.
class SizeArguments {
 public:
  py::object call(const py::function& size, Nodes nodes, const Mesh& mesh);

 private:
  bool kept_by_others() const;
  void make_room(py::ssize_t capacity, py::ssize_t n_cell_data);
  void fill(Nodes nodes, bool has_data);

  py::ssize_t capacity_ = -1;
  py::array_t<double> x_, y_, data_, grad_, grad2_;
};

/// The functions of an update, as Python gives them.
struct Functions {
  const py::function& size;
  const py::object& init_data;  ///< or none
  bool vectorised, init_vectorised;
};

/// The functions of an update, as the library takes them. Lasts no longer than what it is made of.
class Asking {
 public:
  /// @param by_rings  for resolve(), which gives all nodes of a batch all their rings at once
  Asking(const Functions& functions, KindsAtHand& kinds, bool by_rings);
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;

  bool interpolates() const { return !value_at; }
  /// Whether some function is asked for many places at once.
  bool asks_in_bulk() const { return functions_.vectorised || foresees(); }
  /// Whether some function is asked for one place after the other.
  bool asks_one_by_one() const;

  /// Before resolve(): places come that nothing foresees, holes that other updates have left.
  void expect_holes(const Mesh& mesh);
  /// @param whole  the rectangle, of which the mesh may have a part
  void sizes_at(const Mesh& mesh, const Rectangle& whole, Nodes nodes, std::span<double> sizes);
  double size_at(double x, double y, std::span<const double> data, double grad, double grad2) const;
  init_data_function value_at;  ///< none where values are interpolated

 private:
  bool foresees() const { return values_ != nullptr || !kinds_.sides().empty(); }

  Functions functions_;
  KindsAtHand& kinds_;
  bool by_rings_;
  std::unique_ptr<BulkValues> values_;
  SizeArguments arguments_;
};

}  // namespace velmar_2d::python
