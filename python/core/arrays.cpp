// The mesh as numpy arrays: node i is the i-th of the node list. What MeshArrays holds is shown as
// it lies there; numpy keeps it alive.
#include "python/core/core.hpp"
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

/// A view of arrays of a mesh.
template <typename T>
py::array view(const std::shared_ptr<MeshArrays>& owner, const T* first,
               std::vector<py::ssize_t> shape, std::vector<py::ssize_t> strides) {
  const py::capsule keeper(new std::shared_ptr<MeshArrays>(owner), [](void* kept) {
    delete static_cast<std::shared_ptr<MeshArrays>*>(kept);
  });
  return py::array(py::dtype::of<T>(), std::move(shape), std::move(strides), first, keeper);
}

/// A view of the array that a member of MeshArrays gives.
template <typename Of>
auto array_of(Of of) {
  return [of](CoreMesh& core) {
    const Busy busy(core, "reading nodes");
    const std::shared_ptr<MeshArrays>& arrays = core.arrays();
    const auto values = (*arrays.*of)();
    const auto bytes = static_cast<py::ssize_t>(sizeof(values[0]));
    return view(arrays, values.data(), {static_cast<py::ssize_t>(values.size())}, {bytes});
  };
}

template <typename T, typename ValueOf>
py::array_t<T> per_node(CoreMesh& core, ValueOf value_of) {
  const Busy busy(core, "reading nodes");
  const auto nodes = core.arrays()->nodes();
  py::array_t<T> array(static_cast<py::ssize_t>(nodes.size()));
  T* out = array.mutable_data();
  for (const Cell* c : nodes) *out++ = value_of(*c);
  return array;
}

py::array positions(CoreMesh& core) {
  const Busy busy(core, "reading nodes");
  const std::shared_ptr<MeshArrays>& arrays = core.arrays();
  const auto n = static_cast<py::ssize_t>(arrays->size());
  constexpr py::ssize_t bytes = sizeof(double);
  return view(arrays, arrays->positions().data(), {n, 2}, {bytes, n * bytes});
}

py::array link_table(CoreMesh& core) {
  const Busy busy(core, "reading links");
  const std::shared_ptr<MeshArrays>& arrays = core.arrays();
  constexpr py::ssize_t bytes = sizeof(std::int32_t);
  return view(arrays, arrays->links().data(), {static_cast<py::ssize_t>(arrays->size()), 8},
              {8 * bytes, bytes});
}

py::array_t<bool> known(CoreMesh& core) {
  const Busy busy(core, "reading nodes");
  const auto values = core.arrays()->known();
  py::array_t<bool> array(static_cast<py::ssize_t>(values.size()));
  std::copy(values.begin(), values.end(), array.mutable_data());
  return array;
}

Columns data(CoreMesh& core) {
  const Busy busy(core, "reading data");
  const std::shared_ptr<MeshArrays>& arrays = core.arrays();
  const auto n = static_cast<std::size_t>(arrays->size());
  const std::int32_t nb_values = core.mesh->n_cell_data();
  Columns array({static_cast<py::ssize_t>(n), static_cast<py::ssize_t>(nb_values)});
  for (std::int32_t k = 0; k < nb_values; ++k) {
    arrays->pull(k, {array.mutable_data() + static_cast<std::size_t>(k) * n, n});
  }
  return array;
}

void check_revision(const Mesh& mesh, std::uint64_t revision) {
  if (revision == mesh.revision()) return;
  throw Error("velmar_2d: these values belong to revision " + std::to_string(revision) +
              " of the mesh, which is now at revision " + std::to_string(mesh.revision()) +
              ": its nodes are others");
}

/// Columns `first` and on of the data.
void write_data(CoreMesh& core, const Columns& values, std::size_t first, std::uint64_t revision) {
  const Changing changing(core, "writing data");
  check_revision(*core.mesh, revision);
  const std::shared_ptr<MeshArrays>& arrays = core.arrays();
  const auto n = static_cast<std::size_t>(arrays->size());
  for (std::size_t k = 0; k < static_cast<std::size_t>(values.shape(1)); ++k) {
    arrays->push(static_cast<std::int32_t>(first + k), {values.data() + k * n, n});
  }
}

py::tuple gradient(CoreMesh& core) {
  const Changing changing(core, "computing derivatives");
  const auto nodes = core.arrays()->nodes();
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
  const MeshArrays& arrays = *core.arrays();
  // Each of eight links is shared by two nodes, and no node lies on more than two sides.
  const std::size_t most = 6 * static_cast<std::size_t>(arrays.size());
  Filling<std::int32_t> from(most), to(most);
  Filling<double> length(most), distance(most);
  const auto add = [&](std::int32_t i, std::int32_t other, double l, double d) {
    from.add(i), to.add(other);
    length.add(l), distance.add(d);
  };
  for (std::int32_t i = 0; i < arrays.size(); ++i) {
    const auto links = arrays.links(i);
    const CellFaces f = arrays.faces(i);
    for (std::size_t d = 0; d < 8; ++d) {
      if (links[d] > i && f.length[d] > 0.0) add(i, links[d], f.length[d], f.distance[d]);
    }
    for (std::size_t side = 0; side < 4; ++side) {
      const std::int32_t code = links[2 * side];
      if (is_side(code) && f.side[side] > 0.0) add(i, code, f.side[side], 0.0);
    }
  }
  return py::make_tuple(from.filled(), to.filled(), length.filled(), distance.filled());
}

/// Corners of all control cells, one after another, and where those of each begin.
py::tuple polygons(CoreMesh& core) {
  const Busy busy(core, "reading polygons");
  const auto nodes = core.arrays()->nodes();
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
  const MeshArrays& arrays = *core.arrays();
  py::list list;
  const auto index = [&arrays](const Cell* c) {
    return c == nullptr ? py::object(py::none()) : py::object(py::int_(arrays.number(*c)));
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
  mesh.def("levels", array_of(&MeshArrays::levels));
  mesh.def("ipos", [](CoreMesh& core) {
    return per_node<I32>(core, [](const Cell& c) { return c.ipos; });
  });
  mesh.def("on_boundary", [](CoreMesh& core) {
    return per_node<I32>(core, [](const Cell& c) { return c.on_boundary; });
  });
  mesh.def("known", known);
  mesh.def("grad", [](CoreMesh& core) {
    return per_node<double>(core, [](const Cell& c) { return c.grad_data; });
  });
  mesh.def("grad2", [](CoreMesh& core) {
    return per_node<double>(core, [](const Cell& c) { return c.grad2_data; });
  });
  mesh.def("areas", array_of(&MeshArrays::areas));
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
