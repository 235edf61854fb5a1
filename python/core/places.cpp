// Nodes, values and lines at places of the caller's, and values from one mesh to another.
#include "python/core/core.hpp"
#include "python/core/progress.hpp"

namespace velmar_2d::python {

namespace {

Interpolation interpolation_of(const std::string& how) {
  if (how == "constant") return Interpolation::constant;
  if (how == "linear") return Interpolation::linear;
  if (how == "gradient") return Interpolation::gradient;
  throw py::value_error("how is '" + how + "'; it must be 'constant', 'linear' or 'gradient'");
}

/// Rows of x and y.
std::vector<Point> to_points(const Doubles& places) {
  if (places.ndim() != 2 || places.shape(1) != 2) throw py::value_error("places need two columns");
  std::vector<Point> points(static_cast<std::size_t>(places.shape(0)));
  const double* in = places.data();
  for (Point& p : points) {
    p = {in[0], in[1]};
    in += 2;
  }
  return points;
}

py::array_t<std::int32_t> locate(CoreMesh& core, const Doubles& places) {
  const Busy busy(core, "locate");
  const MeshArrays& arrays = *core.arrays();
  const std::vector<Point> points = to_points(places);
  py::array_t<std::int32_t> indices(static_cast<py::ssize_t>(points.size()));
  std::int32_t* out = indices.mutable_data();
  const py::gil_scoped_release others_run;
  for (const Cell* c : std::as_const(*core.mesh).locate(points)) {
    *out++ = c != nullptr ? arrays.number(*c) : -1;
  }
  return indices;
}

py::array_t<double> values_at(CoreMesh& core, const Doubles& places, const std::string& how) {
  const Busy busy(core, "value_at");
  const Interpolation rule = interpolation_of(how);
  const std::vector<Point> points = to_points(places);
  std::vector<double> values;
  {
    const py::gil_scoped_release others_run;
    values = core.mesh->values_at(points, rule);
  }
  py::array_t<double> array({static_cast<py::ssize_t>(points.size()),
                             static_cast<py::ssize_t>(core.mesh->n_cell_data())});
  std::copy(values.begin(), values.end(), array.mutable_data());
  return array;
}

/// Indices of the nodes, and a row for each piece: enter, leave, from, to.
py::tuple line_cut(CoreMesh& core, const Doubles& ends) {
  const Busy busy(core, "line_cut");
  const MeshArrays& arrays = *core.arrays();
  const std::vector<Point> points = to_points(ends);
  if (points.size() != 2) throw py::value_error("a line has two ends");
  const std::vector<LinePiece> pieces = core.mesh->line_cut(points[0], points[1]);
  const auto n = static_cast<py::ssize_t>(pieces.size());
  py::array_t<std::int32_t> indices(n);
  py::array_t<double> rows({n, py::ssize_t{6}});
  std::int32_t* index = indices.mutable_data();
  double* row = rows.mutable_data();
  for (const LinePiece& p : pieces) {
    *index++ = arrays.number(*p.node);
    for (const double x : {p.enter, p.leave, p.from.x, p.from.y, p.to.x, p.to.y}) *row++ = x;
  }
  return py::make_tuple(indices, rows);
}

std::int64_t transfer_from(CoreMesh& core, CoreMesh& other, bool conservative,
                           const std::string& how) {
  const Interpolation rule = interpolation_of(how);
  const Changing changing(core, "transfer_from");
  std::unique_ptr<Busy> reading;
  if (&other != &core) reading = std::make_unique<Busy>(other, "transfer_from");
  const ProgressAtHand progress_at_hand(*core.mesh, py::none());
  const py::gil_scoped_release others_run;
  return conservative ? transfer_conservative(*other.mesh, *core.mesh)
                      : transfer(*other.mesh, *core.mesh, rule);
}

}  // namespace

void define_places(py::class_<CoreMesh>& mesh) {
  mesh.def("locate", locate, py::arg("places"));
  mesh.def("values_at", values_at, py::arg("places"), py::arg("how"));
  mesh.def("line_cut", line_cut, py::arg("ends"));
  mesh.def("transfer_from", transfer_from, py::arg("other"), py::arg("conservative"),
           py::arg("how"));
}

}  // namespace velmar_2d::python
