// Stencils: the nodes from which the derivatives at a node are computed.
#pragma once

#include <cassert>

#include "velmar_2D/internal.hpp"

namespace velmar_2d::detail {

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

/// The tables of the node at work. One call of compute_data_at_node() leaves them as its last step
/// used them; a corner of the domain reads them after the call for its neighbour.
extern Stencil list_1;
extern Candidates list_2;

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
void unique_in_list(Candidates& list, int& n_list);
/// Drops the candidates that the stencil holds already and brings the others into the order in
/// which they are tried: a distance order, though not an ascending one (see the definition).
void unique_in_lists(const Stencil& list, int n_list, Candidates& candidates, int& n_candidates);

/// The candidate that comes first in that order, of a node with at most five neighbours, whose
/// neighbours' neighbours a table has room for: the nearest one, and of those the oldest. nullptr
/// where there is none. Sorts and copies nothing.
const Cell* first_candidate(const Cell* c);

/// Recognises the regular square: four neighbours and no others, at one spacing, and a far corner
/// that closes a square with two of them. Appends all five and tells which two (1 to 4), else gives
/// case 0 and appends nothing.
void extract_neighbor_square(const Cell* c, Stencil& list, int& n_list, int& quick_hessian_case);
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

}  // namespace velmar_2d::detail
