// Whether special refinement would insert anything around a node: asked of every node of every
// update, and seldom true.
#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

namespace {

/// Only tells whether anything is found that refine_cell() would insert in special mode. Most nodes
/// are turned down by their own fields or those of the first neighbour.
struct SpecialProbe {
  const State& state;
  bool found = false;

  static bool admits(const Cell& c) { return c.reserve != 4; }

  void add(const ClosedFigure& figure, int /*towards_first*/) {
    if (admits(*figure.corners[3]) &&
        figure.level(state, ipos_of(state, figure)) <= state.level_max) {
      found = true;
    }
  }
  void add(const HalfDiamond& half, const std::array<int, 3>& /*directions*/) {
    found = found || half.level(state, ipos_of(state, half)) <= state.level_max;
  }
};

}  // namespace

bool special_refinement_possible(const State& state, Cell& c) {
  // Closed figures are out where c awaits all its neighbours; half ones lie at the sides.
  if (state.domain.may_have_neighbour_on_side(c) || state.links_may_be_one_way) {
    SpecialProbe probe{state};
    try_all(probe, c);
    return probe.found;
  }
  if (!SpecialProbe::admits(c)) return false;
  // A figure has two neighbours of c a quarter turn apart, with no link of c between them. Most
  // often the only ones that have begun to rise lie on a line with c.
  std::array<bool, nb_directions> risen{};
  for (std::size_t d = 0; d < nb_directions; ++d) {
    const Cell* neighbour = link(c, static_cast<int>(d)).cell();
    risen[d] = neighbour != nullptr && SpecialProbe::admits(*neighbour);
  }
  SpecialProbe probe{state};
  for (std::size_t i = 0; i < nb_directions && !probe.found; ++i) {
    if (!risen[i] || !risen[(i + 2) % nb_directions]) continue;
    const int d = static_cast<int>(i);
    if (d % 2 == 0) {
      try_square(probe, c, d + 1);
    } else {
      try_diamond(probe, c, *link(c, d).cell(), d);
    }
  }
  return probe.found;
}

}  // namespace velmar_2d::detail
