// Parts for solvers. What numpy does as fast is written in Python.
#include <optional>

#include "python/core/core.hpp"
#include "velmar_2D/velmar_2D_numerics.hpp"

namespace velmar_2d::python {

namespace {

template <typename T>
py::array_t<T> to_numpy(const std::vector<T>& values) {
  return py::array_t<T>(static_cast<py::ssize_t>(values.size()), values.data());
}

std::span<const double> values_of(const Doubles& array) {
  return {array.data(), static_cast<std::size_t>(array.size())};
}

/// Of the rows of nodes or, by `of_faces`, of the faces between two nodes.
py::tuple flux_matrix(CoreMesh& core, const Doubles& coefficients, bool of_faces) {
  const Busy busy(core, "assembling a matrix");
  const MeshArrays& arrays = *core.arrays();
  numerics::FluxMatrix flux;
  if (of_faces) {
    numerics::update(flux, arrays, numerics::faces_of(arrays), values_of(coefficients));
  } else if (coefficients.ndim() == 0) {
    numerics::update(flux, arrays, *coefficients.data());
  } else {
    numerics::update(flux, arrays, values_of(coefficients));
  }
  return py::make_tuple(to_numpy(flux.matrix.values), to_numpy(flux.matrix.columns),
                        to_numpy(flux.matrix.row_begin));
}

py::tuple gradient_of(CoreMesh& core, const Doubles& u) {
  const Busy busy(core, "computing gradients");
  const MeshArrays& arrays = *core.arrays();
  py::array_t<double> du_dx(arrays.size()), du_dy(arrays.size());
  const auto n = static_cast<std::size_t>(arrays.size());
  numerics::gradient(arrays, values_of(u), {du_dx.mutable_data(), n}, {du_dy.mutable_data(), n});
  return py::make_tuple(du_dx, du_dy);
}

/// Fluxes through faces and through pieces of the sides, each in the order of Faces.
py::tuple advection_fluxes(CoreMesh& core, std::int32_t upwind, const Doubles& face_wind,
                           const Doubles& side_wind, const Doubles& u, const Doubles& inflow) {
  const Busy busy(core, "computing fluxes");
  const MeshArrays& arrays = *core.arrays();
  const numerics::Faces faces = numerics::faces_of(arrays);
  const numerics::SidePieces pieces = numerics::side_pieces_of(arrays);
  std::vector<double> through(faces.size()), out(pieces.size());
  numerics::advection_fluxes(static_cast<numerics::Upwind>(upwind), arrays, faces, pieces,
                             values_of(face_wind), values_of(side_wind), values_of(u),
                             values_of(inflow), through, out);
  return py::make_tuple(to_numpy(through), to_numpy(out));
}

}  // namespace

void define_numerics(py::class_<CoreMesh>& mesh) {
  mesh.def("flux_matrix", flux_matrix, py::arg("coefficients"), py::arg("of_faces"));
  mesh.def("gradient_of", gradient_of, py::arg("u"));
  mesh.def("advection_fluxes", advection_fluxes, py::arg("upwind"), py::arg("face_wind"),
           py::arg("side_wind"), py::arg("u"), py::arg("inflow"));
}

}  // namespace velmar_2d::python
