// The faces between control cells and the pieces of the sides. A face to a node is made of two
// halves, one on each side of the line between both; where a nearer node stands an eighth turn
// away, or a side a quarter turn away, that half is missing.
#include <cmath>
#include <string>

#include "numerics.hpp"

namespace velmar_2d::numerics {

namespace {

using detail::index, detail::require_size;

constexpr double half_root = 0.70710678118654752440;

constexpr std::array<Point, 8> unit_vectors = {{{0.0, 1.0},
                                                {half_root, half_root},
                                                {1.0, 0.0},
                                                {half_root, -half_root},
                                                {0.0, -1.0},
                                                {-half_root, -half_root},
                                                {-1.0, 0.0},
                                                {-half_root, half_root}}};

std::size_t turned(std::size_t direction, int eighths) {
  return (direction + static_cast<std::size_t>(eighths + 8)) % 8;
}

/// Whether the face in a direction has its half on one side: 1 clockwise, -1 the other way.
bool has_half(std::span<const std::int32_t, 8> links, const std::array<double, 8>& distance,
              std::size_t d, int side) {
  const std::size_t next = turned(d, side);
  if (links[next] >= 0 && distance[next] < distance[d]) return false;
  return d % 2 != 0 || !is_side(links[turned(d, 2 * side)]);
}

std::array<double, 8> distances(const MeshArrays& arrays, std::int32_t i) {
  std::array<double, 8> all{};
  const auto links = arrays.links(i);
  for (std::size_t d = 0; d < 8; ++d) {
    if (links[d] < 0) continue;
    const std::size_t j = index(links[d]);
    all[d] = std::hypot(arrays.x()[j] - arrays.x()[index(i)], arrays.y()[j] - arrays.y()[index(i)]);
  }
  return all;
}

}  // namespace

Point unit_vector(Direction direction) {
  return unit_vectors[index(static_cast<std::int32_t>(direction))];
}

Faces faces_of(const MeshArrays& arrays) {
  Faces faces;
  faces.revision = arrays.revision();
  const std::size_t about = 9 * index(arrays.size()) / 4;  // two a node where cells are squares
  faces.from.reserve(about), faces.to.reserve(about), faces.direction.reserve(about);
  for (auto* values : {&faces.length, &faces.weight, &faces.middle_x, &faces.middle_y}) {
    values->reserve(about);
  }
  for (std::int32_t i = 0; i < arrays.size(); ++i) {
    const auto links = arrays.links(i);
    const std::array<double, 8>& weights = arrays.weights(i);
    const std::array<double, 8> distance = distances(arrays, i);
    for (std::size_t d = 0; d < 8; ++d) {
      if (links[d] <= i || weights[d] <= 0.0) continue;
      const Point forward = unit_vectors[d], right = unit_vectors[turned(d, 2)];
      // Halves are half as long as the distance.
      const double aside = 0.125 * distance[d] *
                           ((has_half(links, distance, d, 1) ? 1.0 : 0.0) -
                            (has_half(links, distance, d, -1) ? 1.0 : 0.0)) *
                           2.0;
      faces.from.push_back(i);
      faces.to.push_back(links[d]);
      faces.direction.push_back(directions[d]);
      faces.weight.push_back(weights[d]);
      faces.length.push_back(weights[d] * distance[d]);
      faces.middle_x.push_back(arrays.x()[index(i)] + 0.5 * distance[d] * forward.x +
                               aside * right.x);
      faces.middle_y.push_back(arrays.y()[index(i)] + 0.5 * distance[d] * forward.y +
                               aside * right.y);
    }
  }
  return faces;
}

SidePieces side_pieces_of(const MeshArrays& arrays) {
  SidePieces pieces;
  pieces.revision = arrays.revision();
  for (std::int32_t i = 0; i < arrays.size(); ++i) {
    const auto links = arrays.links(i);
    for (std::size_t d = 0; d < 8; d += 2) {
      if (!is_side(links[d])) continue;
      pieces.node.push_back(i);
      pieces.side.push_back(directions[d]);
      pieces.kind.push_back(kind_of(links[d]));
      pieces.length.push_back(arrays.faces(i).side[d / 2]);
      pieces.x.push_back(arrays.x()[index(i)]);
      pieces.y.push_back(arrays.y()[index(i)]);
    }
  }
  return pieces;
}

// ---------------------------------------------------------------------------------------------
// Conditions at the sides
// ---------------------------------------------------------------------------------------------

void add_inflow(const SidePieces& pieces, std::int32_t kind, const side_function& flux,
                std::span<double> source) {
  for (std::size_t p = 0; p < pieces.size(); ++p) {
    if (pieces.kind[p] != kind) continue;
    source[index(pieces.node[p])] +=
        pieces.length[p] * flux(pieces.x[p], pieces.y[p], pieces.side[p]);
  }
}

void add_exchange(const SidePieces& pieces, std::int32_t kind, const side_function& rate,
                  const side_function& outside, SparseMatrix& matrix, std::span<double> source) {
  require_size("sources", source.size(), matrix.diagonal.size());
  for (std::size_t p = 0; p < pieces.size(); ++p) {
    if (pieces.kind[p] != kind) continue;
    const double x = pieces.x[p], y = pieces.y[p];
    const double share = pieces.length[p] * rate(x, y, pieces.side[p]);
    const std::size_t node = index(pieces.node[p]);
    matrix.values[index(matrix.diagonal[node])] += share;
    source[node] += share * outside(x, y, pieces.side[p]);
  }
  touch(matrix);
}

// ---------------------------------------------------------------------------------------------
// Divergence
// ---------------------------------------------------------------------------------------------

void face_derivative(const Faces& faces, std::span<const double> u, std::span<double> derivative) {
  require_size("derivatives across faces", derivative.size(), faces.size());
  for (std::size_t f = 0; f < faces.size(); ++f) {
    derivative[f] =
        (u[index(faces.to[f])] - u[index(faces.from[f])]) * (faces.weight[f] / faces.length[f]);
  }
}

void fluxes_of(const Faces& faces, const SidePieces& pieces, std::span<const double> field_x,
               std::span<const double> field_y, std::span<double> face_fluxes,
               std::span<double> side_fluxes) {
  require_size("components of a field", field_y.size(), field_x.size());
  require_size("fluxes through faces", face_fluxes.size(), faces.size());
  require_size("fluxes through sides", side_fluxes.size(), pieces.size());
  for (std::size_t f = 0; f < faces.size(); ++f) {
    const std::size_t a = index(faces.from[f]), b = index(faces.to[f]);
    const Point n = unit_vector(faces.direction[f]);
    face_fluxes[f] =
        0.5 * faces.length[f] * ((field_x[a] + field_x[b]) * n.x + (field_y[a] + field_y[b]) * n.y);
  }
  for (std::size_t p = 0; p < pieces.size(); ++p) {
    const std::size_t a = index(pieces.node[p]);
    const Point n = unit_vector(pieces.side[p]);
    side_fluxes[p] = pieces.length[p] * (field_x[a] * n.x + field_y[a] * n.y);
  }
}

void divergence(const Faces& faces, std::span<const double> face_fluxes, const SidePieces& pieces,
                std::span<const double> side_fluxes, std::span<const double> areas,
                std::span<double> result) {
  require_size("fluxes through faces", face_fluxes.size(), faces.size());
  if (!side_fluxes.empty()) {
    require_size("fluxes through sides", side_fluxes.size(), pieces.size());
  }
  require_size("values of a divergence", result.size(), areas.size());
  std::fill(result.begin(), result.end(), 0.0);
  for (std::size_t f = 0; f < faces.size(); ++f) {
    result[index(faces.from[f])] += face_fluxes[f];
    result[index(faces.to[f])] -= face_fluxes[f];
  }
  for (std::size_t p = 0; p < side_fluxes.size(); ++p) {
    result[index(pieces.node[p])] += side_fluxes[p];
  }
  for (std::size_t i = 0; i < areas.size(); ++i) result[i] /= areas[i];
}

}  // namespace velmar_2d::numerics
