// The sides of the domain and their records.
#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

NeighbourLink side_link(const State& state, int direction, double x, double y) {
  static constexpr std::array<std::string_view, 4> names = {"North", "East", "South", "West"};
  if (!state.bc_type_ptr) {
    fatal(state.handlers,
          "(Velmar_2D:) ERROR: there is no procedure for the sides\n"
          "             ('bc_type_ptr' is not set)");
  }
  const auto side = static_cast<std::size_t>(direction / 2);
  if (Boundary* cut = state.side_records[side][bc_type_cut]) return cut;
  const std::int32_t kind = state.bc_type_ptr(x, y, names[side]);
  if (kind < 0 || kind > 2) return nullptr;
  return state.side_records[side][static_cast<std::size_t>(kind)];
}

}  // namespace velmar_2d::detail
