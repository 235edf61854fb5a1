// Making and adapting the mesh with functions of Python.
#include <cmath>
#include <memory>
#include <optional>

#include "python/core/batched_hooks.hpp"
#include "python/core/bulk_values.hpp"
#include "python/core/core.hpp"
#include "python/core/forecast.hpp"
#include "python/core/prefetch.hpp"
#include "python/core/progress.hpp"

namespace velmar_2d::python {

namespace {

// ---------------------------------------------------------------------------------------------
// Sides
// ---------------------------------------------------------------------------------------------

std::size_t number_of_side(std::string_view name) {
  const auto found = std::find(side_names.begin(), side_names.end(), name);
  return static_cast<std::size_t>(found - side_names.begin());
}

py::str text(std::string_view characters) { return {characters.data(), characters.size()}; }

/// A vectorised bc_type: values at places on each side, kept as numbers.
struct BulkKinds {
  std::vector<BulkValues> sides;

  explicit BulkKinds(const py::object& bc_type) {
    for (const std::string_view name : side_names) {
      sides.emplace_back([&bc_type, name](std::span<const double> x, std::span<const double> y,
                                          std::span<double> kinds) {
        const py::gil_scoped_acquire python;
        copy_kinds(bc_type(to_array(x), to_array(y), text(name)), "bc_type", kinds);
      });
    }
  }
  std::int32_t at(double x, double y, std::string_view name) {
    return static_cast<std::int32_t>(sides[number_of_side(name)].at(x, y));
  }
  void clear(double unit) {
    for (BulkValues& side : sides) side.clear(unit);
  }
  void evaluate() {
    for (BulkValues& side : sides) side.evaluate();
  }
};

/// All places of the first grid that lie on sides, computed as the mesh does.
void expect_first_grid(BulkKinds& kinds, const Rectangle& r, std::int32_t nx, std::int32_t ny) {
  const double dx = (r.x_max - r.x_min) / (nx - 1);
  if (ny == 0) ny = static_cast<std::int32_t>(std::lround((r.y_max - r.y_min) / dx)) + 1;
  double dy = (r.y_max - r.y_min) / (ny - 1);
  constexpr double square_tolerance = 2.220446049250313e-15;
  if (std::abs(dx - dy) > dx * square_tolerance) dy = dx;
  kinds.clear(dx);
  const auto x_at = [&](std::int32_t i) { return i == nx ? r.x_min : r.x_max - (i - 1) * dx; };
  const auto y_at = [&](std::int32_t j) { return r.y_min + (j - 1) * dy; };
  for (std::int32_t i = 1; i <= nx; ++i) {
    kinds.sides[0].expect(x_at(i), y_at(ny));
    kinds.sides[2].expect(x_at(i), y_at(1));
  }
  for (std::int32_t j = 1; j <= ny; ++j) {
    kinds.sides[1].expect(x_at(1), y_at(j));
    kinds.sides[3].expect(x_at(nx), y_at(j));
  }
  kinds.evaluate();
}

/// While this lasts the mesh can ask for the kinds of its sides, where they are a function.
class KindsAtHand {
 public:
  KindsAtHand(CoreMesh& core, const py::object& kinds, bool vectorised) : core_(core) {
    if (py::isinstance<py::tuple>(kinds)) return;
    if (vectorised) {
      bulk_ = std::make_unique<BulkKinds>(kinds);
      core.kind_at = [this](double x, double y, std::string_view name) {
        return bulk_->at(x, y, name);
      };
      return;
    }
    core.kind_at = [&kinds](double x, double y, std::string_view name) {
      const py::gil_scoped_acquire python;
      double kind = 0.0;
      copy_kinds(kinds(x, y, text(name)), "bc_type", {&kind, 1});
      return static_cast<std::int32_t>(kind);
    };
  }
  ~KindsAtHand() { core_.kind_at = nullptr; }
  KindsAtHand(const KindsAtHand&) = delete;
  KindsAtHand& operator=(const KindsAtHand&) = delete;

  BulkKinds* bulk() const { return bulk_.get(); }
  std::span<BulkValues> bulk_sides() const {
    return bulk_ == nullptr ? std::span<BulkValues>() : std::span(bulk_->sides);
  }
  /// Whether Python is called for one place after the other.
  bool one_by_one() const { return core_.kind_at && bulk_ == nullptr; }

