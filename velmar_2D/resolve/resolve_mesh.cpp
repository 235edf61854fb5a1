// The entry points of resolving, which differ as those of the other updates do.
#include <string>

#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

namespace {

void check_resolution(const State& state, const Resolution& resolution) {
  const auto refuse = [&](std::string_view name, const std::string& value) {
    fatal(state.handlers, "(velmar_2D/resolve_mesh:) ERROR: '" + std::string(name) + "' is " +
                              value + ",\n        but must not be negative");
  };
  if (!(resolution.margin >= 0.0)) refuse("margin", to_text(resolution.margin));
  if (!(resolution.slope >= 0.0)) refuse("slope", to_text(resolution.slope));
  if (resolution.most_nodes < 0) refuse("most_nodes", std::to_string(resolution.most_nodes));
  if (resolution.threads < 0) refuse("threads", std::to_string(resolution.threads));
}

template <typename SizeFunction>
void resolve_with_init(State& state, const SizeFunction& size_fun, init_data_function& init_data,
                       const Resolution& resolution) {
  check_resolution(state, resolution);
  begin_with_init(state, "resolve_mesh", static_cast<bool>(size_fun), init_data);
  state.candidate_order = CandidateOrder::by_place;
  resolve_mesh_body(state, size_fun, resolution, true);
}

template <typename SizeFunction>
void resolve_with_interpolation(State& state, const SizeFunction& size_fun,
                                const Resolution& resolution) {
  check_resolution(state, resolution);
  begin_with_interpolation(state, "resolve_mesh", static_cast<bool>(size_fun));
  state.candidate_order = CandidateOrder::by_place;
  resolve_mesh_body(state, size_fun, resolution, state.n_cell_data > 0);
}

}  // namespace

void resolve_mesh_init(State& state, const size_function& size_fun, init_data_function init_data,
                       const Resolution& resolution) {
  resolve_with_init(state, size_fun, init_data, resolution);
}

void resolve_mesh_init(State& state, const batch_size_function& size_fun,
                       init_data_function init_data, const Resolution& resolution) {
  resolve_with_init(state, size_fun, init_data, resolution);
}

void resolve_mesh_no_init(State& state, const size_function& size_fun,
                          const Resolution& resolution) {
  resolve_with_interpolation(state, size_fun, resolution);
}

void resolve_mesh_no_init(State& state, const batch_size_function& size_fun,
                          const Resolution& resolution) {
  resolve_with_interpolation(state, size_fun, resolution);
}

}  // namespace velmar_2d::detail
