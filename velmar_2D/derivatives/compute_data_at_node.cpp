// Gradient and Hessian of the data at a node.
//
//     neighbours           path
//     regular square       differences on the five nodes and a far corner
//     six rows and more    one fit: nodes with many neighbours, squares at a side
//     fewer                rows of neighbours' neighbours are added until a fit accepts them
//     one, in a corner     taken over from that neighbour
//
// Fits are made by the shape of their stencil where the nodes lie on the lattice.
#include <cmath>
#include <string>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

void quick_fit_hessian_6pts(const State& state, int quick_hessian_case, std::int32_t level,
                            const Stencil& list, double& dx2, double& dy2, double& dxdy) {
  if (quick_hessian_case < 1 || quick_hessian_case > 4) {
    fatal(state.handlers,
          "(Velmar_2D:) compute_data_at_node: internal error\n"
          "             quick_hessian_case = " +
              std::to_string(quick_hessian_case) + " in 'quick_fit_hessian_6pts' !");
  }
  // The four neighbours, turned so that the far corner lies between the first two.
  const double* neighbours = list.value + 1;
  const int first = 1 - quick_hessian_case;
  const double b1 = neighbours[first & 3], b2 = neighbours[(first + 1) & 3];
  const double b3 = neighbours[(first + 2) & 3], b4 = neighbours[(first + 3) & 3];
  const double f0 = list.value[0], f6 = list.value[5];

  const double factor = power_of_2(level) / (state.domain.dist_0 * state.domain.dist_0);
  dx2 = (b2 - (f0 + f0) + b4) * factor;
  dy2 = (b1 - (f0 + f0) + b3) * factor;
  dxdy = (f0 - b1 - b2 + f6) * factor;
}

void quick_gradient_case(const Cell* c, double& grad_x, double& grad_y) {
  if (c->level % 2 == 0) {
    const Cell &n = *c->n.cell(), &e = *c->e.cell(), &s = *c->s.cell(), &w = *c->w.cell();
    grad_x = (first_data(e) - first_data(w)) / (e.x - w.x);
    grad_y = (first_data(n) - first_data(s)) / (n.y - s.y);
    return;
  }
  const Cell &ne = *c->ne.cell(), &se = *c->se.cell(), &sw = *c->sw.cell(), &nw = *c->nw.cell();
  const double f_ne = first_data(ne), f_se = first_data(se), f_sw = first_data(sw),
               f_nw = first_data(nw);
  grad_x = ((f_ne + f_se) - (f_nw + f_sw)) / (2.0 * (ne.x - nw.x));
  grad_y = ((f_ne + f_nw) - (f_se + f_sw)) / (2.0 * (ne.y - se.y));
}

void gradient_on_boundary(const State& state, const Cell* c, bool& grad_x_null, bool& grad_y_null) {
  if (c->on_boundary == 0) {
    fatal(state.handlers,
          "(Velmar_2D:) gradient_on_boundary: internal error\n"
          "             cell must be on a boundary!");
  }
  grad_x_null = grad_y_null = false;
  for (const int direction : straight_directions) {
    const Boundary* side = link(*c, direction).boundary();
    if (side == nullptr || side->bc_type != bc_type_neu) continue;
    (direction == north || direction == south ? grad_y_null : grad_x_null) = true;
    return;
  }
}

