// The builders of stencils.
#include <cassert>
#include <cmath>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

template <int nb_rows>
void append_neighbors(const Cell& c, StencilTable<nb_rows>& list, int& n_list) {
  for (int direction = 0; direction < nb_directions; ++direction) {
    if (const Cell* neighbour = link(c, direction).cell()) append_row(list, n_list, *neighbour);
  }
}

template <int nb_rows>
void identify_neighbors(const Cell& c, StencilTable<nb_rows>& list, int row) {
  for (int direction = 0; direction < nb_directions && row < nb_rows; ++direction) {
    if (const Cell* neighbour = link(c, direction).cell())
      list.id[row++] = static_cast<double>(neighbour->id);
  }
}

/// The rows behind it move up; their distances stay where they are.
void delete_row(Candidates& list, int& n_list, int row) {
  for (--n_list; row < n_list; ++row) copy_row(list, row, list, row + 1);
}

/// The node that closes a square with c and two of its neighbours, or none:
///
///     a ---- far        far is a's link in b's direction
///     |       |         and b's link in a's direction
///     c ----  b
const Cell* far_corner(const Cell& c, int to_a, int to_b) {
  const Cell* a = link(c, to_a).cell();
  const Cell* b = link(c, to_b).cell();
  if (a == nullptr || b == nullptr) return nullptr;
  const Cell* far = link(*a, to_b).cell();
  return far != nullptr && far == link(*b, to_a).cell() ? far : nullptr;
}

}  // namespace

void extract_neighbors(const Cell* c, Stencil& list, int& n_list) {
  append_neighbors(*c, list, n_list);
}

void extract_ids(const Cell* c, Stencil& list) {
  list.id[0] = static_cast<double>(c->id);
  identify_neighbors(*c, list, 1);
}

void extract_neighbors_l2(const Cell* c, Candidates& list, int& n_list) {
  identify_neighbors(*c, list, n_list);
  append_neighbors(*c, list, n_list);
}

void extract_neighbors_neighbors(const Cell* c, Candidates& list, int& n_list) {
  for (int direction = 0; direction < nb_directions; ++direction) {
    if (const Cell* neighbour = link(*c, direction).cell()) {
      extract_neighbors_l2(neighbour, list, n_list);
    }
  }
}

void unique_in_list(Workspace& work, Candidates& list, int& n_list) {
  Candidates& sorted = work.sorted;
  int n_sorted = 0;
  while (n_list > 0) {
    int smallest = 0;
    for (int row = 1; row < n_list; ++row) {
      if (comes_first(work.order, list, row, smallest)) smallest = row;
    }
    if (n_sorted == 0 || id_of(sorted.id[n_sorted - 1]) != id_of(list.id[smallest])) {
      copy_row(sorted, n_sorted++, list, smallest);
    }
    delete_row(list, n_list, smallest);
  }
  for (int row = 0; row < n_sorted; ++row) copy_row(list, row, sorted, row);
  n_list = n_sorted;
}

void unique_in_lists(Workspace& work, const Stencil& list, int n_list, Candidates& candidates,
                     int& n_candidates) {
  Candidates& kept = work.sorted;
  int n_kept = 0;
  keep_unknown(list, n_list, candidates, n_candidates, kept, n_kept);
  n_candidates = 0;
  while (n_kept > 0) {
    int nearest = 0;
    for (int row = 1; row < n_kept; ++row) {
      if (kept.distance2[row] < kept.distance2[nearest]) nearest = row;
    }
    candidates.distance2[n_candidates] = kept.distance2[nearest];
    copy_row(candidates, n_candidates++, kept, nearest);
    delete_row(kept, n_kept, nearest);
  }
}

