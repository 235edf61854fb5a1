// Refining the mesh around one node.
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// Whether the node still awaits all of its finer neighbours. A missing one, where a side is, does
/// not.
bool awaits_all(const Cell* c) { return c != nullptr && c->reserve == 4; }

}  // namespace

// In special mode a closed figure is completed up to the limit itself, once all its cells have
// begun to rise. Half figures, which have no fourth cell, are not held to that.
bool is_wanted(const State& state, const Site& site, bool special) {
  if (!special) return site.level < state.level_max;
  if (site.level > state.level_max) return false;
  return site.parents[3] == nullptr ||
         std::none_of(site.parents.begin(), site.parents.end(), awaits_all);
}

void refine_cell(State& state, Cell*& c, bool special) {
  if (special && !special_refinement_possible(state, *c)) return;
  std::array<Site, 4> sites;
  std::int32_t n = 0;
  find_sites(state, *c, sites, n);
  for (std::int32_t i = 0; i < n; ++i) {
    const Site& site = sites[static_cast<std::size_t>(i)];
    if (!is_wanted(state, site, special)) {
      const bool is_refused = !special && site.level >= state.level_max;
      if (is_refused && (!state.counts_refusal || state.counts_refusal(*c))) {
        ++state.update_statistics.refused;
      }
      continue;
    }
    if (!site.level_fits()) {
      insert_by_level(state, vertex_at(site));
    } else if (site.level % 2 == 1) {
      insert_centre(state, site);
    } else {
      insert_midpoint(state, site);
    }
  }
}

void special_sort_level(State& state, std::int32_t l) {
  if (l < 0 || static_cast<std::size_t>(l) >= state.level_beg.size()) return;
  state.stretch_nodes.forget();  // they are in the old order
  Cell*& head = state.level_beg[static_cast<std::size_t>(l)].next;
  Cell*& tail = state.level_end[static_cast<std::size_t>(l)].next;
  const auto& own_directions = l % 2 == 0 ? straight_directions : diagonal_directions;

  Cell* c = tail;
  while (c != nullptr) {
    Cell* following = c->prev;
    std::int32_t lmax = 0, lmin = l;
    for (const int d : own_directions) {
      const Cell* neighbour = link(*c, d).cell();
      if (neighbour == nullptr) continue;
      lmax = std::max(lmax, neighbour->level);
      lmin = std::min(lmin, neighbour->level);
    }
    if (lmax > l) return;
    if (lmax == l && lmin < l && c->next != nullptr) {
      (c->prev != nullptr ? c->prev->next : head) = c->next;
      c->next->prev = c->prev;
      tail->next = c;
      c->prev = tail;
      c->next = nullptr;
      tail = c;
    }
    c = following;
  }
}

}  // namespace velmar_2d::detail
