// The links divide the domain into faces: triangles, squares, diamonds, houses. Each is walked
// round, anticlockwise, by turning at every node into the first link clockwise from where one came:
//
//            d <--- c        came from b to c, so at c the link next clockwise from
//            |      ^        c -> b is taken, which is c -> d
//            v      |
//            a ---> b        and then cut into triangles.
//
// Along a side of the domain two neighbours need not be linked; the walk goes along the side there.
#include "io/triangulation.hpp"

#include <algorithm>
#include <cstddef>
#include <unordered_map>
#include <utility>

namespace velmar_2d::io {
namespace {

constexpr std::int32_t none = -1;

// ---------------------------------------------------------------------------------------------
// The links as indices
// ---------------------------------------------------------------------------------------------

struct Graph {
  std::vector<const Cell*> nodes;
  std::vector<std::array<std::int32_t, 8>> neighbours;  ///< clockwise from north, or none

  std::int32_t& neighbour(std::int32_t node, unsigned direction) {
    return neighbours[static_cast<std::size_t>(node)][direction % 8];
  }
  const Cell& operator[](std::int32_t node) const { return *nodes[static_cast<std::size_t>(node)]; }
};

/// Links that both nodes agree on.
Graph read_links(const Mesh& mesh) {
  Graph graph;
  graph.nodes.reserve(static_cast<std::size_t>(mesh.size()));
  std::unordered_map<const Cell*, std::int32_t> index_of;  // looked up only: its order is no matter
  index_of.reserve(graph.nodes.capacity());
  for (const Cell& node : mesh.nodes()) {
    index_of.emplace(&node, static_cast<std::int32_t>(graph.nodes.size()));
    graph.nodes.push_back(&node);
  }
  graph.neighbours.resize(graph.nodes.size());
  for (std::size_t i = 0; i < graph.nodes.size(); ++i) {
    for (const Direction direction : directions) {
      const Cell* other = link(*graph.nodes[i], direction).cell();
      const bool is_mutual =
          other != nullptr && link(*other, opposite(direction)).cell() == graph.nodes[i];
      graph.neighbours[i][static_cast<std::size_t>(direction)] =
          is_mutual ? index_of.at(other) : none;
    }
  }
  return graph;
}

/// Links the nodes along each side of the domain, one to the next.
void link_along_sides(Graph& graph) {
  for (unsigned side = 0; side < 8; side += 2) {
    std::vector<std::int32_t> row;
    for (std::int32_t i = 0; i < static_cast<std::int32_t>(graph.nodes.size()); ++i) {
      if (link(graph[i], static_cast<Direction>(side)).boundary() != nullptr) row.push_back(i);
    }
    // A quarter turn clockwise from the side: east along the north side, north along the west one.
    std::sort(row.begin(), row.end(), [&](std::int32_t a, std::int32_t b) {
      switch (side) {
        case 0: return graph[a].x < graph[b].x;
        case 2: return graph[a].y > graph[b].y;
        case 4: return graph[a].x > graph[b].x;
        default: return graph[a].y < graph[b].y;
      }
    });
    for (std::size_t i = 1; i < row.size(); ++i) {
      graph.neighbour(row[i - 1], side + 2) = row[i];
      graph.neighbour(row[i], side + 6) = row[i - 1];
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Faces
// ---------------------------------------------------------------------------------------------

/// Twice the area of a triangle, positive where it runs anticlockwise.
double doubled_area(const Cell& a, const Cell& b, const Cell& c) {
  return (b.x - a.x) * (c.y - a.y) - (c.x - a.x) * (b.y - a.y);
}

double squared_distance(const Cell& a, const Cell& b) {
  return (a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y);
}

/// How far from flat a triangle is: 1 is a right angle with equal legs, 0 or less is none at all.
double quality(const Cell& a, const Cell& b, const Cell& c) {
  return 2.0 * doubled_area(a, b, c) /
         std::max({squared_distance(a, b), squared_distance(b, c), squared_distance(c, a)});
}
/// Positions carry rounding errors: flatter triangles than this lie on a line.
constexpr double flat = 1e-6;

class FaceCutter {
 public:
  explicit FaceCutter(const Graph& graph, std::vector<std::array<std::int32_t, 3>>& triangles)
      : graph_(graph), triangles_(triangles) {}

  /// Cuts a face into triangles, the roundest first. Takes the face apart.
  void cut(std::vector<std::int32_t>& face) {
    // The start of the walk is a matter of chance; begin at the lowest corner instead, so that
    // equal faces are cut equally.
    std::rotate(face.begin(),
                std::min_element(face.begin(), face.end(),
                                 [&](std::int32_t a, std::int32_t b) {
                                   const Cell &p = graph_[a], &q = graph_[b];
                                   return p.y < q.y || (p.y == q.y && p.x < q.x);
                                 }),
                face.end());
    while (face.size() >= 3) {
      std::size_t best = face.size();
      double best_quality = flat;
      for (std::size_t i = 0; i < face.size(); ++i) {
        const double ear = ear_quality(face, i);
        if (ear > best_quality * (1.0 + flat)) {
          best = i;
          best_quality = ear;
        }
      }
      if (best == face.size()) return;  // what is left lies on a line
      triangles_.push_back({before(face, best), face[best], after(face, best)});
      face.erase(face.begin() + static_cast<std::ptrdiff_t>(best));
    }
  }

 private:
  static std::int32_t before(const std::vector<std::int32_t>& face, std::size_t i) {
    return face[(i + face.size() - 1) % face.size()];
  }
  static std::int32_t after(const std::vector<std::int32_t>& face, std::size_t i) {
    return face[(i + 1) % face.size()];
  }

  /// Quality of the triangle that a corner forms with its two neighbours, 0 where it may not be
  /// cut off because another corner lies in it or on its edge.
  double ear_quality(const std::vector<std::int32_t>& face, std::size_t i) const {
    const Cell &a = graph_[before(face, i)], &b = graph_[face[i]], &c = graph_[after(face, i)];
    const double result = quality(a, b, c);
    if (result <= flat) return 0.0;
    for (const std::int32_t corner : face) {
      const Cell& p = graph_[corner];
      if (&p == &a || &p == &b || &p == &c) continue;
      if (quality(a, b, p) >= -flat && quality(b, c, p) >= -flat && quality(c, a, p) >= -flat) {
        return 0.0;
      }
    }
    return result;
  }

  const Graph& graph_;
  std::vector<std::array<std::int32_t, 3>>& triangles_;
};

}  // namespace

Triangulation triangulation_of(const Mesh& mesh) {
  Graph graph = read_links(mesh);
  link_along_sides(graph);

  Triangulation result;
  result.triangles.reserve(2 * graph.nodes.size());
  FaceCutter cutter(graph, result.triangles);
  std::vector<std::uint8_t> walked(graph.nodes.size());  // a bit for each direction
  std::vector<std::int32_t> face;
  for (std::int32_t start = 0; start < static_cast<std::int32_t>(graph.nodes.size()); ++start) {
    for (unsigned start_direction = 0; start_direction < 8; ++start_direction) {
      if (graph.neighbour(start, start_direction) == none) continue;
      face.clear();
      double area = 0.0;
      std::int32_t node = start;
      unsigned direction = start_direction;
      // Every step has one that precedes it, so the walk comes back to its first step.
      while ((walked[static_cast<std::size_t>(node)] >> direction & 1U) == 0) {
        walked[static_cast<std::size_t>(node)] |= static_cast<std::uint8_t>(1U << direction);
        face.push_back(node);
        const std::int32_t next = graph.neighbour(node, direction);
        area += doubled_area(graph[start], graph[node], graph[next]);
        direction = (direction + 5) % 8;
        while (graph.neighbour(next, direction) == none) direction = (direction + 1) % 8;
        node = next;
      }
      if (area > 0.0) cutter.cut(face);  // negative: the way round the outside of the domain
    }
  }
  result.nodes = std::move(graph.nodes);
  return result;
}

}  // namespace velmar_2d::io
