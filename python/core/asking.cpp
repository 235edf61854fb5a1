#include "python/core/asking.hpp"

#include <algorithm>
#include <cmath>

#include "python/core/forecast.hpp"
#include "python/core/prefetch.hpp"
#include "python/core/progress.hpp"

namespace velmar_2d::python {

// ---------------------------------------------------------------------------------------------
// Sides
// ---------------------------------------------------------------------------------------------

namespace {

std::size_t number_of_side(std::string_view name) {
  const auto found = std::find(side_names.begin(), side_names.end(), name);
  return static_cast<std::size_t>(found - side_names.begin());
}

py::str text(std::string_view characters) { return {characters.data(), characters.size()}; }

/// All places of the first grid that lie on sides, computed as the mesh does.
void expect_first_grid(std::span<BulkValues> sides, const Rectangle& r, std::int32_t nx,
                       std::int32_t ny) {
  const double dx = (r.x_max - r.x_min) / (nx - 1);
  if (ny == 0) ny = static_cast<std::int32_t>(std::lround((r.y_max - r.y_min) / dx)) + 1;
  double dy = (r.y_max - r.y_min) / (ny - 1);
  constexpr double square_tolerance = 2.220446049250313e-15;
  if (std::abs(dx - dy) > dx * square_tolerance) dy = dx;
  for (BulkValues& side : sides) side.clear(dx);
  const auto x_at = [&](std::int32_t i) { return i == nx ? r.x_min : r.x_max - (i - 1) * dx; };
  const auto y_at = [&](std::int32_t j) { return r.y_min + (j - 1) * dy; };
  for (std::int32_t i = 1; i <= nx; ++i) {
    sides[0].expect(x_at(i), y_at(ny));
    sides[2].expect(x_at(i), y_at(1));
  }
  for (std::int32_t j = 1; j <= ny; ++j) {
    sides[1].expect(x_at(1), y_at(j));
    sides[3].expect(x_at(nx), y_at(j));
  }
  for (BulkValues& side : sides) side.evaluate();
}

}  // namespace

bc_type_function kinds_of_mesh(const bc_type_function& kind_at, const py::object& kinds) {
  if (py::isinstance<py::tuple>(kinds)) {
    const auto [n, e, s, w] = kinds.cast<std::array<std::int32_t, 4>>();
    return kind_by_side(n, e, s, w);
  }
  return [&kind_at](double x, double y, std::string_view name) { return kind_at(x, y, name); };
}

KindsAtHand::KindsAtHand(bc_type_function& kind_at, const py::object& kinds, bool vectorised)
    : kind_at_(kind_at) {
  if (py::isinstance<py::tuple>(kinds)) return;
  if (!vectorised) {
    kind_at_ = [&kinds](double x, double y, std::string_view name) {
      const py::gil_scoped_acquire python;
      double kind = 0.0;
      copy_kinds(kinds(x, y, text(name)), "bc_type", {&kind, 1});
      return static_cast<std::int32_t>(kind);
    };
    return;
  }
  for (const std::string_view name : side_names) {
    sides_.emplace_back(
        [&kinds, name](std::span<const double> x, std::span<const double> y, std::span<double> of) {
          const py::gil_scoped_acquire python;
          copy_kinds(kinds(to_array(x), to_array(y), text(name)), "bc_type", of);
        });
  }
  kind_at_ = [this](double x, double y, std::string_view name) {
    return static_cast<std::int32_t>(sides_[number_of_side(name)].at(x, y));
  };
}

void KindsAtHand::foresee_grid(const Rectangle& rectangle, std::int32_t nx, std::int32_t ny) {
  if (sides_.empty()) return;
  kind_at_ = [=, this, foreseen = false](double x, double y, std::string_view name) mutable {
    if (!foreseen) expect_first_grid(sides_, rectangle, nx, ny);
    foreseen = true;
    return static_cast<std::int32_t>(sides_[number_of_side(name)].at(x, y));
  };
}

void KindsAtHand::expect_apart(double unit) {
  for (BulkValues& side : sides_) side.clear(unit);
}

// ---------------------------------------------------------------------------------------------
// Sizes and values
// ---------------------------------------------------------------------------------------------

py::object SizeArguments::call(const py::function& size, Nodes nodes, const Mesh& mesh) {
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

bool SizeArguments::kept_by_others() const {
  const auto shared = [](const py::object& array) { return array.ref_count() > 1; };
  return shared(x_) || shared(y_) || shared(data_) || shared(grad_) || shared(grad2_);
}

void SizeArguments::make_room(py::ssize_t capacity, py::ssize_t n_cell_data) {
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
void SizeArguments::fill(Nodes nodes, bool has_data) {
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

namespace {

/// A batch is in the order of a walk upwards, from the first node of a stretch on, or downwards.
bool is_refinement(const Mesh& mesh, Nodes nodes) {
  return nodes.front() == &*mesh.nodes(nodes.front()->ipos).begin();
}

}  // namespace

Asking::Asking(const Functions& functions, KindsAtHand& kinds, bool by_rings)
    : functions_(functions), kinds_(kinds), by_rings_(by_rings) {
  const py::object& init_data = functions.init_data;
  if (init_data.is_none()) return;
  if (functions.init_vectorised) {
    values_ = std::make_unique<BulkValues>(
        [&init_data](std::span<const double> x, std::span<const double> y, std::span<double> out) {
          const py::gil_scoped_acquire python;
          copy_values(init_data(to_array(x), to_array(y)), "init_data", out);
        });
    value_at = [this](double x, double y) { return values_->at(x, y); };
  } else {
    value_at = [&init_data](double x, double y) {
      const py::gil_scoped_acquire python;
      double value = 0.0;
      copy_values(init_data(x, y), "init_data", {&value, 1});
      return value;
    };
  }
}

bool Asking::asks_one_by_one() const {
  return !functions_.vectorised || (value_at && values_ == nullptr) || kinds_.one_by_one();
}

void Asking::expect_holes(const Mesh& mesh) {
  Forecast(mesh, mesh.rectangle(), values_.get(), kinds_.sides()).expect_holes();
}

void Asking::sizes_at(const Mesh& mesh, const Rectangle& whole, Nodes nodes,
                      std::span<double> sizes) {
  if (nodes.empty()) return;
  if (functions_.vectorised) {
    const py::gil_scoped_acquire python;
    copy_values(arguments_.call(functions_.size, nodes, mesh), "size", sizes);
  } else {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      const Cell& c = *nodes[i];
      sizes[i] = size_at(c.x, c.y, {c.data.data(), c.data.size()}, c.grad_data, c.grad2_data);
    }
  }
  if (!foresees()) return;
  Forecast forecast(mesh, whole, values_.get(), kinds_.sides());
  if (by_rings_) {
    forecast.look_ahead_for_rings(nodes, sizes);
  } else if (is_refinement(mesh, nodes)) {
    forecast.look_ahead(nodes, sizes);
  }
}

double Asking::size_at(double x, double y, std::span<const double> data, double grad,
                       double grad2) const {
  double value = 0.0;
  copy_values(functions_.size(x, y, to_array(data), grad, grad2), "size", {&value, 1});
  return value;
}

}  // namespace velmar_2d::python