 private:
  CoreMesh& core_;
  std::unique_ptr<BulkKinds> bulk_;
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

// ---------------------------------------------------------------------------------------------
// Wanted spacings
// ---------------------------------------------------------------------------------------------

/// The arrays that a vectorised size function gets. Their memory serves one batch after another, as
/// long as the function keeps none of them.
class SizeArguments {
 public:
  py::object call(const py::function& size, Nodes nodes, const Mesh& mesh) {
    const auto n = static_cast<py::ssize_t>(nodes.size());
    if (capacity_ < n || kept_by_others()) {
      make_room(std::max(n, static_cast<py::ssize_t>(mesh.size())), mesh.n_cell_data());
    }
    {
      const py::gil_scoped_release others_may_run;
      fill(nodes, mesh.n_cell_data() > 0);
    }
    const py::slice part(0, n, 1);
    return size(x_[part], y_[part], data_[part], grad_[part], grad2_[part]);
  }

 private:
  bool kept_by_others() const {
    const auto shared = [](const py::object& array) { return array.ref_count() > 1; };
    return shared(x_) || shared(y_) || shared(data_) || shared(grad_) || shared(grad2_);
  }

  void make_room(py::ssize_t capacity, py::ssize_t n_cell_data) {
    x_ = y_ = grad_ = grad2_ = data_ = py::array_t<double>();
    x_ = py::array_t<double>(capacity);
    y_ = py::array_t<double>(capacity);
    data_ = py::array_t<double>({capacity, n_cell_data});
    grad_ = py::array_t<double>(capacity);
    grad2_ = py::array_t<double>(capacity);
    capacity_ = capacity;
  }

