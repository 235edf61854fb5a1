// The steps that odd-level and even-level insertion share.
#include <string>

#include "velmar_2D/insertion.hpp"

namespace velmar_2d::detail {

namespace {

/// Ends the process unless the vertex has its first `nb_parents` parents and a level within the
/// limit.
void check_vertex(std::string_view operation, const Vertex& v, int nb_parents) {
  const auto tag = [&] { return "(Velmar_2D:) " + std::string(operation) + ": ERROR\n"; };
  if (v.level > level_max) {
    fatal(tag() +
          "             you cannot add a new node\n"
          "             (Max level of subdivisions reached)\n"
          " => you must avoid this before calling this routine");
  }
  require_mesh(operation);  // the limit outlives a mesh, its level arrays do not
  if (v.level < 0) fatal(tag() + "             the level of the new node is negative");
  const std::array<const Cell*, 4> parents = {v.p1, v.p2, v.p3, v.p4};
  for (int i = 0; i < nb_parents; ++i) {
    if (parents[static_cast<std::size_t>(i)] != nullptr) continue;
    if (i == 3) fatal("insert_node_odd on_boundary");
    fatal(tag() + "             a parent of the new node is missing");
  }
}

/// Whether refinement would insert a node like this one.
bool is_proposed(const Site& site) {
  std::array<Site, 4> sites;
  std::int32_t n = 0;
  find_sites(*site.parents[0], sites, n);
  return std::any_of(sites.begin(), sites.begin() + n, [&site](const Site& proposed) {
    return proposed.x == site.x && proposed.y == site.y && proposed.parents == site.parents &&
           proposed.level_fits() && site.level_fits();
  });
}

}  // namespace

Site site_of(std::string_view operation, const Vertex& v, int nb_parents,
             int (*direction_to)(const Cell& parent, const Vertex& v)) {
  check_vertex(operation, v, nb_parents);
  Site site{v.x, v.y, v.level, -1, {v.p1, v.p2, v.p3, v.p4}, {}};
  for (std::size_t i = 0; i < site.parents.size(); ++i) {
    if (site.parents[i] != nullptr) site.directions[i] = direction_to(*site.parents[i], v);
  }
  if (!is_proposed(site)) domain.lattice_is_whole = false;
  return site;
}

void insert_by_level(const Vertex& v) {
  if (v.level % 2 == 1) {
    insert_node_odd_level(v);
  } else {
    insert_node_even_level(v);
  }
}

Cell* new_cell_at(const Site& site) {
  const std::int32_t ipos = site.ipos >= 0 ? site.ipos : true_ipos(site.x - x_min, site.y - y_min);
  if (ipos < 0 || ipos > level_max) {
    fatal(
        "(Velmar_2D:) insert_node: ERROR\n"
        "             the position (" +
        to_text(site.x) + ", " + to_text(site.y) + ") belongs to level " + std::to_string(ipos) +
        ",\n"
        "             which lies outside of the levels 0 to " +
        std::to_string(level_max));
  }
  Cell* c = new_cell(ipos);
  c->x = site.x;
  c->y = site.y;
  c->ipos = ipos;
  c->level = site.level;
  // Enter the list first: whatever happens then, the node is not lost.
  enter_stretch(*c);
  return c;
}

//     P ------ R       P and R, neighbouring parents of the new node N, may be linked to each
//     other.
//       \    /         If P linked to another node there, that link would be cut at its one end
//         N            only; and so it would if just one of P and R saw a reason to cut.
void check_surroundings(const Cell& c, const std::array<int, 4>& directions) {
  for (const int d : directions) {
    const Cell* parent = link(c, d).cell();
    if (parent == nullptr) continue;
    for (const int turn : {2, -2}) {
      const int to_next = d + turn + (turn > 0 ? 1 : -1);
      const Cell* linked = link(*parent, to_next).cell();
      if (linked == nullptr) continue;
      const Cell* next = link(c, d + turn).cell();
      if (linked != next || link(*next, opposite(to_next)).cell() != parent) {
        links_may_be_one_way = true;
      }
    }
  }
}

double initial_data(const Site& site) {
  if (n_cell_data <= 0 || data_interpolation) return 0.0;
  if (!init_data_ptr) {
    fatal(
        "(Velmar_2D:) insert_node: ERROR\n"
        "             there is no procedure for the data of new nodes\n"
        "             ('data_interpolation' is false, but 'init_data_ptr' is not set)");
  }
  return init_data_ptr(site.x, site.y);
}

NeighbourLink side_link(int direction, double x, double y) {
  struct Side {
    std::string_view name;
    std::array<Boundary**, 3> records;
  };
  static constexpr std::array<Side, 4> sides = {
      {{"North", {&north_boundary_dir, &north_boundary_neu, &north_boundary_oth}},
       {"East", {&east_boundary_dir, &east_boundary_neu, &east_boundary_oth}},
       {"South", {&south_boundary_dir, &south_boundary_neu, &south_boundary_oth}},
       {"West", {&west_boundary_dir, &west_boundary_neu, &west_boundary_oth}}}};

  if (!bc_type_ptr) {
    fatal(
        "(Velmar_2D:) ERROR: there is no procedure for the sides\n"
        "             ('bc_type_ptr' is not set)");
  }
  const Side& side = sides[static_cast<std::size_t>(direction / 2)];
  const std::int32_t kind = bc_type_ptr(x, y, side.name);
  if (kind < 0 || kind > 2) return nullptr;
  return *side.records[static_cast<std::size_t>(kind)];
}

}  // namespace velmar_2d::detail
