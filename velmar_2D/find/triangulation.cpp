// All faces of the mesh, cut into triangles.
#include <new>

#include "velmar_2D/arrays/arrays.hpp"
#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

namespace {

/// Twice the area, with its sign: that of the walk around the outside is negative.
double signed_area(const Face& face) {
  double area = 0.0;
  for (std::size_t i = 2; i < face.n; ++i) {
    area += detail::doubled_area(*face.corners[0], *face.corners[i - 1], *face.corners[i]);
  }
  return area;
}

void find_triangles(const State& state, Triangulation& result) {
  const auto nb_nodes = static_cast<std::size_t>(state.nb_nodes);
  result.nodes.reserve(nb_nodes);
  result.triangles.reserve(2 * nb_nodes);
  NodeNumbers numbers;
  for_each_node(state, [&](const Cell& c) {
    *numbers.place_for(&c) = static_cast<std::int32_t>(result.nodes.size());
    result.nodes.push_back(&c);
  });
  const NodeNumbers::Lookup number_of = numbers.lookup();
  std::vector<std::uint8_t> walked(result.nodes.size());  // a bit for each direction
  Face face;
  CutFace cut;
  std::array<std::int32_t, Face::capacity> indices{};
  for (std::size_t start = 0; start < result.nodes.size(); ++start) {
    for (int direction = 0; direction < nb_directions; ++direction) {
      if ((walked[start] >> direction & 1U) != 0) continue;
      if (!face_left_of(*result.nodes[start], direction, face)) continue;
      bool is_new = true;
      for (std::size_t i = 0; i < face.n; ++i) {
        indices[i] = *number_of.place_of(face.corners[i]);
        if (indices[i] == NodeNumbers::unknown) {  // a node of the caller's own
          is_new = false;
          continue;
        }
        std::uint8_t& ways = walked[static_cast<std::size_t>(indices[i])];
        is_new = is_new && (ways >> face.directions[i] & 1U) == 0;
        ways |= static_cast<std::uint8_t>(1U << face.directions[i]);
      }
      if (!is_new || !(signed_area(face) > 0.0)) continue;
      cut_into_triangles(face, cut);
      for (std::size_t t = 0; t < cut.n; ++t) {
        const auto& corners = cut.triangles[t];
        result.triangles.push_back({indices[corners[0]], indices[corners[1]], indices[corners[2]]});
      }
    }
  }
}

}  // namespace

void triangulate(const State& state, Triangulation& result) {
  try {
    find_triangles(state, result);
  } catch (const std::bad_alloc&) {
    constexpr std::size_t bytes_of_node = 100;
    allocation_failed(state.handlers, static_cast<std::size_t>(state.nb_nodes) * bytes_of_node);
  }
}

}  // namespace velmar_2d::detail
