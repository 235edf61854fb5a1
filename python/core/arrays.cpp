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

/// Room for as many values as there can be at most, and the array of those that there are. Pages
/// that stay untouched cost no memory.
template <typename T>
class Filling {
 public:
  explicit Filling(std::size_t most)
      : all_(static_cast<py::ssize_t>(most)), next_(all_.mutable_data()) {}
  void add(T value) { *next_++ = value; }
  py::object filled() { return all_[py::slice(0, next_ - all_.data(), 1)]; }

 private:
  py::array_t<T> all_;
  T* next_;
};

/// Asks the memory for what a walk reads of the neighbours of a node that comes soon.
void request_neighbours(const std::vector<Cell*>& nodes, std::size_t soon) {
  if (soon >= nodes.size()) return;
  for (const auto member : links) {
    if (const Cell* there = (nodes[soon]->*member).cell()) __builtin_prefetch(&there->used);
  }
}
constexpr std::size_t nodes_ahead = 6;

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
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    request_neighbours(nodes, i + nodes_ahead);
    const Cell* c = nodes[i];
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
  // Each of eight links is shared by two nodes, and no node lies on more than two sides.
  const std::size_t most = 6 * nodes.size();
  Filling<std::int32_t> from(most), to(most);
  Filling<double> length(most), distance(most);
  const auto add = [&](const Cell* c, std::int32_t other, double l, double d) {
    from.add(c->used), to.add(other);
    length.add(l), distance.add(d);
  };
  CellFaces f;
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    request_neighbours(nodes, i + nodes_ahead);
    const Cell* c = nodes[i];
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
  return py::make_tuple(from.filled(), to.filled(), length.filled(), distance.filled());
}

/// Corners of all control cells, one after another, and where those of each begin.
py::tuple polygons() {
  const Busy busy("reading polygons");
  const auto& nodes = numbered_nodes();
  py::array_t<std::int64_t> offsets(static_cast<py::ssize_t>(nodes.size() + 1));
  std::int64_t* offset = offsets.mutable_data();
  Filling<double> coordinates(2 * max_cell_corners * nodes.size());
  std::array<Point, max_cell_corners> corners;
  std::int32_t n = 0;
  *offset = 0;
  for (const Cell* c : nodes) {
    cell_polygon(c, corners, n);
    for (std::int32_t i = 0; i < n; ++i) {
      const Point& corner = corners[static_cast<std::size_t>(i)];
      coordinates.add(corner.x);
      coordinates.add(corner.y);
    }
    offset[1] = offset[0] + n;
    ++offset;
  }
  return py::make_tuple(offsets, coordinates.filled().attr("reshape")(-1, 2));
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
