// What the files of the extension module share.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "velmar_2D/arrays.hpp"

namespace velmar_2d::python {

namespace py = pybind11;

using Doubles = py::array_t<double, py::array::c_style | py::array::forcecast>;
/// The same with each column in one piece.
using Columns = py::array_t<double, py::array::f_style | py::array::forcecast>;

inline constexpr std::array<std::string_view, 4> side_names = {"North", "East", "South", "West"};

inline constexpr std::array<NeighbourLink Cell::*, 8> links = {
    &Cell::n, &Cell::ne, &Cell::e, &Cell::se, &Cell::s, &Cell::sw, &Cell::w, &Cell::nw};

// ---------------------------------------------------------------------------------------------
// One mesh (core_mesh.cpp)
// ---------------------------------------------------------------------------------------------

/// One mesh as Python sees it: velmar_2d._core.Mesh. Between calls it holds no object of Python's,
/// so that whatever keeps a mesh alive is known to Python's garbage collector.
class CoreMesh {
 public:
  CoreMesh() = default;
  CoreMesh(const CoreMesh&) = delete;
  CoreMesh& operator=(const CoreMesh&) = delete;

  bool is_alive() const { return mesh != nullptr; }
  void remove();
  /// The mesh, for values that it knows at once. Throws Error where it was deleted, or is being
  /// changed by another thread.
  const Mesh& readable() const;
  /// The nodes as arrays, made once for each revision. Older ones stay with those who hold them.
  const std::shared_ptr<MeshArrays>& arrays();

  std::unique_ptr<Mesh> mesh;  ///< none once it was deleted
  /// Kinds of the sides as a function of Python's, while a call lasts that may ask for them.
  bc_type_function kind_at;
  std::uint64_t data_version = 0;  ///< grows whenever values of nodes may have changed

 private:
  friend class Busy;
  bool busy_ = false;  ///< guarded by Python's lock, as all that stands here
  std::thread::id user_;
  std::shared_ptr<MeshArrays> arrays_;
};

/// Held by whatever changes or reads a mesh: a callback that comes back to it in the middle of an
/// update, or another thread that does, meets an Error. So does who finds the mesh deleted.
class Busy {
 public:
  Busy(CoreMesh& core, std::string_view operation);
  ~Busy() { core_.busy_ = false; }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  CoreMesh& core_;
};

/// Held by what changes values of nodes.
class Changing {
 public:
  Changing(CoreMesh& core, std::string_view operation) : busy_(core, operation), core_(core) {}
  ~Changing() { ++core_.data_version; }
  Changing(const Changing&) = delete;
  Changing& operator=(const Changing&) = delete;

 private:
  Busy busy_;
  CoreMesh& core_;
};

/// Sends a text of the library to Python's logging.
void log(std::string_view text);

// ---------------------------------------------------------------------------------------------
// Callables (callables.cpp, adaptation.cpp)
// ---------------------------------------------------------------------------------------------

/// The result of a vectorised callable: one value for each of n places. A single number stands for
/// all of them. Anything else is a ValueError or TypeError that names the callable.
void copy_values(const py::object& result, std::string_view callable, std::span<double> values);
/// The same for kinds of side condition, which are 0, 1 or 2.
void copy_kinds(const py::object& result, std::string_view callable, std::span<double> kinds);

/// A numpy array of its own with these values.
py::array_t<double> to_array(std::span<const double> values);

/// `kinds`, here and below: a tuple of four, or the function bc_type. `hooks`: a pair of functions
/// or None, see batched_hooks.hpp. `progress`: None, or a function that is told of progress.
std::unique_ptr<CoreMesh> make_mesh(const std::array<double, 4>& rectangle, std::int32_t nx,
                                    std::int32_t ny, std::int32_t subdiv_max,
                                    std::int32_t n_cell_data, const py::object& kinds,
                                    bool kinds_vectorised);
void update(CoreMesh& core, const py::function& size, const py::object& init_data, bool vectorised,
            bool init_vectorised, const py::tuple& hooks, const py::object& progress,
            const py::object& kinds, bool kinds_vectorised);
void resolve(CoreMesh& core, const py::function& size, const py::object& init_data, double margin,
             std::int64_t most_nodes, double slope, bool vectorised, bool init_vectorised,
             const py::tuple& hooks, const py::object& progress, const py::object& kinds,
             bool kinds_vectorised);
void set_subdiv_max(CoreMesh& core, std::int32_t limit, const py::object& kinds,
                    bool kinds_vectorised);

// ---------------------------------------------------------------------------------------------
// Arrays (arrays.cpp)
// ---------------------------------------------------------------------------------------------

void define_arrays(py::class_<CoreMesh>& mesh);

// ---------------------------------------------------------------------------------------------
// Places (places.cpp)
// ---------------------------------------------------------------------------------------------

void define_places(py::class_<CoreMesh>& mesh);

// ---------------------------------------------------------------------------------------------
// Parts for solvers (numerics.cpp)
// ---------------------------------------------------------------------------------------------

void define_numerics(py::class_<CoreMesh>& mesh);

// ---------------------------------------------------------------------------------------------
// Copies and files (saving.cpp)
// ---------------------------------------------------------------------------------------------

void define_saving(py::module_& m, py::class_<CoreMesh>& mesh);

}  // namespace velmar_2d::python
