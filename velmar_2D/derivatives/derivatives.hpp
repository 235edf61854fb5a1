// Derivatives of the data at a node, from the rows of a stencil. Never installed.
#pragma once

#include <cassert>

#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

// ---------------------------------------------------------------------------------------------
// Stencils (stencil.cpp, alignment.cpp): the nodes from which derivatives are computed
// ---------------------------------------------------------------------------------------------

/// Rows of nodes, stored column by column; the number of used rows is kept beside the table.
template <int nb_rows>
struct StencilTable {
  static constexpr int capacity = nb_rows;
  double id[nb_rows];  ///< id of the node; 0 for a row that is no node
  double x[nb_rows];
  double y[nb_rows];
  double value[nb_rows];      ///< data(1) of the node
  double distance2[nb_rows];  ///< auxiliary: a squared distance, where a builder sets it
};

/// The rows that a fit uses: the node first, then its neighbours.
using Stencil = StencilTable<9>;
/// The neighbours' neighbours, candidates for the rows that a stencil lacks.
using Candidates = StencilTable<40>;

/// What one computation works with. It lives as long as that one, no step of it allocates, and none
/// is shared by two threads.
struct Workspace {
  /// The tables of the node at work. The computation leaves them as its last step used them; a
  /// corner of the domain reads them after the one for its neighbour.
  Stencil list_1;
  Candidates list_2;
  Candidates sorted;  ///< while candidates are brought into their order

  /// The system in absolute coordinates, with the leading dimension 9.
  struct Absolute {
    double a[Stencil::capacity * linpack_order];
    std::int32_t ipiv[linpack_order];
    double work[linpack_order];
  } absolute;
  /// The system in coordinates centred on the node.
  struct Centred {
    double a[linpack_order * linpack_order];
    double b[linpack_order];
    std::int32_t ipiv[linpack_order];
    double work[linpack_order];
    double inverse_size;  ///< 1 / largest distance of a row from the node
  } centred;
  FitOperator op;  ///< one that the mesh has no place for
};

/// Copies a row; rows are counted from 0. The distance stays behind.
template <int nb_rows>
void copy_row(StencilTable<nb_rows>& to, int row, const Candidates& from, int from_row) {
  to.id[row] = from.id[from_row];
  to.x[row] = from.x[from_row];
  to.y[row] = from.y[from_row];
  to.value[row] = from.value[from_row];
}

/// Appends a row. Leaves the id out, which lies on another cache line.
template <int nb_rows>
void append_row(StencilTable<nb_rows>& list, int& n_list, const Cell& c) {
  assert(n_list < nb_rows);
  if (n_list >= nb_rows) return;
  list.x[n_list] = c.x;
  list.y[n_list] = c.y;
  list.value[n_list] = first_data(c);
  ++n_list;
}

/// Appends the Cells among the eight links, in the order of the links, without their ids.
void extract_neighbors(const Cell* c, Stencil& list, int& n_list);
/// Fills in the ids of the node and the neighbours, rows 0 and following, which are wanted only
/// where candidates are compared with them.
void extract_ids(const Cell* c, Stencil& list);
/// As extract_neighbors() into a table of candidates, with ids. What it has no room for is left
/// out.
void extract_neighbors_l2(const Cell* c, Candidates& list, int& n_list);
/// Appends the neighbours of every neighbour: the node itself and repetitions included.
void extract_neighbors_neighbors(const Cell* c, Candidates& list, int& n_list);

/// Sorts by ascending id and keeps the first row of each id.
void unique_in_list(Workspace& work, Candidates& list, int& n_list);
/// Drops the candidates that the stencil holds already and brings the others into the order in
/// which they are tried: a distance order, though not an ascending one (see the definition).
void unique_in_lists(Workspace& work, const Stencil& list, int n_list, Candidates& candidates,
                     int& n_candidates);

/// The candidate that comes first in that order, of a node with at most five neighbours, whose
/// neighbours' neighbours a table has room for: the nearest one, and of those the oldest. nullptr
/// where there is none. Sorts and copies nothing.
const Cell* first_candidate(const Cell* c);

/// Recognises the regular square: four neighbours and no others, at one spacing, and a far corner
/// that closes a square with two of them. Appends all five and tells which two (1 to 4), else gives
/// case 0 and appends nothing.
void extract_neighbor_square(const Domain& domain, const Cell* c, Stencil& list, int& n_list,
                             int& quick_hessian_case);
/// At a node on a side with three neighbours: appends the two far corners of the squares inwards
/// and the node two steps inwards, if all three are there.
void extract_neighbors_square_boundary(const Cell* c, Stencil& list, int& n_list);
/// The diagonal neighbour of a corner node; leaves `tmp` as it is where there is none.
void get_unique_neighbor_from_corner(const Cell* c, Cell*& tmp);