namespace {

[[noreturn]] void internal_error(const State& state, const std::string& lines) {
  fatal(state.handlers, "(Velmar_2D:) compute_data_at_node: internal error\n" + lines);
}

/// Levels whose spacing the criteria can express; beyond them no fit is accepted.
constexpr std::int32_t highest_fit_level = 31;

bool has_fit_level(const Cell& c) { return c.level >= 0 && c.level <= highest_fit_level; }

/// What one call finds out about its node.
struct Derivatives {
  double dx2 = 0.0, dy2 = 0.0, dxdy = 0.0, dx = 0.0, dy = 0.0;
};

using Fit = void(const State&, Workspace&, const Cell*, const Stencil&, int, double&, double&,
                 double&, double&, double&, bool&);

bool accepts(Fit fit, const State& state, Workspace& work, const Cell* c, int n_list,
             Derivatives& d) {
  bool succ = false;
  fit(state, work, c, work.list_1, n_list, d.dx2, d.dy2, d.dxdy, d.dx, d.dy, succ);
  return succ;
}

/// fit_hessian_centred(), by the shape where that is known. Needs: a level that has fits.
void fit_centred_by_shape(const State& state, Workspace& work, const Cell* c, const Stencil& list,
                          int n_list, double& dx2, double& dy2, double& dxdy, double& dx,
                          double& dy, bool& fit_hessian_succ) {
  const FitOperator* op = find_operator(state, work, c, list, n_list);
  fit_hessian_succ = op != nullptr;
  if (fit_hessian_succ) {
    apply_operator(state.domain, *op, c, list, n_list, dx2, dy2, dxdy, dx, dy);
  } else {
    fit_hessian_centred(state, work, c, list, n_list, dx2, dy2, dxdy, dx, dy, fit_hessian_succ);
  }
}

/// A stencil that cannot be changed. The centred criterion is asked first: where it accepts, both
/// criteria lead to the same derivatives.
void fit_as_it_is(const State& state, Workspace& work, const Cell* c, int n_list, Derivatives& d) {
  if (has_fit_level(*c) && accepts(fit_centred_by_shape, state, work, c, n_list, d)) return;
  if (accepts(fit_hessian_6pts, state, work, c, n_list, d)) return;
  internal_error(state,
                 "             list_2_offset = 0\n"
                 "             c%id = " +
                     std::to_string(c->id));
}

/// Accepts where the shape of the six rows tells that fit_hessian_6pts() would.
void fit_if_certain(const State& state, Workspace& work, const Cell* c, const Stencil& list,
                    int n_list, double& dx2, double& dy2, double& dxdy, double& dx, double& dy,
                    bool& fit_hessian_succ) {
  const FitOperator* op = has_fit_level(*c) ? find_operator(state, work, c, list, n_list) : nullptr;
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

/// Walks the last row of the stencil through the candidates; when they are used up, the row before
/// it moves on by one candidate and the last row starts again behind it. Not every pair is tried.
///
/// @param n_added  rows of the stencil that are candidates already
/// @return whether a stencil was accepted
bool search(Fit fit, const State& state, Workspace& work, const Cell* c, int n_list, int n_added,
            int n_candidates, Derivatives& d) {
  int list_2_offset = n_added, list_2_init_offset = n_added;
  while (!accepts(fit, state, work, c, n_list, d)) {
    if (++list_2_offset > n_candidates) {
      copy_row(work.list_1, n_list - 2, work.list_2, list_2_init_offset - 1);
      if (++list_2_init_offset > n_candidates) return false;
      list_2_offset = list_2_init_offset;
    }
    copy_row(work.list_1, n_list - 1, work.list_2, list_2_offset - 1);
  }
  return true;
}

/// Where the search runs out, it starts anew with the centred criterion.
void fit_with_candidates(const State& state, Workspace& work, const Cell* c, int n_list,
                         int n_added, int n_candidates, Derivatives& d) {
  if (accepts(fit_if_certain, state, work, c, n_list, d)) return;
  const Stencil start = work.list_1;
  if (!(has_fit_level(*c) &&
        search_is_hopeless(state.domain, c, work.list_1, n_list, work.list_2, n_candidates))) {
    if (search(fit_by_shape, state, work, c, n_list, n_added, n_candidates, d)) return;
    work.list_1 = start;
  }
  if (has_fit_level(*c) &&
      search(fit_centred_by_shape, state, work, c, n_list, n_added, n_candidates, d))
    return;
  internal_error(state,
                 "             list_2_init_offset > n_list_2\n"
                 "             c%id = " +
                     std::to_string(c->id));
}

/// A corner with one neighbour takes its indicators from that one. The one-sided differences along
/// Neumann sides read the table as the call for the neighbour left it.
void corner_rule(const State& state, Workspace& work, Cell* c, Derivatives& d, bool& grad_x_null,
                 bool& grad_y_null) {
  Cell* tmp = nullptr;
  get_unique_neighbor_from_corner(c, tmp);
  if (tmp == nullptr) internal_error(state, "             a corner has no diagonal neighbour");
  compute_data_at_node(state, work, tmp, &d.dx, &d.dy);
  store_shared(c->grad2_data, load_shared(tmp->grad2_data));

  gradient_on_boundary(state, c, grad_x_null, grad_y_null);
  const double df = work.list_1.value[1] - work.list_1.value[0];
  if (grad_y_null) {
    d.dy = 0.0;
    d.dx = df / (work.list_1.x[1] - work.list_1.x[0]);
  } else if (grad_x_null) {
    d.dx = 0.0;
    d.dy = df / (work.list_1.y[1] - work.list_1.y[0]);
  }
  store_shared(c->grad_data, std::sqrt(d.dy * d.dy + d.dx * d.dx));
}

/// Fills the stencil of a node and fits it. False at a corner with one neighbour.
bool fit_derivatives(const State& state, Workspace& work, const Cell* c, int n_list_1,
                     Derivatives& d) {
  if (n_list_1 >= 6) {
    fit_as_it_is(state, work, c, n_list_1, d);
    return true;
  }
  if (n_list_1 == 5) {
    if (const Cell* candidate = first_candidate(c)) {
      append_row(work.list_1, n_list_1, *candidate);
      if (accepts(fit_if_certain, state, work, c, n_list_1, d)) return true;
      --n_list_1;
    }
  }
  extract_ids(c, work.list_1);
  int n_list_2 = 0;
  extract_neighbors_neighbors(c, work.list_2, n_list_2);
  unique_in_list(work, work.list_2, n_list_2);
  unique_in_lists(work, work.list_1, n_list_1, work.list_2, n_list_2);
  if (n_list_1 + n_list_2 < 5) internal_error(state, "             n_list_2 < 6-n_list_1 - 1");
  if (n_list_1 + n_list_2 == 5) {
    if (n_list_1 == 2) return false;
    weird_partial_hessian_5pts(work, c, work.list_1, work.list_2, n_list_1, n_list_2);
    fit_as_it_is(state, work, c, n_list_1, d);
    return true;
  }
  const int n_added = 6 - n_list_1;
  for (int row = 0; row < n_added; ++row) copy_row(work.list_1, n_list_1++, work.list_2, row);
  fit_with_candidates(state, work, c, n_list_1, n_added, n_list_2, d);
  return true;
}

}  // namespace

void compute_data_at_node(const State& state, Workspace& work, Cell* c, double* dfdx,
                          double* dfdy) {
  work.list_1.x[0] = c->x;
  work.list_1.y[0] = c->y;
  work.list_1.value[0] = first_data(*c);
  int n_list_1 = 1, quick_hessian_case = 0;
  if (c->reserve == 4)
    extract_neighbor_square(state.domain, c, work.list_1, n_list_1, quick_hessian_case);
  if (quick_hessian_case == 0) {
    extract_neighbors(c, work.list_1, n_list_1);
    if (c->on_boundary == 1 && c->reserve == 2) {
      extract_neighbors_square_boundary(c, work.list_1, n_list_1);
    }
  }

  Derivatives d;
  bool grad_x_null = false, grad_y_null = false;
  if (quick_hessian_case != 0) {
    quick_gradient_case(c, d.dx, d.dy);
    quick_fit_hessian_6pts(state, quick_hessian_case, c->level, work.list_1, d.dx2, d.dy2, d.dxdy);
  }
  if (quick_hessian_case != 0 || fit_derivatives(state, work, c, n_list_1, d)) {
    store_shared(c->grad_data, std::sqrt(d.dy * d.dy + d.dx * d.dx));
    store_shared(c->grad2_data,
                 std::sqrt(d.dxdy * d.dxdy + d.dxdy * d.dxdy + d.dy2 * d.dy2 + d.dx2 * d.dx2));
  } else {
    corner_rule(state, work, c, d, grad_x_null, grad_y_null);
  }

  if (dfdx == nullptr || dfdy == nullptr) return;
  if (c->on_boundary == 1) gradient_on_boundary(state, c, grad_x_null, grad_y_null);
  *dfdx = grad_x_null ? 0.0 : d.dx;
  *dfdy = grad_y_null ? 0.0 : d.dy;
}

void compute_data_at_all_nodes(State& state, int /*threads*/) {
  if (state.lists_are_split()) join_sublists(state);
  Workspace work;
  Walk walk = Walk::to_derive(state.history);
  for (Cell& c : walk(state.mesh_beg)) compute_data_at_node(state, work, &c);
}

}  // namespace velmar_2d::detail
