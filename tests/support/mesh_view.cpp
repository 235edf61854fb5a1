#include "support/mesh_view.hpp"

#include <cmath>
#include <map>
#include <sstream>

namespace velmar_2d::tests {
namespace {

constexpr double same_place = 1e-6;  // in units of dist_0, far below the finest spacing of any test

double offset_x(const Cell& c) { return (c.x - x_min) / dist_0; }
double offset_y(const Cell& c) { return (c.y - y_min) / dist_0; }

std::string record_name(const Boundary* b) {
  const std::map<const Boundary*, const char*> names = {
      {north_boundary_dir, "North"},     {north_boundary_neu, "North neu"},
      {north_boundary_oth, "North oth"}, {east_boundary_dir, "East"},
      {east_boundary_neu, "East neu"},   {east_boundary_oth, "East oth"},
      {south_boundary_dir, "South"},     {south_boundary_neu, "South neu"},
      {south_boundary_oth, "South oth"}, {west_boundary_dir, "West"},
      {west_boundary_neu, "West neu"},   {west_boundary_oth, "West oth"}};
  const auto found = names.find(b);
  return found == names.end() ? "?" : found->second;
}

}  // namespace

Cell* node_at(double u, double v) {
  for (Cell* c = mesh_beg; c != nullptr; c = c->next)
    if (std::abs(offset_x(*c) - u) < same_place && std::abs(offset_y(*c) - v) < same_place)
      return c;
  return nullptr;
}

std::string links(const Cell& c) {
  std::ostringstream text;
  const std::pair<const char*, NeighbourLink> all[] = {{"n", c.n},   {"ne", c.ne}, {"e", c.e},
                                                       {"se", c.se}, {"s", c.s},   {"sw", c.sw},
                                                       {"w", c.w},   {"nw", c.nw}};
  for (const auto& [name, link] : all) {
    if (link.empty()) continue;
    text << (text.tellp() > 0 ? " " : "") << name;
    if (const Cell* to = link.cell(); to != nullptr) {
      text << '(' << offset_x(*to) << ',' << offset_y(*to) << ')';
    } else {
      text << '[' << record_name(link.boundary()) << ']';
    }
  }
  return text.str();
}

std::string links(double u, double v) {
  const Cell* c = node_at(u, v);
  return c == nullptr ? "no node" : links(*c);
}

std::vector<std::string> describe_mesh() {
  std::vector<std::string> lines;
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next) {
    std::ostringstream line;
    line << c->id << " (" << offset_x(*c) << ',' << offset_y(*c) << ") ipos " << c->ipos
         << " level " << c->level << " reserve " << c->reserve << " on_boundary " << c->on_boundary
         << ": " << links(*c);
    lines.push_back(line.str());
  }
  return lines;
}

void make_grid(int nx, int ny, int limit, bc_type_function kinds) {
  scenarios::set_domain(0.0, nx - 1, 0.0, ny - 1);
  double y_max = 0.0;
  init_mesh(std::move(kinds), nx, ny, limit, y_max);
}

std::vector<Vertex> proposals_around(Cell* c) {
  std::array<Vertex, 4> list;
  std::int32_t n = -1;
  build_vertex(c, list, n);
  return {list.begin(), list.begin() + n};
}

Cell* insert(const Vertex& v) {
  (v.level % 2 == 1 ? insert_node_odd_level : insert_node_even_level)(v);
  for (const Handle& stretch : level_beg)  // a new node is the first of its stretch
    if (stretch.next != nullptr && stretch.next->id == next_id - 1) return stretch.next;
  return nullptr;
}

Cell* insert_at(double u, double v, Cell* around) {
  for (const Vertex& vertex : proposals_around(around))
    if (vertex.x == u && vertex.y == v) return insert(vertex);
  ADD_FAILURE() << "nothing is proposed at " << u << ", " << v;
  return nullptr;
}

bool remove(Cell* c) {
  (c->level % 2 == 1 ? remove_node_odd_level : remove_node_even_level)(c);
  return c == nullptr;
}

void MeshTest::SetUp() {
  n_cell_data = 0;
  data_interpolation = true;
  init_data_ptr = nullptr;
}

void MeshTest::TearDown() {
  if (nb_nodes > 0) delete_mesh();
  n_cell_data = 0;
}

}  // namespace velmar_2d::tests
