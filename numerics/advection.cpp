// Gradients at nodes, and what a wind carries through faces.
#include <algorithm>
#include <cmath>

#include "numerics.hpp"

namespace velmar_2d::numerics {

namespace {

using detail::index, detail::require_size;

Gradient gradient_at(const MeshArrays& arrays, std::span<const double> u, std::int32_t i) {
  const std::size_t here = index(i);
  double xx = 0.0, xy = 0.0, yy = 0.0, xu = 0.0, yu = 0.0;
  for (const std::int32_t linked : arrays.links(i)) {
    if (linked < 0) continue;
    const std::size_t there = index(linked);
    const double dx = arrays.x()[there] - arrays.x()[here];
    const double dy = arrays.y()[there] - arrays.y()[here];
    const double weight = 1.0 / (dx * dx + dy * dy), du = u[there] - u[here];
    xx += weight * dx * dx;
    xy += weight * dx * dy;
    yy += weight * dy * dy;
    xu += weight * dx * du;
    yu += weight * dy * du;
  }
  const double determinant = xx * yy - xy * xy;
  // A corner of the domain may have one linked node, the middle of its square.
  if (determinant < 1e-9 * (xx + yy) * (xx + yy)) {
    for (const std::int32_t linked : arrays.links(i)) {
      if (linked >= 0) return gradient_at(arrays, u, linked);
    }
  }
  return {(yy * xu - xy * yu) / determinant, (xx * yu - xy * xu) / determinant};
}

/// What values are around nodes, and how they change.
struct Surroundings {
  std::vector<double> du_dx, du_dy, least, most;
};

/// For values without new extremes; otherwise any value may come, but no negative one.
void find_extremes(const MeshArrays& arrays, const SidePieces& pieces,
                   std::span<const double> side_wind, std::span<const double> u,
                   std::span<const double> inflow, Surroundings& around) {
  around.least.assign(u.begin(), u.end());
  around.most = around.least;
  const auto see = [&](std::size_t here, double value) {
    around.least[here] = std::min(around.least[here], value);
    around.most[here] = std::max(around.most[here], value);
  };
  for (std::int32_t i = 0; i < arrays.size(); ++i) {
    for (const std::int32_t linked : arrays.links(i)) {
      if (linked >= 0) see(index(i), u[index(linked)]);
    }
  }
  for (std::size_t p = 0; p < pieces.size(); ++p) {
    if (side_wind[p] < 0.0) see(index(pieces.node[p]), inflow[p]);
  }
}

}  // namespace

void gradient(const MeshArrays& arrays, std::span<const double> u, std::span<double> du_dx,
              std::span<double> du_dy) {
  const std::size_t n = index(arrays.size());
  require_size("values", u.size(), n);
  require_size("derivatives by x", du_dx.size(), n);
  require_size("derivatives by y", du_dy.size(), n);
  for (std::int32_t i = 0; i < arrays.size(); ++i) {
    const Gradient g = gradient_at(arrays, u, i);
    du_dx[index(i)] = g.dfdx;
    du_dy[index(i)] = g.dfdy;
  }
}

// Let m be the least value around a node of value u, q what the wind takes out of its cell in a
// step, as a share of the area, and the wind without divergence. What comes in is m at least, and
// what goes out at most u + (u - m), so that u - m becomes (1 - 2 q) (u - m) at least: no new
// minimum comes while q is at most 1/2, nor a maximum. With 0 for m it holds for any wind.
void advection_fluxes(Upwind upwind, const MeshArrays& arrays, const Faces& faces,
                      const SidePieces& pieces, std::span<const double> face_wind,
                      std::span<const double> side_wind, std::span<const double> u,
                      std::span<const double> inflow, std::span<double> face_fluxes,
                      std::span<double> side_fluxes) {
  const std::size_t n = index(arrays.size());
  require_size("values", u.size(), n);
  require_size("winds through faces", face_wind.size(), faces.size());
  require_size("winds through sides", side_wind.size(), pieces.size());
  require_size("values of inflow", inflow.size(), pieces.size());
  require_size("fluxes through faces", face_fluxes.size(), faces.size());
  require_size("fluxes through sides", side_fluxes.size(), pieces.size());
  Surroundings around;
  if (upwind != Upwind::first_order) {
    around.du_dx.resize(n), around.du_dy.resize(n);
    gradient(arrays, u, around.du_dx, around.du_dy);
  }
  if (upwind == Upwind::bounded) find_extremes(arrays, pieces, side_wind, u, inflow, around);
  for (std::size_t f = 0; f < faces.size(); ++f) {
    std::size_t from = index(faces.from[f]), to = index(faces.to[f]);
    if (face_wind[f] < 0.0) std::swap(from, to);
    double carried = u[from];
    if (upwind != Upwind::first_order) {
      const double value = carried + around.du_dx[from] * (faces.middle_x[f] - arrays.x()[from]) +
                           around.du_dy[from] * (faces.middle_y[f] - arrays.y()[from]);
      double least = 0.0, most = 2.0 * carried;
      if (upwind == Upwind::bounded) {
        least = std::max({around.least[from], around.least[to], 2.0 * carried - around.most[from]});
        most = std::min({around.most[from], around.most[to], 2.0 * carried - around.least[from]});
      }
      if (least <= most) carried = std::clamp(value, least, most);
    }
    face_fluxes[f] = face_wind[f] * carried;
  }
  for (std::size_t p = 0; p < pieces.size(); ++p) {
    side_fluxes[p] = side_wind[p] * (side_wind[p] < 0.0 ? inflow[p] : u[index(pieces.node[p])]);
  }
}

double stable_step(Upwind upwind, const Faces& faces, const SidePieces& pieces,
                   std::span<const double> face_wind, std::span<const double> side_wind,
                   std::span<const double> areas) {
  require_size("winds through faces", face_wind.size(), faces.size());
  require_size("winds through sides", side_wind.size(), pieces.size());
  std::vector<double> out(areas.size());
  for (std::size_t f = 0; f < faces.size(); ++f) {
    const double wind = face_wind[f];
    out[index(wind > 0.0 ? faces.from[f] : faces.to[f])] += std::abs(wind);
  }
  for (std::size_t p = 0; p < pieces.size(); ++p) {
    out[index(pieces.node[p])] += std::max(side_wind[p], 0.0);
  }
  double fastest = 0.0;
  for (std::size_t i = 0; i < out.size(); ++i) fastest = std::max(fastest, out[i] / areas[i]);
  return (upwind == Upwind::first_order ? 1.0 : 0.5) / fastest;
}

}  // namespace velmar_2d::numerics