void keep_unknown(const Stencil& list, int n_list, const Candidates& candidates, int n_candidates,
                  Candidates& kept, int& n_kept) {
  for (int row = 0; row < n_candidates; ++row) {
    bool known = false;
    for (int i = 0; i < n_list; ++i) known |= id_of(list.id[i]) == id_of(candidates.id[row]);
    if (known) continue;
    copy_row(kept, n_kept, candidates, row);
    const double x = candidates.x[row] - list.x[0], y = candidates.y[row] - list.y[0];
    kept.distance2[n_kept] = y * y + x * x;
    ++n_kept;
  }
}

namespace {

/// `first` is the direction of the first of the four neighbours: north at an even level, north-east
/// at an odd one.
template <int first>
void extract_square(const Domain& domain, const Cell& c, Stencil& list, int& n_list,
                    int& quick_hessian_case) {
  std::array<const Cell*, 4> neighbours;
  for (int i = 0; i < 4; ++i) {
    const Cell* neighbour = link(c, first + 2 * i).cell();
    if (neighbour == nullptr || link(c, first + 2 * i + 1).cell() != nullptr) return;
    neighbours[static_cast<std::size_t>(i)] = neighbour;
  }
  // In units in which the straight spacing of the level is dist_0, however deep it lies.
  const double scale = exact_power_of_2(c.level >> 1);
  const double spacing2 = domain.dist_0 * domain.dist_0 * (first == north ? 1.0 : 0.5);
  for (const Cell* neighbour : neighbours) {
    const double x = (neighbour->x - c.x) * scale, y = (neighbour->y - c.y) * scale;
    if (!(std::abs(x * x + y * y - spacing2) < regular_square_tolerance * spacing2)) return;
  }

  // The two neighbours that close a square with the far corner, by case:
  //
  //   case 1: rows 2 and 3    case 2: rows 5 and 2    case 3: rows 4 and 5    case 4: rows 3 and 4
  static constexpr std::array<std::array<int, 2>, 4> neighbours_by_case = {
      {{0, 2}, {6, 0}, {4, 6}, {2, 4}}};
  for (std::size_t i = 0; i < neighbours_by_case.size(); ++i) {
    const auto [a, b] = neighbours_by_case[i];
    const Cell* far = far_corner(c, first + a, first + b);
    if (far == nullptr) continue;
    n_list = 1;
    for (const Cell* neighbour : neighbours) append_row(list, n_list, *neighbour);
    append_row(list, n_list, *far);
    quick_hessian_case = static_cast<int>(i) + 1;
    return;
  }
}

}  // namespace

void extract_neighbor_square(const Domain& domain, const Cell* c, Stencil& list, int& n_list,
                             int& quick_hessian_case) {
  quick_hessian_case = 0;
  if (c->level % 2 == 0) {
    extract_square<north>(domain, *c, list, n_list, quick_hessian_case);
  } else {
    extract_square<north_east>(domain, *c, list, n_list, quick_hessian_case);
  }
}

//     side    A ---- c ---- B        the side to the north: A to the east, B to the west
//             |      |      |
//            I.a --- I --- I.b
//                    |
//                I.inwards
void extract_neighbors_square_boundary(const Cell* c, Stencil& list, int& n_list) {
  if (n_list != 4) return;
  for (const int side : straight_directions) {
    if (link(*c, side).boundary() == nullptr) continue;
    const int inwards = opposite(side);
    const Cell* inner = link(*c, inwards).cell();
    const Cell* corner_a = far_corner(*c, inwards, side + 2);
    const Cell* corner_b = far_corner(*c, inwards, side - 2);
    if (inner == nullptr || corner_a == nullptr || corner_b == nullptr) return;
    const Cell* second = link(*inner, inwards).cell();
    if (second == nullptr) return;
    for (const Cell* node : {corner_a, corner_b, second}) append_row(list, n_list, *node);
    return;
  }
}

void get_unique_neighbor_from_corner(const Cell* c, Cell*& tmp) {
  for (const int direction : diagonal_directions) {
    if (Cell* neighbour = link(*c, direction).cell()) tmp = neighbour;
  }
}

}  // namespace velmar_2d::detail