/// Whether no four of the rows lie on one straight line.
bool are_4pts_not_aligned(const Stencil& list, int n_list);
/// The same for a node and its neighbours.
bool are_4pts_not_aligned_neighbors(const Cell* c);
/// Whether the first six rows do not fall on two straight lines of three, in which case no
/// quadratic could be told from its values there.
bool are_6pts_not_aligned_3_by_3(const Stencil& list);

// ---------------------------------------------------------------------------------------------
// Fits
// ---------------------------------------------------------------------------------------------

/// The condition estimate from which on six rows in absolute coordinates are accepted, for a node
/// of this level.
inline double least_condition(const Domain& domain, std::int32_t level) {
  constexpr double per_spacing2 = 0.001;
  return per_spacing2 * domain.dist_0 * domain.dist_0 / power_of_2(level);
}

/// Least-squares quadratic through the rows of a stencil; its derivatives at the node.
///
/// The stencil is refused (`fit_hessian_succ` false, outputs untouched) where the condition
/// estimate of the system in absolute coordinates lies below 0.001 dist_0^2 / 2^level, squared for
/// more than six rows. The derivatives of an accepted one come from the same problem in coordinates
/// centred on the node, where they keep their digits wherever the domain lies. Ends the process
/// with fewer than six rows.
void fit_hessian_6pts(const State& state, Workspace& work, const Cell* c, const Stencil& list,
                      int n_list, double& dx2, double& dy2, double& dxdy, double& dx, double& dy,
                      bool& fit_hessian_succ);

/// fit_hessian_6pts() with another criterion, which does not depend on where the domain lies: the
/// condition estimate of the centred system, at least 1e-6 for six rows, 1e-8 for more.
void fit_hessian_centred(const State& state, Workspace& work, const Cell* c, const Stencil& list,
                         int n_list, double& dx2, double& dy2, double& dxdy, double& dx, double& dy,
                         bool& fit_hessian_succ);

/// The operator of a stencil: the node, its neighbours, and up to three rows more. nullptr where
/// the rows do not lie on the lattice, where they lie too far apart, or where the centred criterion
/// refuses them. Good until the next call.
///
/// Needs: a level of 0 or more.
const FitOperator* find_operator(const State& state, Workspace& work, const Cell* c,
                                 const Stencil& list, int n_list);
/// The derivatives that a fit would give, up to rounding.
void apply_operator(const Domain& domain, const FitOperator& op, const Cell* c, const Stencil& list,
                    int n_list, double& dx2, double& dy2, double& dxdy, double& dx, double& dy);
/// Whether fit_hessian_6pts() is bound to accept these six rows. Cheaper than asking it, and true
/// for nearly all that it accepts.
bool acceptance_is_certain(const Domain& domain, const FitOperator& op, const Cell* c,
                           const Stencil& list);

/// Completes five nodes to six rows: the candidates, and the parallelogram of two rows and the node
/// that gives the best conditioned system. No mixed difference is then seen along those two.
void weird_partial_hessian_5pts(Workspace& work, const Cell* c, Stencil& list,
                                const Candidates& candidates, int& n_list, int n_candidates);

/// Whether fit_hessian_6pts() would refuse each stencil of a search, told without trying them: the
/// first n_list - 2 rows of the list with any two of its last two rows and the candidates.
///
/// May miss a hopeless search, never condemns one that would find a stencil.
bool search_is_hopeless(const Domain& domain, const Cell* c, const Stencil& list, int n_list,
                        const Candidates& candidates, int n_candidates);

/// Second derivatives on the regular square, by differences. Along the axes of the square, so only
/// their Frobenius norm has a meaning for all cases and levels.
/// Ends the process if the case is none of 1 to 4.
void quick_fit_hessian_6pts(const State& state, int quick_hessian_case, std::int32_t level,
                            const Stencil& list, double& dx2, double& dy2, double& dxdy);

/// Gradient on the regular square, by central differences.
void quick_gradient_case(const Cell* c, double& grad_x, double& grad_y);

/// Which component of the gradient a Neumann side forces to 0: at most one.
/// Ends the process if the node lies inside.
void gradient_on_boundary(const State& state, const Cell* c, bool& grad_x_null, bool& grad_y_null);

/// Least-squares quadratic through scattered rows, evaluated at (x, y), for a node of a level.
///
/// `value` stays as it is where the system is too ill-conditioned, by the rule of
/// fit_hessian_6pts(); the coordinates are used as they are.
/// Ends the process with fewer than six rows.
void fit_data(const State& state, const Candidates& list, int n_list, double x, double y,
              double& value, std::int32_t level);

// ---------------------------------------------------------------------------------------------
// The derivatives at a node (compute_data_at_node.cpp)
// ---------------------------------------------------------------------------------------------

void compute_data_at_node(const State& state, Workspace& work, Cell* c, double* dfdx = nullptr,
                          double* dfdy = nullptr);
/// For every node, in the order of the list, or by several threads.
void compute_data_at_all_nodes(State& state, int threads);

}  // namespace velmar_2d::detail
