// Derivatives of the data at a node, from the rows of a stencil: the rule, and shortcuts to what it
// gives. Never installed.
#pragma once

#include <atomic>
#include <cassert>
#include <string>
#include <thread>
#include <utility>

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
  FitOperator op;                                 ///< one that the mesh has no place for
  CandidateOrder order = CandidateOrder::by_age;  ///< of candidates, as the mesh wants it

  /// Told of a failure instead of the mesh's own, which only the caller's thread may call.
  const Handlers* handlers = nullptr;
  const Handlers& handlers_or(const Handlers& of_mesh) const {
    return handlers != nullptr ? *handlers : of_mesh;
  }
};

/// That of one of several threads: a failure throws, and what it says is found out by one thread
/// alone, afterwards.
struct ThreadWorkspace {
  struct Failure {};

  ThreadWorkspace() {
    handlers.fatal = [](std::string_view) { throw Failure(); };
    work.handlers = &handlers;
  }
  ThreadWorkspace(const ThreadWorkspace&) = delete;
  ThreadWorkspace& operator=(const ThreadWorkspace&) = delete;

  Handlers handlers;
  Workspace work;
};

/// Nodes that several threads have done, which the thread that made this tells of.
template <typename Tell>
class DoneTogether {
 public:
  /// @param tell  of so many more nodes
  explicit DoneTogether(const Tell& tell) : tell_(tell) {}
  void add(std::size_t nb_nodes) {
    nb_done_ += nb_nodes;
    if (std::this_thread::get_id() == caller_) tell_news();
  }
  /// By the caller's thread, when no other adds any more.
  /// @return how many all have done
  std::size_t end() {
    tell_news();
    return nb_done_;
  }

 private:
  void tell_news() {
    const std::size_t nb_done = nb_done_;
    tell_(nb_done - std::exchange(nb_told_, nb_done));
  }

