// The mesh as numpy arrays: node i is the i-th of the node list.
#include "python/core/core.hpp"
#include "python/core/prefetch.hpp"
#include "python/core/progress.hpp"

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

/// Prefetches what a walk reads of the neighbours of a node that comes soon.
void request_neighbours(const std::vector<Cell*>& nodes, std::size_t soon) {
  if (soon >= nodes.size()) return;
  for (const auto member : links) {
    if (const Cell* there = (nodes[soon]->*member).cell()) prefetch(&there->used);
  }
}
constexpr std::size_t nodes_ahead = 6;

template <typename T, typename ValueOf>
py::array_t<T> per_node(CoreMesh& core, ValueOf value_of) {
  const Busy busy(core, "reading nodes");
  const auto& nodes = core.numbered_nodes();
  py::array_t<T> array(static_cast<py::ssize_t>(nodes.size()));
  T* out = array.mutable_data();
  for (Cell* c : nodes) *out++ = value_of(*c);
  return array;
}

py::array_t<double> positions(CoreMesh& core) {
  const Busy busy(core, "reading nodes");
  const auto& nodes = core.numbered_nodes();
  auto array = table<double>(nodes.size(), 2);
  double* out = array.mutable_data();
  for (const Cell* c : nodes) {
    *out++ = c->x;
    *out++ = c->y;
  }
  return array;
}

py::array_t<std::int32_t> link_table(CoreMesh& core) {
  const Busy busy(core, "reading links");
  const auto& nodes = core.numbered_nodes();
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
                                : core.code_of(link.boundary());
    }
  }
  return array;
}

py::array_t<double> data(CoreMesh& core) {
  const Busy busy(core, "reading data");
  const auto& nodes = core.numbered_nodes();
  const auto nb_values = static_cast<std::size_t>(core.mesh->n_cell_data());
  auto array = table<double>(nodes.size(), nb_values);
  double* out = array.mutable_data();
  for (const Cell* c : nodes) out = std::copy(c->data.begin(), c->data.end(), out);
  return array;
}

void check_revision(const Mesh& mesh, std::uint64_t revision) {
  if (revision == mesh.revision()) return;
  throw Error("velmar_2d: these values belong to revision " + std::to_string(revision) +
              " of the mesh, which is now at revision " + std::to_string(mesh.revision()) +
              ": its nodes are others");
}

/// Columns `first` and on of the data.
void write_data(CoreMesh& core, const Doubles& values, std::size_t first, std::uint64_t revision) {
  const Changing changing(core, "writing data");
  const auto& nodes = core.numbered_nodes();
  check_revision(*core.mesh, revision);
  const auto columns = static_cast<std::size_t>(values.shape(1));
  const double* in = values.data();
  for (Cell* c : nodes) {
    std::copy_n(in, columns, c->data.begin() + first);
    in += columns;
  }
}

py::tuple gradient(CoreMesh& core) {
  const Changing changing(core, "computing derivatives");
  const auto& nodes = core.numbered_nodes();
  const auto n = static_cast<py::ssize_t>(nodes.size());
  py::array_t<double> dx(n), dy(n);
  double *out_x = dx.mutable_data(), *out_y = dy.mutable_data();
  std::size_t done = 0;
  for (Cell* c : nodes) {
    constexpr std::size_t between_signals = std::size_t{1} << 16;
    if (++done % between_signals == 0) heed_signals();
    const Gradient gradient = core.mesh->compute_derivatives(*c);
    *out_x++ = gradient.dfdx;
    *out_y++ = gradient.dfdy;
  }
  return py::make_tuple(dx, dy);
}

