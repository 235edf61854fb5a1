// Kinetics and their time step: D. Barkley, "A model for fast computer simulation of waves in
// excitable media", Physica D 49, 1991. Diffusion by finite volumes on the control cells, so that
// nothing is lost or gained between them.
#include "page/waves.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace velmar_2d::page {
namespace {

constexpr double excitability = 0.7, threshold = 0.03, stiffness = 0.02;  // a, b, epsilon
/// The medium's unit of length, as a share of the domain's height of 1.
constexpr double unit = 1.0 / 36.0;
constexpr double diffusivity = unit * unit;
constexpr double longest_step = 0.02;
constexpr double share_of_stable_step = 0.8;
constexpr int steps_per_frame = 8;
/// Over a link the first value changes by at most this, where the mesh may be fine enough.
constexpr double change_per_spacing = 0.12;
constexpr double spark_radius = 1.6 * unit;

struct Face {
  std::int32_t one, other;
  double weight;  ///< length over distance
};

/// The mesh as arrays.
struct Arrays {
  std::vector<double> u, v, area, flux;
  std::vector<Face> faces;
  double step = 0.0;
};

Arrays read(Mesh& mesh) {
  Arrays arrays;
  const auto size = static_cast<std::size_t>(mesh.size());
  for (auto* array : {&arrays.u, &arrays.v, &arrays.area}) array->reserve(size);
  arrays.faces.reserve(4 * size);
  std::int32_t index = 0;
  for (Cell& c : mesh.nodes()) {
    c.used = index++;
    arrays.u.push_back(c.data[0]);
    arrays.v.push_back(c.data[1]);
    arrays.area.push_back(mesh.area(c));
  }
  arrays.flux.assign(size, 0.0);
  for (const Cell& c : mesh.nodes()) {
    const CellFaces faces = mesh.faces(c);
    for (std::size_t d = 0; d < 4; ++d) {  // each face is seen in one of these from one side
      if (faces.length[d] <= 0.0) continue;
      const double weight = faces.length[d] / faces.distance[d];
      arrays.faces.push_back({c.used, faces.neighbour[d]->used, weight});
      arrays.flux[static_cast<std::size_t>(c.used)] += weight;
      arrays.flux[static_cast<std::size_t>(faces.neighbour[d]->used)] += weight;
    }
  }
  arrays.step = longest_step;
  for (std::size_t i = 0; i < size; ++i) {
    const double stable = arrays.area[i] / (diffusivity * arrays.flux[i]);
    arrays.step = std::min(arrays.step, share_of_stable_step * stable);
  }
  return arrays;
}

void advance(Arrays& arrays) {
  std::fill(arrays.flux.begin(), arrays.flux.end(), 0.0);
  for (const Face& face : arrays.faces) {
    const auto i = static_cast<std::size_t>(face.one), j = static_cast<std::size_t>(face.other);
    const double flow = face.weight * (arrays.u[j] - arrays.u[i]);
    arrays.flux[i] += flow;
    arrays.flux[j] -= flow;
  }
  const double step = arrays.step;
  for (std::size_t i = 0; i < arrays.u.size(); ++i) {
    const double u = arrays.u[i], v = arrays.v[i];
    const double border = (v + threshold) / excitability;
    const double spread = step * diffusivity * arrays.flux[i] / arrays.area[i];
    // Implicit in the factor that damps: stable with any step.
    const double growth = step / stiffness * (u - border);
    const double next =
        u < border ? u / (1.0 - growth * (1.0 - u)) : (u + growth * u) / (1.0 + growth * u);
    arrays.v[i] = v + step * (u - v);
    arrays.u[i] = next + spread;
  }
}

/// 0 below, 1 above, a ramp of one unit between.
double ramp(double distance) { return std::clamp(distance / unit + 0.5, 0.0, 1.0); }

}  // namespace

batch_size_function wave_sizes(const Scene& scene) {
  return [finest = scene.finest](std::span<const Cell* const> nodes, std::span<double> sizes) {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      sizes[i] = std::max(finest, change_per_spacing / (nodes[i]->grad_data + 1e-9));
    }
  };
}

void begin_waves(Mesh& mesh) {
  const double x = 0.5 * (mesh.x_min() + mesh.x_max()), y = 0.5 * (mesh.y_min() + mesh.y_max());
  for (Cell& c : mesh.nodes()) {
    c.data[0] = ramp(c.x - x + 1.5 * unit) * ramp(x + 1.5 * unit - c.x) * ramp(c.y - y);
    c.data[1] = 0.5 * excitability * ramp(c.x - x - unit);
  }
}

void advance_waves(Mesh& mesh, const Scene& scene, int frame) {
  for (const Spark& spark : scene.sparks) {
    if (spark.frame != frame) continue;
    for (Cell& c : mesh.nodes()) {
      const double dx = c.x - spark.x, dy = c.y - spark.y;
      const double heat = ramp(spark_radius - std::sqrt(dx * dx + dy * dy));
      c.data[0] = std::max(c.data[0], heat);
    }
  }
  Arrays arrays = read(mesh);
  for (int i = 0; i < steps_per_frame; ++i) advance(arrays);
  for (Cell& c : mesh.nodes()) {
    const auto i = static_cast<std::size_t>(c.used);
    c.data[0] = arrays.u[i];
    c.data[1] = arrays.v[i];
  }
}

}  // namespace velmar_2d::page