  // The records of a stretch lie in many places of the memory, which is asked for them in good
  // time.
  void fill(Nodes nodes, bool has_data) {
    constexpr std::size_t nodes_ahead = 16, nodes_between_signals = std::size_t{1} << 18;
    double *out_x = x_.mutable_data(), *out_y = y_.mutable_data(), *out_data = data_.mutable_data(),
           *out_grad = grad_.mutable_data(), *out_grad2 = grad2_.mutable_data();
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      if ((i + 1) % nodes_between_signals == 0) heed_signals();
      if (i + nodes_ahead < nodes.size()) {
        const Cell* soon = nodes[i + nodes_ahead];
        prefetch(soon);
        if (has_data) prefetch(&soon->grad_data);
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
// Adapting
// ---------------------------------------------------------------------------------------------

/// A batch is in the order of a walk upwards, from the first node of a stretch on, or downwards.
bool is_refinement(const Mesh& mesh, Nodes nodes) {
  return nodes.front() == &*mesh.nodes(nodes.front()->ipos).begin();
}

/// update(), and with a resolution resolve().
void adapt(CoreMesh& core, const py::function& size, const py::object& init_data, bool vectorised,
           bool init_vectorised, const py::tuple& hooks, const py::object& progress,
           const py::object& kinds, bool kinds_vectorised,
           const std::optional<Resolution>& resolution) {
  const Changing changing(core, resolution ? "resolve" : "update");
  const KindsAtHand kinds_at_hand(core, kinds, kinds_vectorised);
  Mesh& mesh = *core.mesh;
  const bool interpolates = init_data.is_none();

  std::unique_ptr<BulkValues> values;
  init_data_function value_at;
  if (!interpolates && init_vectorised) {
    values = std::make_unique<BulkValues>(
        [&](std::span<const double> x, std::span<const double> y, std::span<double> out) {
          const py::gil_scoped_acquire python;
          copy_values(init_data(to_array(x), to_array(y)), "init_data", out);
        });
    value_at = [&](double x, double y) { return values->at(x, y); };
  } else if (!interpolates) {
    value_at = [&](double x, double y) {
      const py::gil_scoped_acquire python;
      double value = 0.0;
      copy_values(init_data(x, y), "init_data", {&value, 1});
      return value;
    };
  }

  const ProgressAtHand progress_at_hand(mesh, progress);
  BatchedHooks batched_hooks(mesh, hooks[0], hooks[1]);
  Forecast forecast(mesh, values.get(), kinds_at_hand.bulk_sides());
  if (!vectorised && !forecast.has_readers() && !batched_hooks.are_there()) {
    const size_function one = [&](double x, double y, std::span<const double> data, double grad,
                                  double grad2) {
      return ask_for_one(size, x, y, data, grad, grad2);
    };
    if (resolution) {
      interpolates ? mesh.resolve(one, *resolution) : mesh.resolve(one, value_at, *resolution);
    } else {
      interpolates ? mesh.update(one) : mesh.update(one, value_at);
    }
    return;
  }
  SizeArguments arguments;
  const batch_size_function all = [&](Nodes nodes, std::span<double> sizes) {
    batched_hooks.flush();
    if (vectorised) {
      const py::gil_scoped_acquire python;
      copy_values(arguments.call(size, nodes, mesh), "size", sizes);
    } else {
      for (std::size_t i = 0; i < nodes.size(); ++i) {
        const Cell& c = *nodes[i];
        sizes[i] =
            ask_for_one(size, c.x, c.y, {c.data.data(), c.data.size()}, c.grad_data, c.grad2_data);
      }
    }
    if (!forecast.has_readers()) return;
    if (resolution) {
      forecast.look_ahead_for_rings(nodes, sizes);
    } else if (is_refinement(mesh, nodes)) {
      forecast.look_ahead(nodes, sizes);
    }
  };
  const bool values_one_by_one = !interpolates && values == nullptr;
  const LetOthersRun others(!vectorised || values_one_by_one || kinds_at_hand.one_by_one());
  if (resolution) {
    forecast.expect_holes();
    interpolates ? mesh.resolve_batched(all, *resolution)
                 : mesh.resolve_batched(all, value_at, *resolution);
  } else {
    interpolates ? mesh.update_batched(all) : mesh.update_batched(all, value_at);
  }
  batched_hooks.flush();
}

}  // namespace

std::unique_ptr<CoreMesh> make_mesh(const std::array<double, 4>& rectangle, std::int32_t nx,
                                    std::int32_t ny, std::int32_t subdiv_max,
                                    std::int32_t n_cell_data, const py::object& kinds,
                                    bool kinds_vectorised) {
  const auto [west, east, south, north] = rectangle;
  const Rectangle domain = {west, east, south, north};
  Grid grid;
  grid.nx = nx;
  grid.ny = ny;
  grid.subdiv_max = subdiv_max;
  grid.n_cell_data = n_cell_data;

  auto core = std::make_unique<CoreMesh>();
  const KindsAtHand kinds_at_hand(*core, kinds, kinds_vectorised);
  if (py::isinstance<py::tuple>(kinds)) {
    const auto [n, e, s, w] = kinds.cast<std::array<std::int32_t, 4>>();
    grid.bc_type = kind_by_side(n, e, s, w);
  } else {
    if (BulkKinds* const bulk = kinds_at_hand.bulk()) {
      // The first question comes when the library has found rectangle and grid in order.
      core->kind_at = [=, foreseen = false](double x, double y, std::string_view name) mutable {
        if (!foreseen) expect_first_grid(*bulk, domain, nx, ny);
        foreseen = true;
        return bulk->at(x, y, name);
      };
    }
    grid.bc_type = [owner = core.get()](double x, double y, std::string_view name) {
      return owner->kind_at(x, y, name);
    };
  }
  {
    const LetOthersRun others(kinds_at_hand.one_by_one());
    core->mesh = std::make_unique<Mesh>(domain, grid);
  }
  core->mesh->set_message_handler(log);
  if (subdiv_max == 0) log("velmar_2d: Warning: subdiv_max is 0, the mesh cannot be refined");
  return core;
}

void set_subdiv_max(CoreMesh& core, std::int32_t limit, const py::object& kinds,
                    bool kinds_vectorised) {
  const Changing changing(core, "subdiv_max");
  const KindsAtHand kinds_at_hand(core, kinds, kinds_vectorised);
  const ProgressAtHand progress_at_hand(*core.mesh, py::none());
  const LetOthersRun others(kinds_at_hand.one_by_one());
  core.mesh->set_limit(limit);
}

void update(CoreMesh& core, const py::function& size, const py::object& init_data, bool vectorised,
            bool init_vectorised, const py::tuple& hooks, const py::object& progress,
            const py::object& kinds, bool kinds_vectorised) {
  adapt(core, size, init_data, vectorised, init_vectorised, hooks, progress, kinds,
        kinds_vectorised, {});
}

void resolve(CoreMesh& core, const py::function& size, const py::object& init_data, double margin,
             std::int64_t most_nodes, double slope, bool vectorised, bool init_vectorised,
             const py::tuple& hooks, const py::object& progress, const py::object& kinds,
             bool kinds_vectorised) {
  adapt(core, size, init_data, vectorised, init_vectorised, hooks, progress, kinds,
        kinds_vectorised, Resolution{margin, most_nodes, slope});
}

}  // namespace velmar_2d::python
