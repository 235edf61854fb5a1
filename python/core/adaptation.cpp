// Making and adapting the mesh with functions of Python.
#include <memory>
#include <optional>

#include "python/core/asking.hpp"
#include "python/core/batched_hooks.hpp"
#include "python/core/core.hpp"
#include "python/core/progress.hpp"

namespace velmar_2d::python {

namespace {

/// update(), and with a resolution resolve().
void adapt(CoreMesh& core, const Functions& functions, const py::tuple& hooks,
           const py::object& progress, const py::object& kinds, bool kinds_vectorised,
           const std::optional<Resolution>& resolution) {
  const Changing changing(core, resolution ? "resolve" : "update");
  KindsAtHand kinds_at_hand(core.kind_at, kinds, kinds_vectorised);
  Mesh& mesh = *core.mesh;
  const ProgressAtHand progress_at_hand(mesh, progress);
  BatchedHooks batched_hooks(mesh, hooks[0], hooks[1]);
  Asking asking(functions, kinds_at_hand, resolution.has_value());
  const bool interpolates = asking.interpolates();
  if (!asking.asks_in_bulk() && !batched_hooks.are_there()) {
    const size_function one = [&](double x, double y, std::span<const double> data, double grad,
                                  double grad2) { return asking.size_at(x, y, data, grad, grad2); };
    if (resolution) {
      interpolates ? mesh.resolve(one, *resolution)
                   : mesh.resolve(one, asking.value_at, *resolution);
    } else {
      interpolates ? mesh.update(one) : mesh.update(one, asking.value_at);
    }
    return;
  }
  const batch_size_function all = [&](Nodes nodes, std::span<double> sizes) {
    batched_hooks.flush();
    asking.sizes_at(mesh, mesh.rectangle(), nodes, sizes);
  };
  const LetOthersRun others(asking.asks_one_by_one());
  if (resolution) {
    asking.expect_holes(mesh);
    interpolates ? mesh.resolve_batched(all, *resolution)
                 : mesh.resolve_batched(all, asking.value_at, *resolution);
  } else {
    interpolates ? mesh.update_batched(all) : mesh.update_batched(all, asking.value_at);
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
  auto core = std::make_unique<CoreMesh>();
  Grid grid;
  grid.nx = nx;
  grid.ny = ny;
  grid.subdiv_max = subdiv_max;
  grid.n_cell_data = n_cell_data;
  grid.bc_type = kinds_of_mesh(core->kind_at, kinds);

  KindsAtHand kinds_at_hand(core->kind_at, kinds, kinds_vectorised);
  kinds_at_hand.foresee_grid(domain, nx, ny);
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
  const KindsAtHand kinds_at_hand(core.kind_at, kinds, kinds_vectorised);
  const ProgressAtHand progress_at_hand(*core.mesh, py::none());
  const LetOthersRun others(kinds_at_hand.one_by_one());
  core.mesh->set_limit(limit);
}

void update(CoreMesh& core, const py::function& size, const py::object& init_data, bool vectorised,
            bool init_vectorised, const py::tuple& hooks, const py::object& progress,
            const py::object& kinds, bool kinds_vectorised) {
  adapt(core, {size, init_data, vectorised, init_vectorised}, hooks, progress, kinds,
        kinds_vectorised, {});
}

void resolve(CoreMesh& core, const py::function& size, const py::object& init_data, double margin,
             std::int64_t most_nodes, double slope, bool vectorised, bool init_vectorised,
             const py::tuple& hooks, const py::object& progress, const py::object& kinds,
             bool kinds_vectorised) {
  adapt(core, {size, init_data, vectorised, init_vectorised}, hooks, progress, kinds,
        kinds_vectorised, Resolution{margin, most_nodes, slope});
}

}  // namespace velmar_2d::python
