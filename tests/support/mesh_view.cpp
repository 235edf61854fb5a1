#include "support/mesh_view.hpp"

#include <cmath>
#include <cstring>
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

namespace {

template <typename Part>
std::uint64_t mix(std::uint64_t h, Part part) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &part, sizeof part);
  h = (h ^ bits) * 0x9e3779b97f4a7c15U;
  return h ^ (h >> 29);
}

std::uint64_t place(const Cell& c) { return mix(mix(1, c.x), c.y); }

}  // namespace

std::string fingerprint(const Mesh& mesh) {
  std::uint64_t sum = 0;
  for (const Cell& c : mesh.nodes()) {
    std::uint64_t h = mix(mix(mix(place(c), c.ipos), c.level), c.reserve);
    for (const Direction d : directions) {
      const NeighbourLink there = link(c, d);
      const Boundary* side = there.boundary();
      h = mix(h, there.cell() != nullptr ? place(*there.cell())
                 : side != nullptr       ? static_cast<std::uint64_t>(side->bc_type) + 2
                                         : 1U);
    }
    for (const double value : c.data) h = mix(h, value);
    sum += mesh.n_cell_data() > 0 ? mix(mix(h, c.grad_data), c.grad2_data) : h;
  }
  std::ostringstream text;
  text << mesh.size() << " nodes, " << std::hex << sum;
  return text.str();
}

std::uint64_t state_hash(const Mesh& mesh) {
  std::uint64_t h = 0;
  const auto add = [&h](auto... parts) { ((h = mix(h, parts)), ...); };
  const auto id_of = [](const Cell* c) { return c == nullptr ? std::int64_t{0} : c->id; };
  const UpdateStatistics& did = mesh.statistics();
  add(mesh.size(), mesh.limit(), mesh.n_cell_data(), mesh.next_id());
  add(did.visited, did.inserted, did.removed, did.refused);
  add(mesh.x_min(), mesh.x_max(), mesh.y_min(), mesh.y_max(), mesh.dist_0());
  for (const Cell& c : mesh.nodes()) {
    add(c.id, c.x, c.y, c.level, c.reserve, c.ipos, c.on_boundary, c.used);
    add(c.signature_set, c.area, id_of(c.prev), id_of(c.next), c.data.size());
    if (c.signature_set) add(c.signature[0], c.signature[1]);
    for (const double value : c.data) add(value);
    add(c.grad_data, c.grad2_data, c.nl, c.nel, c.el, c.sel, c.sl, c.swl, c.wl, c.nwl);
    for (const Direction d : directions) {
      const NeighbourLink there = link(c, d);
      const Boundary* side = there.boundary();
      add(id_of(there.cell()), there.empty());
      if (side != nullptr) add(side->bc_type, side == &mesh.side_record(d, side->bc_type));
    }
  }
  return h;
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
