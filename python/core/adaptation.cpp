// Making and adapting the mesh with functions of Python.
#include <cmath>
#include <memory>

#include "python/core/bulk_values.hpp"
#include "python/core/core.hpp"

namespace velmar_2d::python {

namespace {

// ---------------------------------------------------------------------------------------------
// Sides
// ---------------------------------------------------------------------------------------------

/// A vectorised bc_type: values at places on each side, kept as numbers.
struct BulkKinds {
  std::vector<BulkValues> sides;

  explicit BulkKinds(const py::object& bc_type) {
    for (const std::string_view name : side_names) {
      sides.emplace_back([bc_type, name](std::span<const double> x, std::span<const double> y,
                                         std::span<double> kinds) {
        copy_kinds(bc_type(to_array(x), to_array(y), py::str(name.data(), name.size())), "bc_type",
                   kinds);
      });
    }
  }
  std::int32_t at(double x, double y, std::string_view name) {
    const auto side = std::find(side_names.begin(), side_names.end(), name) - side_names.begin();
    return static_cast<std::int32_t>(sides[static_cast<std::size_t>(side)].at(x, y));
  }
};

/// That of the present mesh, if it has one.
std::shared_ptr<BulkKinds> bulk_kinds;

/// All places of the first grid that lie on sides, computed as init_mesh() does.
void expect_first_grid(const std::array<double, 4>& rectangle, std::int32_t nx, std::int32_t ny) {
  const double west = rectangle[0], east = rectangle[1], south = rectangle[2], north = rectangle[3];
  const double dx = (east - west) / (nx - 1);
  double dy = (north - south) / (ny - 1);
  constexpr double square_tolerance = 2.220446049250313e-15;
  if (std::abs(dx - dy) > dx * square_tolerance) dy = dx;
  for (BulkValues& side : bulk_kinds->sides) side.clear(dx);
  const auto x_at = [&](std::int32_t i) { return i == nx ? west : east - (i - 1) * dx; };
  const auto y_at = [&](std::int32_t j) { return south + (j - 1) * dy; };
  for (std::int32_t i = 1; i <= nx; ++i) {
    bulk_kinds->sides[0].expect(x_at(i), y_at(ny));
    bulk_kinds->sides[2].expect(x_at(i), y_at(1));
  }
  for (std::int32_t j = 1; j <= ny; ++j) {
    bulk_kinds->sides[1].expect(x_at(1), y_at(j));
    bulk_kinds->sides[3].expect(x_at(nx), y_at(j));
  }
  for (BulkValues& side : bulk_kinds->sides) side.evaluate();
}

bc_type_function kinds_from(const py::object& bc_type, bool vectorised) {
  if (py::isinstance<py::tuple>(bc_type)) {
    return [kinds = bc_type.cast<std::array<std::int32_t, 4>>()](double, double,
                                                                 std::string_view name) {
      const auto side = std::find(side_names.begin(), side_names.end(), name) - side_names.begin();
      return kinds[static_cast<std::size_t>(side)];
    };
  }
  if (vectorised) {
    return [](double x, double y, std::string_view name) { return bulk_kinds->at(x, y, name); };
  }
  return [bc_type](double x, double y, std::string_view name) {
    double kind = 0.0;
    copy_kinds(bc_type(x, y, py::str(name.data(), name.size())), "bc_type", {&kind, 1});
    return static_cast<std::int32_t>(kind);
  };
}

void set_side_records(const std::array<double, 4>& rectangle) {
  const auto [west, east, south, north] = rectangle;
  const std::array<double, 4> coordinates = {north, east, south, west};
  constexpr std::array<std::array<Boundary**, 3>, 4> records = {
      {{&north_boundary_dir, &north_boundary_neu, &north_boundary_oth},
       {&east_boundary_dir, &east_boundary_neu, &east_boundary_oth},
       {&south_boundary_dir, &south_boundary_neu, &south_boundary_oth},
       {&west_boundary_dir, &west_boundary_neu, &west_boundary_oth}}};
  for (std::size_t side = 0; side < 4; ++side) {
    for (std::size_t kind = 0; kind < 3; ++kind) {
      side_records[side][kind] = {coordinates[side], static_cast<std::int32_t>(kind)};
      *records[side][kind] = &side_records[side][kind];
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Wanted spacings
// ---------------------------------------------------------------------------------------------

using Nodes = std::span<const Cell* const>;

/// The arrays that a vectorised size function gets. Their memory serves one batch after another, as
/// long as the function keeps none of them.
class SizeArguments {
 public:
  py::object call(const py::function& size, Nodes nodes) {
    const auto n = static_cast<py::ssize_t>(nodes.size());
    if (capacity_ < n || kept_by_others()) make_room(std::max(n, py::ssize_t{nb_nodes}));
    fill(nodes);
    const py::slice part(0, n, 1);
    return size(x_[part], y_[part], data_[part], grad_[part], grad2_[part]);
  }

 private:
  bool kept_by_others() const {
    const auto shared = [](const py::object& array) { return array.ref_count() > 1; };
    return shared(x_) || shared(y_) || shared(data_) || shared(grad_) || shared(grad2_);
  }

  void make_room(py::ssize_t capacity) {
    x_ = y_ = grad_ = grad2_ = data_ = py::array_t<double>();
    x_ = py::array_t<double>(capacity);
    y_ = py::array_t<double>(capacity);
    data_ = py::array_t<double>({capacity, static_cast<py::ssize_t>(n_cell_data)});
    grad_ = py::array_t<double>(capacity);
    grad2_ = py::array_t<double>(capacity);
    capacity_ = capacity;
  }

  // The records of a stretch lie in many places of the memory, which is asked for them in good
  // time.
  void fill(Nodes nodes) {
    constexpr std::size_t nodes_ahead = 16;
    double *out_x = x_.mutable_data(), *out_y = y_.mutable_data(), *out_data = data_.mutable_data(),
           *out_grad = grad_.mutable_data(), *out_grad2 = grad2_.mutable_data();
    const bool has_data = n_cell_data > 0;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      if (i + nodes_ahead < nodes.size()) {
        const Cell* soon = nodes[i + nodes_ahead];
        __builtin_prefetch(soon);
        if (has_data) __builtin_prefetch(&soon->grad_data);
      }
      const Cell& c = *nodes[i];
      *out_x++ = c.x;
      *out_y++ = c.y;
      if (!has_data) continue;
      out_data = std::copy(c.data.begin(), c.data.end(), out_data);
      *out_grad++ = c.grad_data;
      *out_grad2++ = c.grad2_data;
    }
    if (has_data) return;
    // Derivatives of no data are 0, and need not be fetched.
    std::fill_n(out_grad, nodes.size(), 0.0);
    std::fill_n(out_grad2, nodes.size(), 0.0);
  }

  py::ssize_t capacity_ = -1;
  py::array_t<double> x_, y_, data_, grad_, grad2_;
};

double ask_for_one(const py::function& size, double x, double y, std::span<const double> data,
                   double grad, double grad2) {
  double value = 0.0;
  copy_values(size(x, y, to_array(data), grad, grad2), "size", {&value, 1});
  return value;
}

// ---------------------------------------------------------------------------------------------
// Where a walk is about to insert
// ---------------------------------------------------------------------------------------------

/// Foresees insertions around the nodes of one stretch, for the vectorised functions that are asked
/// about new nodes.
class Forecast {
 public:
  explicit Forecast(BulkValues* init_data) : init_data_(init_data) {
    if (!has_readers()) return;
    for (std::int32_t level = 0; level < level_max; ++level) {
      spacings_.push_back(dist_0 * std::exp2(-0.5 * level));
    }
  }

  bool has_readers() const { return init_data_ != nullptr || bulk_kinds != nullptr; }

  void look_ahead(Nodes nodes, std::span<const double> sizes) {
    // Mostly nodes of the next two levels come: half as far from one another.
    const double unit = 0.25 * dist_0 * std::exp2(-0.5 * nodes.front()->ipos);
    if (init_data_ != nullptr) init_data_->clear(unit);
    if (bulk_kinds) {
      for (BulkValues& side : bulk_kinds->sides) side.clear(unit);
    }
    find_concerned(nodes, sizes);
    for (std::size_t i = 0; i < concerned_.size(); ++i) {
      if (const std::size_t ahead = i + 2 * nodes_ahead; ahead < concerned_.size()) {
        __builtin_prefetch(&concerned_[ahead].node->n);
      }
      if (const std::size_t ahead = i + nodes_ahead; ahead < concerned_.size()) {
        request_neighbours(*concerned_[ahead].node);
      }
      look_around(*concerned_[i].node, concerned_[i].size);
    }
    if (init_data_ != nullptr) init_data_->evaluate();
    if (bulk_kinds) {
      for (BulkValues& side : bulk_kinds->sides) side.evaluate();
    }
  }

 private:
  struct Concerned {
    const Cell* node;
    double size;
  };

  /// Those around which something may be inserted, told by their own first line of memory.
  void find_concerned(Nodes nodes, std::span<const double> sizes) {
    concerned_.clear();
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      if (i + 2 * nodes_ahead < nodes.size()) __builtin_prefetch(nodes[i + 2 * nodes_ahead]);
      const Cell& c = *nodes[i];
      if (c.level >= level_max) continue;
      if (too_coarse(c, sizes[i]) || c.reserve != 4 || may_complete_half_figure(c)) {
        concerned_.push_back({&c, sizes[i]});
      }
    }
  }

  /// Asks the memory for what look_around() will read.
  static void request_neighbours(const Cell& c) {
    for (const auto link : links) {
      if (const Cell* there = (c.*link).cell()) {
        __builtin_prefetch(there);
        __builtin_prefetch(&there->n);
      }
    }
  }
  static constexpr std::size_t nodes_ahead = 6;

  bool too_coarse(const Cell& c, double size) const {
    return c.level < level_max && size < spacings_[static_cast<std::size_t>(c.level)];
  }

  void look_around(const Cell& node, double size) {
    auto& c = const_cast<Cell&>(node);  // nothing here changes it
    const bool refined = too_coarse(c, size);
    std::array<Vertex, 4> proposals;
    std::int32_t n = 0;
    build_vertex(&c, proposals, n);
    for (std::int32_t i = 0; i < n; ++i) {
      const Vertex& v = proposals[static_cast<std::size_t>(i)];
      if (v.level > level_max || !(refined || completes_figure(v))) continue;
      expect(v.x, v.y);
    }
    if (!refined) return;
    // What is proposed once those are there: midpoints of links to nodes that are refined too.
    for (const auto link : links) {
      const Cell* there = (c.*link).cell();
      if (there == nullptr || !too_coarse(*there, size)) continue;
      expect((c.x + there->x) / 2.0, (c.y + there->y) / 2.0);
    }
  }

  /// Half figures lie at sides.
  static bool may_complete_half_figure(const Cell& c) {
    return c.x - x_min <= dist_0 || c.y - y_min <= dist_0 || east_boundary_dir->c - c.x <= dist_0 ||
           north_boundary_dir->c - c.y <= dist_0;
  }

  /// Figures that are completed also around nodes that are fine enough.
  static bool completes_figure(const Vertex& v) {
    return v.p4 == nullptr ||
           (v.p1->reserve != 4 && v.p2->reserve != 4 && v.p3->reserve != 4 && v.p4->reserve != 4);
  }

  void expect(double x, double y) {
    if (init_data_ != nullptr) init_data_->expect(x, y);
    if (!bulk_kinds) return;
    // One place more than is asked for does no harm, so rounding may be met with plenty of room.
    const auto near = [](double a, double b) { return std::abs(a - b) < 1e-6 * dist_0; };
    const std::array<bool, 4> on_side = {
        near(y, north_boundary_dir->c), near(x, east_boundary_dir->c),
        near(y, south_boundary_dir->c), near(x, west_boundary_dir->c)};
    for (std::size_t side = 0; side < 4; ++side) {
      if (on_side[side]) bulk_kinds->sides[side].expect(x, y);
    }
  }

  BulkValues* init_data_;
  std::vector<double> spacings_;  // of the levels
  std::vector<Concerned> concerned_;
};

/// The functions of one update are let go at its end, however it ends.
struct ForgetCallables {
  ForgetCallables() = default;
  ForgetCallables(const ForgetCallables&) = delete;
  ForgetCallables& operator=(const ForgetCallables&) = delete;
  ~ForgetCallables() {
    init_data_ptr = nullptr;
    data_interpolation = true;
  }
};

/// A batch is in the order of a walk upwards, from the first node of a stretch on, or downwards.
bool is_refinement(Nodes nodes) {
  return nodes.front() == level_beg[static_cast<std::size_t>(nodes.front()->ipos)].next;
}

}  // namespace

void make_mesh(const std::array<double, 4>& rectangle, std::int32_t nx, std::int32_t ny,
               std::int32_t subdiv_max, std::int32_t nb_values, const py::object& bc_type,
               bool vectorised) {
  const Busy busy("making a mesh");
  const bool in_bulk = vectorised && !py::isinstance<py::tuple>(bc_type);
  if (nb_nodes == 0) {  // otherwise init_mesh() refuses
    set_side_records(rectangle);
    n_cell_data = nb_values;
    bulk_kinds = in_bulk ? std::make_shared<BulkKinds>(bc_type) : nullptr;
    if (in_bulk && nx > 1 && ny > 1) expect_first_grid(rectangle, nx, ny);
  }
  double y_max = 0.0;
  init_mesh(kinds_from(bc_type, vectorised), nx, ny, subdiv_max, y_max);
}

void delete_mesh_and_callables() {
  const Busy busy("delete");
  forget_numbers();
  bc_type_ptr = nullptr;
  bulk_kinds = nullptr;
  if (!level_beg.empty()) delete_mesh();
}

void update(const py::function& size, const py::object& init_data, bool vectorised,
            bool init_vectorised) {
  const Busy busy("update");
  require_mesh();
  const ForgetCallables at_end;
  const bool interpolates = init_data.is_none();

  std::shared_ptr<BulkValues> values;
  init_data_function value_at;
  if (!interpolates && init_vectorised) {
    values = std::make_shared<BulkValues>(
        [&](std::span<const double> x, std::span<const double> y, std::span<double> out) {
          copy_values(init_data(to_array(x), to_array(y)), "init_data", out);
        });
    value_at = [values](double x, double y) { return values->at(x, y); };
  } else if (!interpolates) {
    value_at = [&](double x, double y) {
      double value = 0.0;
      copy_values(init_data(x, y), "init_data", {&value, 1});
      return value;
    };
  }

  Forecast forecast(values.get());
  if (!vectorised && !forecast.has_readers()) {
    const size_function one = [&](double x, double y, std::span<const double> data, double grad,
                                  double grad2) {
      return ask_for_one(size, x, y, data, grad, grad2);
    };
    interpolates ? update_mesh_no_init(one) : update_mesh_init(one, value_at);
    return;
  }
  SizeArguments arguments;
  const batch_size_function all = [&](Nodes nodes, std::span<double> sizes) {
    if (vectorised) {
      copy_values(arguments.call(size, nodes), "size", sizes);
    } else {
      for (std::size_t i = 0; i < nodes.size(); ++i) {
        const Cell& c = *nodes[i];
        sizes[i] =
            ask_for_one(size, c.x, c.y, {c.data.data(), c.data.size()}, c.grad_data, c.grad2_data);
      }
    }
    if (forecast.has_readers() && is_refinement(nodes)) forecast.look_ahead(nodes, sizes);
  };
  interpolates ? update_mesh_no_init_batched(all) : update_mesh_init_batched(all, value_at);
}

}  // namespace velmar_2d::python
