// What the files of the extension module share.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <array>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::python {

namespace py = pybind11;

using Doubles = py::array_t<double, py::array::c_style | py::array::forcecast>;

/// A fatal message of the library on its way to Python, where it is velmar_2d.MeshError.
struct MeshFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------------------------------------
// State (state.cpp)
// ---------------------------------------------------------------------------------------------

/// The records of all sides: n, e, s, w, each of the kinds Dirichlet, Neumann, other.
extern std::array<std::array<Boundary, 3>, 4> side_records;
inline constexpr std::array<std::string_view, 4> side_names = {"North", "East", "South", "West"};

/// What a link is in an index table: the linked node's index, or one of these.
inline constexpr std::int32_t no_link_code = -1, first_side_code = -2;
/// -2 - 3 * side - kind, with sides n 0, e 1, s 2, w 3.
std::int32_t side_code(const Boundary* record);

inline constexpr std::array<NeighbourLink Cell::*, 8> links = {
    &Cell::n, &Cell::ne, &Cell::e, &Cell::se, &Cell::s, &Cell::sw, &Cell::w, &Cell::nw};

/// Held by whatever changes or reads the mesh: a callback that comes back to the library in the
/// middle of an update, or another thread that does, meets a MeshFailure.
class Busy {
 public:
  explicit Busy(std::string_view operation);
  ~Busy();
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;
};

/// Sends messages to Python's logging, fatal ones into MeshFailure, and waits for nobody.
void take_over_messages();

/// The nodes in list order. `used` of each is its index. Made once for each revision.
const std::vector<Cell*>& numbered_nodes();
void forget_numbers();

/// Throws MeshFailure unless there is a mesh.
void require_mesh();

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

void make_mesh(const std::array<double, 4>& rectangle, std::int32_t nx, std::int32_t ny,
               std::int32_t subdiv_max, std::int32_t nb_values, const py::object& bc_type,
               bool vectorised);
/// Deletes the mesh, if there is one, and lets go of every callable.
void delete_mesh_and_callables();
void update(const py::function& size, const py::object& init_data, bool vectorised,
            bool init_vectorised);

// ---------------------------------------------------------------------------------------------
// Arrays (arrays.cpp)
// ---------------------------------------------------------------------------------------------

void define_arrays(py::module_& module);

}  // namespace velmar_2d::python