  const Tell& tell_;
  std::atomic<std::size_t> nb_done_ = 0;
  std::size_t nb_told_ = 0;
  const std::thread::id caller_ = std::this_thread::get_id();
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

/// Ids are stored as doubles, as all columns are, and compared as integers.
inline std::int64_t id_of(double id) { return static_cast<std::int64_t>(id); }

/// Which of two candidates comes first where both are as near. As the nodes of the grid were made,
/// from the south-east corner westwards and northwards, both orders agree.
inline bool comes_first(CandidateOrder order, double id, double x, double y, double other_id,
                        double other_x, double other_y) {
  if (order == CandidateOrder::by_age) return id_of(id) < id_of(other_id);
  return y != other_y ? y < other_y : x > other_x;
}
template <int nb_rows>
bool comes_first(CandidateOrder order, const StencilTable<nb_rows>& list, int row, int other) {
  return comes_first(order, list.id[row], list.x[row], list.y[row], list.id[other], list.x[other],
                     list.y[other]);
}

/// Sorts by the order of candidates, ascending ids or places, and keeps the first row of each node.
void unique_in_list(Workspace& work, Candidates& list, int& n_list);
/// Drops the candidates that the stencil holds already and brings the others into the order in
/// which they are tried: by repeated selection of the smallest distance, where the distances of the
/// rows behind the selected one do not move up with them.
void unique_in_lists(Workspace& work, const Stencil& list, int n_list, Candidates& candidates,
                     int& n_candidates);
/// The first step of that: the candidates that the stencil does not hold, with their distances.
void keep_unknown(const Stencil& list, int n_list, const Candidates& candidates, int n_candidates,
                  Candidates& kept, int& n_kept);

/// Recognises the regular square: four neighbours and no others, at one spacing, and a far corner
/// that closes a square with two of them. The node's row is then followed by those five, and the
/// case tells which two (1 to 4); else it is 0, and the rows stay as they are.
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
// Fits (fit_hessian.cpp, fit_data.cpp)
// ---------------------------------------------------------------------------------------------

/// The condition estimate from which on six rows in absolute coordinates are accepted, for a node
/// of this level.
inline double least_condition(const Domain& domain, std::int32_t level) {
  constexpr double per_spacing2 = 0.001;
  return per_spacing2 * domain.dist_0 * domain.dist_0 / power_of_2(level);
}
/// Whether a stencil that this criterion refuses may be accepted by the centred one. The criterion
/// can express spacings up to level 31; beyond, the free procedures accept none.
inline bool has_fit_level(const State& state, const Cell& c) {
  constexpr std::int32_t highest_fit_level = 31;
  return c.level >= 0 && (c.level <= highest_fit_level || state.handlers.of_object());
}
/// The condition estimate from which on centred systems, which know no unit of length, are
/// accepted: six rows, and normal equations.
inline double least_centred_condition(int n_list) { return n_list > linpack_order ? 1e-8 : 1e-6; }

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
/// condition estimate of the centred system.
void fit_hessian_centred(const State& state, Workspace& work, const Cell* c, const Stencil& list,
                         int n_list, double& dx2, double& dy2, double& dxdy, double& dx, double& dy,
                         bool& fit_hessian_succ);

/// The system in coordinates centred on the node, normal equations for more than six rows; the
/// derivatives at the node from its factors.
void build_centred_system(Workspace::Centred& centred, const Cell& c, const Stencil& list,
                          int n_list);
void solve_centred(Workspace::Centred& centred, double& dx2, double& dy2, double& dxdy, double& dx,
                   double& dy);

/// Completes five nodes to six rows: the candidates, and the parallelogram of two rows and the node
/// that gives the best conditioned system. No mixed difference is then seen along those two.
void weird_partial_hessian_5pts(Workspace& work, const Cell* c, Stencil& list,
                                const Candidates& candidates, int& n_list, int n_candidates);

/// Least-squares quadratic through scattered rows, evaluated at (x, y), for a node of a level.
///
/// `value` stays as it is where the system is too ill-conditioned, by the rule of
/// fit_hessian_6pts(); the coordinates are used as they are.
/// Ends the process with fewer than six rows.
void fit_data(const State& state, const Candidates& list, int n_list, double x, double y,
              double& value, std::int32_t level);

// ---------------------------------------------------------------------------------------------
// The rule (compute_data_at_node.cpp), and the pieces of it that the shortcuts share
// ---------------------------------------------------------------------------------------------

/// compute_data_at_node() step by step as one would write it down, slow: what the shortcuts are
/// held against.
void compute_data_at_node_by_rule(const State& state, Workspace& work, Cell* c,
                                  double* dfdx = nullptr, double* dfdy = nullptr);

/// Second derivatives on the regular square, by differences. Along the axes of the square, so only
/// their Frobenius norm has a meaning for all cases and levels.
/// Ends the process if the case is none of 1 to 4.
void quick_fit_hessian_6pts(const State& state, int quick_hessian_case, std::int32_t level,
                            const Stencil& list, double& dx2, double& dy2, double& dxdy);

/// Gradient on the regular square, by central differences.
void quick_gradient_case(const Cell* c, double& grad_x, double& grad_y);

/// Which component of the gradient a Neumann side forces to 0: at most one.
/// Ends the process if the node lies inside.
void gradient_on_boundary(const Handlers& handlers, const Cell* c, bool& grad_x_null,
                          bool& grad_y_null);

/// What one computation finds out about its node.
struct Derivatives {
  double dx2 = 0.0, dy2 = 0.0, dxdy = 0.0, dx = 0.0, dy = 0.0;
};

using Fit = void(const State&, Workspace&, const Cell*, const Stencil&, int, double&, double&,
                 double&, double&, double&, bool&);

/// Whether a fit accepts the stencil as it is now.
inline bool accepts(Fit fit, const State& state, Workspace& work, const Cell* c, int n_list,
                    Derivatives& d) {
  bool succ = false;
  fit(state, work, c, work.list_1, n_list, d.dx2, d.dy2, d.dxdy, d.dx, d.dy, succ);
  return succ;
}
/// Walks the last row of the stencil through the candidates; when they are used up, the row before
/// it moves on by one candidate and the last row starts again behind it. Not every pair is tried.
///
/// @param n_added  rows of the stencil that are candidates already; without any nothing is changed
/// @return whether a stencil was accepted
bool search(Fit fit, const State& state, Workspace& work, const Cell* c, int n_list, int n_added,
            int n_candidates, Derivatives& d);
/// Completes the stencil of a node to six rows, from the candidates in their order. Ends the
/// process where there are fewer than five nodes in all.
///
/// @return number of candidates that others can take the place of
int complete_stencil(const State& state, Workspace& work, const Cell* c, int& n_list_1,
                     int n_list_2);
/// The neighbour of a corner that has one only. Ends the process if there is none.
Cell* neighbor_of_corner(const Handlers& handlers, const Cell* c);
/// Such a corner takes its indicators from that neighbour, whose gradient has just been computed.
/// The one-sided differences along Neumann sides read the table as that computation left it.
void corner_rule(const Handlers& handlers, const Stencil& list_1, Cell* c, const Cell* tmp,
                 Derivatives& d);
void store_indicators(Cell* c, const Derivatives& d);
/// Hands back the gradient, without what a Neumann side forces to 0, where both are asked for.
void hand_back(const State& state, const Cell* c, const Derivatives& d, double* dfdx, double* dfdy);

/// Ends the process.
[[noreturn]] void derivatives_internal_error(const Handlers& handlers, const std::string& lines);
/// Where no quadratic is told by the nodes around, as in a strip one cell of the grid wide, a mesh
/// that is resolved has the gradient of the plane through the node that fits its neighbours best,
/// and no curvature.
///
/// @return false in other meshes, and on levels that have no fits
bool fits_plane(const State& state, const Workspace& work, const Cell& c, Derivatives& d);
/// Takes that plane, or ends the process.
void no_stencil_accepted(const State& state, const Workspace& work, const Cell& c, int n_added,
                         Derivatives& d);

// ---------------------------------------------------------------------------------------------
// Shortcuts, each in a file of its own. None changes what the rule gives, up to the rounding of
// fits by shape.
// ---------------------------------------------------------------------------------------------

/// unique_in_list() and unique_in_lists() without repeated selection (candidate_order.cpp).
void order_candidates(Workspace& work, const Stencil& list, int n_list, Candidates& candidates,
                      int& n_candidates);

/// The candidate that comes first in that order, of a node with at most five neighbours, whose
/// neighbours' neighbours a table has room for: the nearest one, and of those the first in order.
/// nullptr where there is none. Sorts and copies nothing (first_candidate.cpp).
const Cell* first_candidate(const Cell* c, CandidateOrder order = CandidateOrder::by_age);

/// fit_hessian_centred() that mostly does without the estimate (proven_condition.cpp).
void fit_hessian_centred_by_proof(const State& state, Workspace& work, const Cell* c,
                                  const Stencil& list, int n_list, double& dx2, double& dy2,
                                  double& dxdy, double& dx, double& dy, bool& fit_hessian_succ);

/// Whether fit_hessian_6pts() would refuse each stencil of a search, told without trying them: the
/// first n_list - 2 rows of the list with any two of its last two rows and the candidates.
///
/// May miss a hopeless search, never condemns one that would find a stencil (hopeless_search.cpp).
bool search_is_hopeless(const Domain& domain, const Cell* c, const Stencil& list, int n_list,
                        const Candidates& candidates, int n_candidates);

/// The operator of a stencil: the node, its neighbours, and up to three rows more. nullptr where
/// the rows do not lie on the lattice, where they lie too far apart, or where the centred criterion
/// refuses them. Good until the next call (fit_by_shape.cpp).
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

// ---------------------------------------------------------------------------------------------
// The derivatives at a node, with all shortcuts (derivatives_by_shortcuts.cpp), at some nodes and
// at every node (compute_data_at_nodes.cpp, compute_data_at_all_nodes.cpp)
// ---------------------------------------------------------------------------------------------

/// Safe on different nodes of one mesh from any number of threads, each with a workspace of its
/// own.
void compute_data_at_node(const State& state, Workspace& work, Cell* c, double* dfdx = nullptr,
                          double* dfdy = nullptr);
/// For every node, in the order of the list, or by several threads: with the same results, and ends
/// where one thread does, in the caller's.
void compute_data_at_all_nodes(State& state, int threads);
/// Likewise, through nearby nodes of a large mesh. False where a node failed, memory was short, or
/// nodes of the list are not where the mesh has its own.
bool compute_patch_by_patch(const State& state, int threads);
/// For some nodes.
void compute_data_at_nodes(const State& state, std::span<Cell* const> nodes, int threads);
/// Likewise, by the thread that calls.
void compute_in_turn(const State& state, Workspace& work, std::span<Cell* const> nodes);
/// For some, but stops where one fails, and returns false.
/// @param tell  told of so many more nodes now and then, in the caller's thread; what it throws
///              leaves when all threads have ended
bool try_compute_data_at_nodes(const State& state, std::span<Cell* const> nodes, int threads,
                               const std::function<void(std::size_t nb_nodes)>& tell = {});

}  // namespace velmar_2d::detail
