#include "velmar_2D/mesh/state.hpp"

#include <string>

namespace velmar_2d::detail {

State::State() = default;

State::~State() { release_all_nodes(*this); }

void require_mesh(const State& state, std::string_view operation) {
  if (state.nb_nodes > 0) return;
  fatal(state.handlers, "(velmar_2D/" + std::string(operation) +
                            ":) ERROR: there is no mesh!\n"
                            "        (It must be made by init_mesh before this call.)");
}

void allocation_failed(const State& state, std::size_t bytes) {
  if (state.has_another_way) throw Exhausted{bytes};
  allocation_failed(state.handlers, bytes);
}

}  // namespace velmar_2d::detail
