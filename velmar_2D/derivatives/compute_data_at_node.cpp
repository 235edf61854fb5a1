// Gradient and Hessian of the data at a node: the rule, step by step, with nothing avoided.
//
//     neighbours           path
//     regular square       differences on the five nodes and a far corner
//     six rows and more    one fit: nodes with many neighbours, squares at a side
//     fewer                rows of neighbours' neighbours are added until a fit accepts them
//     one, in a corner     taken over from that neighbour
//     no fit accepts       in a mesh that is resolved, a plane; the end otherwise
//
// What meshes use is compute_data_at_node() of derivatives_by_shortcuts.cpp, which gives the same.
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

  const double factor = power_of_2(state, level) / (state.domain.dist_0 * state.domain.dist_0);
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

void gradient_on_boundary(const Handlers& handlers, const Cell* c, bool& grad_x_null,
                          bool& grad_y_null) {
  if (c->on_boundary == 0) {
    fatal(handlers,
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

void derivatives_internal_error(const Handlers& handlers, const std::string& lines) {
  fatal(handlers, "(Velmar_2D:) compute_data_at_node: internal error\n             " + lines);
}

bool fits_plane(const State& state, const Workspace& work, const Cell& c, Derivatives& d) {
  if (work.order != CandidateOrder::by_place || !has_fit_level(state, c)) return false;
  double xx = 0.0, xy = 0.0, yy = 0.0, xf = 0.0, yf = 0.0;
  for (int direction = 0; direction < nb_directions; ++direction) {
    const Cell* there = link(c, direction).cell();
    if (there == nullptr) continue;
    const double x = there->x - c.x, y = there->y - c.y, f = first_data(*there) - first_data(c);
    xx += x * x, xy += x * y, yy += y * y;
    xf += x * f, yf += y * f;
  }
  const double determinant = xx * yy - xy * xy;
  if (!(determinant > 0.0)) return false;
  d = {};
  d.dx = (yy * xf - xy * yf) / determinant;
  d.dy = (xx * yf - xy * xf) / determinant;
  return true;
}

void no_stencil_accepted(const State& state, const Workspace& work, const Cell& c, int n_added,
                         Derivatives& d) {
  if (fits_plane(state, work, c, d)) return;
  derivatives_internal_error(
      work.handlers_or(state.handlers),
      std::string(n_added == 0 ? "list_2_offset = 0" : "list_2_init_offset > n_list_2") +
          "\n             c%id = " + std::to_string(c.id));
}

bool search(Fit fit, const State& state, Workspace& work, const Cell* c, int n_list, int n_added,
            int n_candidates, Derivatives& d) {
  int list_2_offset = n_added, list_2_init_offset = n_added;
  while (!accepts(fit, state, work, c, n_list, d)) {
    if (n_added == 0) return false;
    if (++list_2_offset > n_candidates) {
      copy_row(work.list_1, n_list - 2, work.list_2, list_2_init_offset - 1);
      if (++list_2_init_offset > n_candidates) return false;
      list_2_offset = list_2_init_offset;
    }
    copy_row(work.list_1, n_list - 1, work.list_2, list_2_offset - 1);
  }
  return true;
}

int complete_stencil(const State& state, Workspace& work, const Cell* c, int& n_list_1,
                     int n_list_2) {
  if (n_list_1 + n_list_2 < 5) {
    derivatives_internal_error(work.handlers_or(state.handlers), "n_list_2 < 6-n_list_1 - 1");
  }
  if (n_list_1 + n_list_2 == 5) {
    weird_partial_hessian_5pts(work, c, work.list_1, work.list_2, n_list_1, n_list_2);
    return 0;
  }
  const int n_added = 6 - n_list_1;
  for (int row = 0; row < n_added; ++row) copy_row(work.list_1, n_list_1++, work.list_2, row);
  return n_added;
}

void store_indicators(Cell* c, const Derivatives& d) {
  store_shared(c->grad_data, std::sqrt(d.dy * d.dy + d.dx * d.dx));
  store_shared(c->grad2_data,
               std::sqrt(d.dxdy * d.dxdy + d.dxdy * d.dxdy + d.dy2 * d.dy2 + d.dx2 * d.dx2));
}

void hand_back(const State& state, const Cell* c, const Derivatives& d, double* dfdx,
               double* dfdy) {
  if (dfdx == nullptr || dfdy == nullptr) return;
  bool grad_x_null = false, grad_y_null = false;
  if (c->on_boundary == 1) gradient_on_boundary(state.handlers, c, grad_x_null, grad_y_null);
  *dfdx = grad_x_null ? 0.0 : d.dx;
  *dfdy = grad_y_null ? 0.0 : d.dy;
}

Cell* neighbor_of_corner(const Handlers& handlers, const Cell* c) {
  Cell* tmp = nullptr;
  get_unique_neighbor_from_corner(c, tmp);
  if (tmp == nullptr) {
    derivatives_internal_error(handlers, "a corner has no diagonal neighbour");
  }
  return tmp;
}

void corner_rule(const Handlers& handlers, const Stencil& list_1, Cell* c, const Cell* tmp,
                 Derivatives& d) {
  store_shared(c->grad2_data, load_shared(tmp->grad2_data));
  bool grad_x_null = false, grad_y_null = false;
  gradient_on_boundary(handlers, c, grad_x_null, grad_y_null);
  const double df = list_1.value[1] - list_1.value[0];
  if (grad_y_null) {
    d.dy = 0.0;
    d.dx = df / (list_1.x[1] - list_1.x[0]);
  } else if (grad_x_null) {
    d.dx = 0.0;
    d.dy = df / (list_1.y[1] - list_1.y[0]);
  }
  store_shared(c->grad_data, std::sqrt(d.dy * d.dy + d.dx * d.dx));
}

void compute_data_at_node_by_rule(const State& state, Workspace& work, Cell* c, double* dfdx,
                                  double* dfdy) {
  const Handlers& handlers = work.handlers_or(state.handlers);
  Stencil& list_1 = work.list_1;
  int n_list_1 = 0;
  Derivatives d;
  work.order = state.candidate_order;

  // The node and its neighbours, and what closes a regular square or the squares at a side.
  append_row(list_1, n_list_1, *c);
  extract_neighbors(c, list_1, n_list_1);
  int quick_hessian_case = 0;
  if (c->reserve == 4 && n_list_1 == 5) {
    extract_neighbor_square(state.domain, c, list_1, n_list_1, quick_hessian_case);
  }
  if (c->on_boundary == 1 && c->reserve == 2) {
    extract_neighbors_square_boundary(c, list_1, n_list_1);
  }

  if (quick_hessian_case != 0) {
    quick_gradient_case(c, d.dx, d.dy);
    quick_fit_hessian_6pts(state, quick_hessian_case, c->level, list_1, d.dx2, d.dy2, d.dxdy);
  } else {
    // Too few rows for a quadratic: the neighbours' neighbours, in the order in which they are
    // tried.
    int n_list_2 = 0, n_added = 0;
    if (n_list_1 < 6) {
      Candidates& list_2 = work.list_2;
      extract_ids(c, list_1);
      extract_neighbors_neighbors(c, list_2, n_list_2);
      unique_in_list(work, list_2, n_list_2);
      unique_in_lists(work, list_1, n_list_1, list_2, n_list_2);
      if (n_list_1 == 2 && n_list_2 == 3) {
        Cell* tmp = neighbor_of_corner(handlers, c);
        compute_data_at_node_by_rule(state, work, tmp, &d.dx, &d.dy);
        corner_rule(handlers, list_1, c, tmp, d);
        hand_back(state, c, d, dfdx, dfdy);
        return;
      }
      if (n_list_1 + n_list_2 < 5 && fits_plane(state, work, *c, d)) {
        store_indicators(c, d);
        hand_back(state, c, d, dfdx, dfdy);
        return;
      }
      n_added = complete_stencil(state, work, c, n_list_1, n_list_2);
    }
    // Where no stencil is accepted, the search starts anew with the centred criterion.
    const Stencil start = list_1;
    if (!search(fit_hessian_6pts, state, work, c, n_list_1, n_added, n_list_2, d)) {
      list_1 = start;
      if (!has_fit_level(state, *c) ||
          !search(fit_hessian_centred, state, work, c, n_list_1, n_added, n_list_2, d)) {
        no_stencil_accepted(state, work, *c, n_added, d);
      }
    }
  }
  store_indicators(c, d);
  hand_back(state, c, d, dfdx, dfdy);
}

}  // namespace velmar_2d::detail
