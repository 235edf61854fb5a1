// The mesh as numpy arrays: node i is the i-th of the node list.
#include "python/core/core.hpp"

#if defined(VELMAR_2D_PYTHON_IO)
#include "io/triangulation.hpp"
#endif

namespace velmar_2d::python {

namespace {

template <typename T>
py::array_t<T> table(std::size_t rows, std::size_t columns) {
  return py::array_t<T>({static_cast<py::ssize_t>(rows), static_cast<py::ssize_t>(columns)});
}

/// Hands a vector over to numpy without a copy.
template <typename T>
py::array_t<T> adopt(std::vector<T>&& values) {
  auto* kept = new std::vector<T>(std::move(values));
  const py::capsule owner(kept, [](void* v) { delete static_cast<std::vector<T>*>(v); });
  return py::array_t<T>(static_cast<py::ssize_t>(kept->size()), kept->data(), owner);
}

template <typename T, typename ValueOf>
py::array_t<T> per_node(ValueOf value_of) {
  const Busy busy("reading nodes");
  const auto& nodes = numbered_nodes();
  py::array_t<T> array(static_cast<py::ssize_t>(nodes.size()));
  T* out = array.mutable_data();
  for (Cell* c : nodes) *out++ = value_of(*c);
  return array;
}

py::array_t<double> positions() {
  const Busy busy("reading nodes");
  const auto& nodes = numbered_nodes();
  auto array = table<double>(nodes.size(), 2);
  double* out = array.mutable_data();
  for (const Cell* c : nodes) {
    *out++ = c->x;
    *out++ = c->y;
  }
  return array;
}

py::array_t<std::int32_t> link_table() {
  const Busy busy("reading links");
  const auto& nodes = numbered_nodes();
  auto array = table<std::int32_t>(nodes.size(), 8);
  std::int32_t* out = array.mutable_data();
  for (const Cell* c : nodes) {
    for (const auto member : links) {
      const NeighbourLink link = c->*member;
      const Cell* there = link.cell();
      *out++ = there != nullptr ? there->used
               : link.empty()   ? no_link_code
                                : side_code(link.boundary());
    }
  }
  return array;
}

py::array_t<double> data() {
  const Busy busy("reading data");
  const auto& nodes = numbered_nodes();
  const auto nb_values = static_cast<std::size_t>(n_cell_data);
  auto array = table<double>(nodes.size(), nb_values);
  double* out = array.mutable_data();
  for (const Cell* c : nodes) out = std::copy(c->data.begin(), c->data.end(), out);
  return array;
}

void check_revision(std::uint64_t revision) {
  if (revision == mesh_revision) return;
  throw MeshFailure("velmar_2d: these values belong to revision " + std::to_string(revision) +
                    " of the mesh, which is now at revision " + std::to_string(mesh_revision) +
                    ": its nodes are others");
}

/// Columns `first` and on of the data.
void write_data(const Doubles& values, std::size_t first, std::uint64_t revision) {
  const Busy busy("writing data");
  const auto& nodes = numbered_nodes();
  check_revision(revision);
  const auto columns = static_cast<std::size_t>(values.shape(1));
  const double* in = values.data();
  for (Cell* c : nodes) {
    std::copy_n(in, columns, c->data.begin() + first);
    in += columns;
  }
}

py::tuple gradient() {
  const Busy busy("computing derivatives");
  const auto& nodes = numbered_nodes();
  const auto n = static_cast<py::ssize_t>(nodes.size());
  py::array_t<double> dx(n), dy(n);
  double *out_x = dx.mutable_data(), *out_y = dy.mutable_data();
  for (Cell* c : nodes) compute_data_at_node(c, out_x++, out_y++);
  return py::make_tuple(dx, dy);
}

/// Node, neighbour or side, length and distance of every face; a face between two nodes once.
py::tuple faces() {
  const Busy busy("reading faces");
  const auto& nodes = numbered_nodes();
  std::vector<std::int32_t> from, to;
  std::vector<double> length, distance;
  const std::size_t expected = 4 * nodes.size() + 64;
  from.reserve(expected), to.reserve(expected);
  length.reserve(expected), distance.reserve(expected);
  const auto add = [&](const Cell* c, std::int32_t other, double l, double d) {
    from.push_back(c->used), to.push_back(other);
    length.push_back(l), distance.push_back(d);
  };
  CellFaces f;
  for (const Cell* c : nodes) {
    cell_faces(c, f);
    for (std::size_t d = 0; d < 8; ++d) {
      const Cell* there = f.neighbour[d];
      if (there != nullptr && f.length[d] > 0.0 && there->used > c->used) {
        add(c, there->used, f.length[d], f.distance[d]);
      }
    }
    if (c->on_boundary == 0) continue;
    for (std::size_t side = 0; side < 4; ++side) {
      const Boundary* record = (c->*links[2 * side]).boundary();
      if (record != nullptr && f.side[side] > 0.0) add(c, side_code(record), f.side[side], 0.0);
    }
  }
  return py::make_tuple(adopt(std::move(from)), adopt(std::move(to)), adopt(std::move(length)),
                        adopt(std::move(distance)));
}

/// Corners of all control cells, one after another, and where those of each begin.
py::tuple polygons() {
  const Busy busy("reading polygons");
  const auto& nodes = numbered_nodes();
  py::array_t<std::int64_t> offsets(static_cast<py::ssize_t>(nodes.size() + 1));
  std::int64_t* offset = offsets.mutable_data();
  std::vector<double> coordinates;
  coordinates.reserve(2 * 5 * nodes.size() + 64);
  std::array<Point, max_cell_corners> corners;
  std::int32_t n = 0;
  *offset = 0;
  for (const Cell* c : nodes) {
    cell_polygon(c, corners, n);
    for (std::int32_t i = 0; i < n; ++i) {
      const Point& corner = corners[static_cast<std::size_t>(i)];
      coordinates.push_back(corner.x);
      coordinates.push_back(corner.y);
    }
    offset[1] = offset[0] + n;
    ++offset;
  }
  return py::make_tuple(offsets, adopt(std::move(coordinates)).reshape({-1, 2}));
}

py::list findings() {
  const Busy busy("check");
  numbered_nodes();
  std::vector<Finding> found;
  check_mesh(found);
  py::list list;
  const auto index = [](const Cell* c) {
    return c == nullptr ? py::object(py::none()) : py::object(py::int_(c->used));
  };
  for (const Finding& f : found) {
    list.append(py::make_tuple(py::str(f.rule.data(), f.rule.size()),
                               py::str(f.text.data(), f.text.size()), index(f.node)));
  }
  return list;
}

#if defined(VELMAR_2D_PYTHON_IO)
py::array_t<std::int32_t> triangles() {
  const Busy busy("reading triangles");
  require_mesh();
  const io::Triangulation found = io::triangulate_mesh();
  auto array = table<std::int32_t>(found.triangles.size(), 3);
  std::int32_t* out = array.mutable_data();
  for (const auto& triangle : found.triangles) out = std::copy_n(triangle.begin(), 3, out);
  return array;
}
#endif

}  // namespace

void define_arrays(py::module_& m) {
  m.def("positions", positions);
  m.def("ids", [] { return per_node<std::int32_t>([](const Cell& c) { return c.id; }); });
  m.def("levels", [] { return per_node<std::int32_t>([](const Cell& c) { return c.level; }); });
  m.def("ipos", [] { return per_node<std::int32_t>([](const Cell& c) { return c.ipos; }); });
  m.def("on_boundary",
        [] { return per_node<std::int32_t>([](const Cell& c) { return c.on_boundary; }); });
  m.def("known", [] { return per_node<bool>([](const Cell& c) { return known_value(c); }); });
  m.def("grad", [] { return per_node<double>([](const Cell& c) { return c.grad_data; }); });
  m.def("grad2", [] { return per_node<double>([](const Cell& c) { return c.grad2_data; }); });
  m.def("areas", [] { return per_node<double>([](Cell& c) { return cell_area(&c); }); });
  m.def("links", link_table);
  m.def("data", data);
  m.def("write_data", write_data, py::arg("values"), py::arg("first"), py::arg("revision"));
  m.def("gradient", gradient);
  m.def("faces", faces);
  m.def("polygons", polygons);
  m.def("findings", findings);
#if defined(VELMAR_2D_PYTHON_IO)
  m.def("triangles", triangles);
#endif
}

}  // namespace velmar_2d::python
