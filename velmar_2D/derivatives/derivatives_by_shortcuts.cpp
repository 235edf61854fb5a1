// The derivatives at a node as meshes compute them: the rule of compute_data_at_node.cpp with all
// shortcuts.
//
//     the square is looked for first      most nodes have one, and need no list of neighbours
//     fits by shape                       fit_by_shape.cpp
//     the centred criterion first         where it accepts a stencil that cannot be changed, both
//                                         criteria lead to the same derivatives
//     the first candidate alone           first_candidate.cpp
//     the order of the others             candidate_order.cpp
//     hopeless searches                   hopeless_search.cpp
//     conditions proven, not estimated    proven_condition.cpp
#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

/// fit_hessian_centred(), by the shape where that is known. Needs: a level that has fits.
void fit_centred_by_shape(const State& state, Workspace& work, const Cell* c, const Stencil& list,
                          int n_list, double& dx2, double& dy2, double& dxdy, double& dx,
                          double& dy, bool& fit_hessian_succ) {
  const FitOperator* op = find_operator(state, work, c, list, n_list);
  fit_hessian_succ = op != nullptr;
  if (fit_hessian_succ) {
    apply_operator(state.domain, *op, c, list, n_list, dx2, dy2, dxdy, dx, dy);
  } else {
    fit_hessian_centred_by_proof(state, work, c, list, n_list, dx2, dy2, dxdy, dx, dy,
                                 fit_hessian_succ);
  }
}

/// Accepts where the shape of the six rows tells that fit_hessian_6pts() would.
void fit_if_certain(const State& state, Workspace& work, const Cell* c, const Stencil& list,
                    int n_list, double& dx2, double& dy2, double& dxdy, double& dx, double& dy,
                    bool& fit_hessian_succ) {
  const FitOperator* op =
      has_fit_level(state, *c) ? find_operator(state, work, c, list, n_list) : nullptr;
  fit_hessian_succ = op != nullptr && acceptance_is_certain(state.domain, *op, c, list);
  if (fit_hessian_succ) apply_operator(state.domain, *op, c, list, n_list, dx2, dy2, dxdy, dx, dy);
}

/// fit_hessian_6pts(), by the shape where that will do.
void fit_by_shape(const State& state, Workspace& work, const Cell* c, const Stencil& list,
                  int n_list, double& dx2, double& dy2, double& dxdy, double& dx, double& dy,
                  bool& fit_hessian_succ) {
  fit_if_certain(state, work, c, list, n_list, dx2, dy2, dxdy, dx, dy, fit_hessian_succ);
  if (!fit_hessian_succ) {
    fit_hessian_6pts(state, work, c, list, n_list, dx2, dy2, dxdy, dx, dy, fit_hessian_succ);
  }
}

/// A stencil that cannot be changed.
void fit_as_it_is(const State& state, Workspace& work, const Cell* c, int n_list, Derivatives& d) {
  if (has_fit_level(state, *c) && accepts(fit_centred_by_shape, state, work, c, n_list, d)) return;
  if (accepts(fit_hessian_6pts, state, work, c, n_list, d)) return;
  no_stencil_accepted(state, work, *c, 0, d);
}

void fit_with_candidates(const State& state, Workspace& work, const Cell* c, int n_list,
                         int n_added, int n_candidates, Derivatives& d) {
  if (accepts(fit_if_certain, state, work, c, n_list, d)) return;
  const Stencil start = work.list_1;
  if (!(has_fit_level(state, *c) &&
        search_is_hopeless(state.domain, c, work.list_1, n_list, work.list_2, n_candidates))) {
    if (search(fit_by_shape, state, work, c, n_list, n_added, n_candidates, d)) return;
    work.list_1 = start;
  }
  if (has_fit_level(state, *c) &&
      search(fit_centred_by_shape, state, work, c, n_list, n_added, n_candidates, d))
    return;
  no_stencil_accepted(state, work, *c, n_added, d);
}

/// Fills the stencil of a node and fits it. False at a corner with one neighbour.
bool fit_derivatives(const State& state, Workspace& work, const Cell* c, int n_list_1,
                     Derivatives& d) {
  if (n_list_1 >= 6) {
    fit_as_it_is(state, work, c, n_list_1, d);
    return true;
  }
  if (n_list_1 == 5) {
    if (const Cell* candidate = first_candidate(c, work.order)) {
      append_row(work.list_1, n_list_1, *candidate);
      if (accepts(fit_if_certain, state, work, c, n_list_1, d)) return true;
      --n_list_1;
    }
  }
  extract_ids(c, work.list_1);
  int n_list_2 = 0;
  extract_neighbors_neighbors(c, work.list_2, n_list_2);
  order_candidates(work, work.list_1, n_list_1, work.list_2, n_list_2);
  if (n_list_1 == 2 && n_list_2 == 3) return false;
  if (n_list_1 + n_list_2 < 5 && fits_plane(state, work, *c, d)) return true;
  const int n_added = complete_stencil(state, work, c, n_list_1, n_list_2);
  if (n_added == 0) {
    fit_as_it_is(state, work, c, n_list_1, d);
  } else {
    fit_with_candidates(state, work, c, n_list_1, n_added, n_list_2, d);
  }
  return true;
}

/// All but handing back the gradient: one procedure for all who ask, into which the compiler can
/// put the steps.
void find_derivatives(const State& state, Workspace& work, Cell* c, Derivatives& d) {
  int n_list_1 = 0, quick_hessian_case = 0;
  append_row(work.list_1, n_list_1, *c);
  if (c->reserve == 4) {
    extract_neighbor_square(state.domain, c, work.list_1, n_list_1, quick_hessian_case);
  }
  if (quick_hessian_case != 0) {
    quick_gradient_case(c, d.dx, d.dy);
    quick_fit_hessian_6pts(state, quick_hessian_case, c->level, work.list_1, d.dx2, d.dy2, d.dxdy);
  } else {
    extract_neighbors(c, work.list_1, n_list_1);
    if (c->on_boundary == 1 && c->reserve == 2) {
      extract_neighbors_square_boundary(c, work.list_1, n_list_1);
    }
    if (!fit_derivatives(state, work, c, n_list_1, d)) {
      const Handlers& handlers = work.handlers_or(state.handlers);
      Cell* tmp = neighbor_of_corner(handlers, c);
      compute_data_at_node(state, work, tmp, &d.dx, &d.dy);
      corner_rule(handlers, work.list_1, c, tmp, d);
      return;
    }
  }
  store_indicators(c, d);
}

}  // namespace

void compute_data_at_node(const State& state, Workspace& work, Cell* c, double* dfdx,
                          double* dfdy) {
  Derivatives d;
  work.order = state.candidate_order;
  find_derivatives(state, work, c, d);
  hand_back(state, c, d, dfdx, dfdy);
}

}  // namespace velmar_2d::detail
