// The steps that odd-level and even-level insertion share.
#include <string>

#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// Ends the process unless the vertex has its first `nb_parents` parents and a level within the
/// limit.
void check_vertex(const State& state, std::string_view operation, const Vertex& v, int nb_parents) {
  const auto tag = [&] { return "(Velmar_2D:) " + std::string(operation) + ": ERROR\n"; };
  if (v.level > state.level_max) {
    fatal(state.handlers, tag() +
                              "             you cannot add a new node\n"
                              "             (Max level of subdivisions reached)\n"
                              " => you must avoid this before calling this routine");
  }
  require_mesh(state, operation);  // the limit outlives a mesh, its level arrays do not
  if (v.level < 0)
    fatal(state.handlers, tag() + "             the level of the new node is negative");
  const std::array<const Cell*, 4> parents = {v.p1, v.p2, v.p3, v.p4};
  for (int i = 0; i < nb_parents; ++i) {
    if (parents[static_cast<std::size_t>(i)] != nullptr) continue;
    if (i == 3) fatal(state.handlers, "insert_node_odd on_boundary");
    fatal(state.handlers, tag() + "             a parent of the new node is missing");
  }
}

/// Whether refinement would insert a node like this one.
bool is_proposed(const State& state, const Site& site) {
  std::array<Site, 4> sites;
  std::int32_t n = 0;
  find_sites(state, *site.parents[0], sites, n);
  return std::any_of(sites.begin(), sites.begin() + n, [&site](const Site& proposed) {
    return proposed.x == site.x && proposed.y == site.y && proposed.parents == site.parents &&
           proposed.level_fits() && site.level_fits();
  });
}

}  // namespace

Site site_of(State& state, std::string_view operation, const Vertex& v, int nb_parents,
             int (*direction_to)(const Domain& domain, const Cell& parent, const Vertex& v)) {
  check_vertex(state, operation, v, nb_parents);
  Site site{v.x, v.y, v.level, -1, {v.p1, v.p2, v.p3, v.p4}, {}};
  for (std::size_t i = 0; i < site.parents.size(); ++i) {
    if (site.parents[i] != nullptr)
      site.directions[i] = direction_to(state.domain, *site.parents[i], v);
  }
  if (!is_proposed(state, site)) state.domain.lattice_is_whole = false;
  return site;
}

Cell& insert_by_level(State& state, const Vertex& v) {
  return v.level % 2 == 1 ? insert_node_odd_level(state, v) : insert_node_even_level(state, v);
}

Cell& new_cell_at(State& state, const Site& site) {
  const std::int32_t ipos = site.ipos >= 0
                                ? site.ipos
                                : true_ipos(state.domain, site.x - state.domain.frame.x_min,
                                            site.y - state.domain.frame.y_min, state.level_max);
  if (ipos < 0 || ipos > highest_stretch(state)) {
    fatal(state.handlers,
          "(Velmar_2D:) insert_node: ERROR\n"
          "             the position (" +
              to_text(site.x) + ", " + to_text(site.y) + ") belongs to level " +
              std::to_string(ipos) +
              ",\n"
              "             which lies outside of the levels 0 to " +
              std::to_string(highest_stretch(state)));
  }
  Cell& c = *new_cell(state, ipos);
  c.x = site.x;
  c.y = site.y;
  c.ipos = ipos;
  c.level = site.level;
  // Enter the list first: whatever happens then, the node is not lost.
  enter_stretch(state, c);
  return c;
}

//     P ------ R       P and R, neighbouring parents of the new node N, may be linked to each
//     other.
//       \    /         If P linked to another node there, that link would be cut at its one end
//         N            only; and so it would if just one of P and R saw a reason to cut.
void check_surroundings(State& state, const Cell& c, const std::array<int, 4>& directions) {
  for (const int d : directions) {
    const Cell* parent = link(c, d).cell();
    if (parent == nullptr) continue;
    for (const int turn : {2, -2}) {
      const int to_next = d + turn + (turn > 0 ? 1 : -1);
      const Cell* linked = link(*parent, to_next).cell();
      if (linked == nullptr) continue;
      const Cell* next = link(c, d + turn).cell();
      if (linked != next || link(*next, opposite(to_next)).cell() != parent) {
        state.links_may_be_one_way = true;
      }
    }
  }
}

double initial_data(const State& state, const Site& site) {
  if (state.n_cell_data <= 0 || state.data_interpolation) return 0.0;
  if (!state.init_data_ptr) {
    fatal(state.handlers,
          "(Velmar_2D:) insert_node: ERROR\n"
          "             there is no procedure for the data of new nodes\n"
          "             ('data_interpolation' is false, but 'init_data_ptr' is not set)");
  }
  return state.init_data_ptr(site.x, site.y);
}

ParentCells parent_cells(const State& state, const Site& site) {
  ParentCells cells;
  if (state.remapping != nullptr) {
    for (Cell* parent : site.parents) {
      if (parent != nullptr) state.remapping->will_change(*parent);
    }
    state.remapping->make_room_for(1);
  }
  if (conserves(state)) {
    for (std::size_t i = 0; i < site.parents.size(); ++i) {
      if (site.parents[i] != nullptr) cells.areas[i] = control_area(state, *site.parents[i]);
    }
  }
  return cells;
}

void set_data(const State& state, const Site& site, Cell& c, double first_value,
              const ParentCells& before) {
  const auto& p = site.parents;
  const std::span<Cell* const> parents(p.data(), p[3] != nullptr ? 4 : 3);
  if (state.remapping != nullptr) state.remapping->has_come(c, !state.data_interpolation);
  if (state.n_cell_data > 0) {
    const std::size_t first = state.data_interpolation ? 0 : 1;
    if (first == 1) c.data[0] = first_value;
    if (state.transfer == Transfer::conservative) {
      take_from_cells(state, parents, before.areas, c, first);
    } else {
      const std::size_t n = state.transfer == Transfer::first ? 1 : c.data.size();
      for (std::size_t i = first; i < n; ++i) c.data[i] = mean_of_parents(p, i);
    }
  }
  if (state.hooks.inserted) state.hooks.inserted(c, parents);
  if (state.n_cell_data <= 0 || state.derives_later) return;
  Workspace work;
  compute_data_at_node(state, work, &c);
}

}  // namespace velmar_2d::detail