/// Node, neighbour or side, length and distance of every face; a face between two nodes once.
py::tuple faces(CoreMesh& core) {
  const Busy busy(core, "reading faces");
  const auto& nodes = core.numbered_nodes();
  // Each of eight links is shared by two nodes, and no node lies on more than two sides.
  const std::size_t most = 6 * nodes.size();
  Filling<std::int32_t> from(most), to(most);
  Filling<double> length(most), distance(most);
  const auto add = [&](const Cell* c, std::int32_t other, double l, double d) {
    from.add(c->used), to.add(other);
    length.add(l), distance.add(d);
  };
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    request_neighbours(nodes, i + nodes_ahead);
    const Cell* c = nodes[i];
    const CellFaces f = core.mesh->faces(*c);
    for (std::size_t d = 0; d < 8; ++d) {
      const Cell* there = f.neighbour[d];
      if (there != nullptr && f.length[d] > 0.0 && there->used > c->used) {
        add(c, there->used, f.length[d], f.distance[d]);
      }
    }
    if (c->on_boundary == 0) continue;
    for (std::size_t side = 0; side < 4; ++side) {
      const Boundary* record = (c->*links[2 * side]).boundary();
      if (record != nullptr && f.side[side] > 0.0) add(c, core.code_of(record), f.side[side], 0.0);
    }
  }
  return py::make_tuple(from.filled(), to.filled(), length.filled(), distance.filled());
}

/// Corners of all control cells, one after another, and where those of each begin.
py::tuple polygons(CoreMesh& core) {
  const Busy busy(core, "reading polygons");
  const auto& nodes = core.numbered_nodes();
  py::array_t<std::int64_t> offsets(static_cast<py::ssize_t>(nodes.size() + 1));
  std::int64_t* offset = offsets.mutable_data();
  Filling<double> coordinates(2 * max_cell_corners * nodes.size());
  *offset = 0;
  for (const Cell* c : nodes) {
    const CellPolygon polygon = core.mesh->polygon(*c);
    for (const Point& corner : polygon) {
      coordinates.add(corner.x);
      coordinates.add(corner.y);
    }
    offset[1] = offset[0] + polygon.n;
    ++offset;
  }
  return py::make_tuple(offsets, coordinates.filled().attr("reshape")(-1, 2));
}

py::list findings(CoreMesh& core) {
  const Busy busy(core, "check");
  core.numbered_nodes();
  py::list list;
  const auto index = [](const Cell* c) {
    return c == nullptr ? py::object(py::none()) : py::object(py::int_(c->used));
  };
  for (const Finding& f : core.mesh->check()) {
    list.append(py::make_tuple(py::str(f.rule.data(), f.rule.size()),
                               py::str(f.text.data(), f.text.size()), index(f.node)));
  }
  return list;
}

py::array_t<std::int32_t> triangles(CoreMesh& core) {
  const Busy busy(core, "reading triangles");
  const Triangulation found = core.mesh->triangulation();
  auto array = table<std::int32_t>(found.triangles.size(), 3);
  std::int32_t* out = array.mutable_data();
  for (const auto& triangle : found.triangles) out = std::copy_n(triangle.begin(), 3, out);
  return array;
}

}  // namespace

void define_arrays(py::class_<CoreMesh>& mesh) {
  using I32 = std::int32_t;
  mesh.def("positions", positions);
  mesh.def("ids", [](CoreMesh& core) {
    return per_node<std::int64_t>(core, [](const Cell& c) { return c.id; });
  });
  mesh.def("levels", [](CoreMesh& core) {
    return per_node<I32>(core, [](const Cell& c) { return c.level; });
  });
  mesh.def("ipos", [](CoreMesh& core) {
    return per_node<I32>(core, [](const Cell& c) { return c.ipos; });
  });
  mesh.def("on_boundary", [](CoreMesh& core) {
    return per_node<I32>(core, [](const Cell& c) { return c.on_boundary; });
  });
  mesh.def("known", [](CoreMesh& core) {
    return per_node<bool>(core, [](const Cell& c) { return known_value(c); });
  });
  mesh.def("grad", [](CoreMesh& core) {
    return per_node<double>(core, [](const Cell& c) { return c.grad_data; });
  });
  mesh.def("grad2", [](CoreMesh& core) {
    return per_node<double>(core, [](const Cell& c) { return c.grad2_data; });
  });
  mesh.def("areas", [](CoreMesh& core) {
    return per_node<double>(core, [&core](Cell& c) { return core.mesh->area(c); });
  });
  mesh.def("links", link_table);
  mesh.def("data", data);
  mesh.def("write_data", write_data, py::arg("values"), py::arg("first"), py::arg("revision"));
  mesh.def("gradient", gradient);
  mesh.def("faces", faces);
  mesh.def("polygons", polygons);
  mesh.def("findings", findings);
  mesh.def("triangles", triangles);
}

}  // namespace velmar_2d::python
