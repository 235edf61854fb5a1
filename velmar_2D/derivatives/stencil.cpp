// The builders of stencils.
#include <cassert>
#include <cmath>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

/// How far a neighbour of a regular square may be from its place, relative to the squared spacing:
/// 1e-6 of the spacing, well above the rounding of positions and well below a finer neighbour.
constexpr double regular_square_tolerance = 2e-6;

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

/// Ids are stored as doubles, as all columns are, and compared as integers.
std::int64_t id_of(double id) { return static_cast<std::int64_t>(id); }

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

const Cell* first_candidate(const Cell* c) {
  std::array<const Cell*, nb_directions> neighbours;
  for (int d = 0; d < nb_directions; ++d) {
    neighbours[static_cast<std::size_t>(d)] = link(*c, d).cell();
  }
  const Cell* first = nullptr;
  double smallest = 0.0;
  for (const Cell* neighbour : neighbours) {
    if (neighbour == nullptr) continue;
    for (int d = 0; d < nb_directions; ++d) {
      const Cell* candidate = link(*neighbour, d).cell();
      if (candidate == nullptr || candidate == c) continue;
      const double x = candidate->x - c->x, y = candidate->y - c->y;
      const double distance2 = y * y + x * x;
      if (first != nullptr && distance2 > smallest) continue;
      if (first != nullptr && distance2 == smallest && candidate->id >= first->id) continue;
      if (std::find(neighbours.begin(), neighbours.end(), candidate) != neighbours.end()) continue;
      first = candidate;
      smallest = distance2;
    }
  }
  return first;
}

void unique_in_list(Workspace& work, Candidates& list, int& n_list) {
  // Insertion sort of the row numbers; an id that is there already is dropped, so that its first
  // row stays.
  std::array<std::int64_t, Candidates::capacity> ids;
  std::array<int, Candidates::capacity> rows;
  int n_unique = 0;
  for (int row = 0; row < n_list; ++row) {
    const std::int64_t id = id_of(list.id[row]);
    int place = n_unique;
    while (place > 0 && ids[static_cast<std::size_t>(place - 1)] > id) --place;
    if (place > 0 && ids[static_cast<std::size_t>(place - 1)] == id) continue;
    std::move_backward(ids.begin() + place, ids.begin() + n_unique, ids.begin() + n_unique + 1);
    std::move_backward(rows.begin() + place, rows.begin() + n_unique, rows.begin() + n_unique + 1);
    ids[static_cast<std::size_t>(place)] = id;
    rows[static_cast<std::size_t>(place)] = row;
    ++n_unique;
  }

  Candidates& sorted = work.sorted;
  for (int row = 0; row < n_unique; ++row) {
    copy_row(sorted, row, list, rows[static_cast<std::size_t>(row)]);
  }
  for (int row = 0; row < n_unique; ++row) copy_row(list, row, sorted, row);
  n_list = n_unique;
}

// The order comes from a selection by the smallest distance in which the rows behind the selected
// one move up, but their distances stay where they are. The smallest distance then selects all the
// rows behind it in turn; after them the smallest distance in front of it does the same, and so on.
// So each distance that is smaller than all before it opens a block of rows that reaches to the
// next such distance, and the blocks follow one another from the last to the first:
//
//     distances   5  7  4  6  2  9  3
//     blocks      A  A  B  B  C  C  C     order C C C B B A A, all rows of a block with its
//     distance
void unique_in_lists(Workspace& work, const Stencil& list, int n_list, Candidates& candidates,
                     int& n_candidates) {
  Candidates& kept = work.sorted;
  int n_kept = 0;
  for (int row = 0; row < n_candidates; ++row) {
    bool known = false;
    for (int i = 0; i < n_list; ++i) known |= id_of(list.id[i]) == id_of(candidates.id[row]);
    if (known) continue;
    copy_row(kept, n_kept, candidates, row);
    const double x = candidates.x[row] - list.x[0], y = candidates.y[row] - list.y[0];
    kept.distance2[n_kept] = y * y + x * x;
    ++n_kept;
  }

  std::array<int, Candidates::capacity> blocks;
  int n_blocks = 0;
  for (int row = 0; row < n_kept; ++row) {
    if (n_blocks == 0 ||
        kept.distance2[row] < kept.distance2[blocks[static_cast<std::size_t>(n_blocks - 1)]]) {
      blocks[static_cast<std::size_t>(n_blocks++)] = row;
    }
  }

  n_candidates = 0;
  int end = n_kept;
  for (int block = n_blocks - 1; block >= 0; --block) {
    const int first = blocks[static_cast<std::size_t>(block)];
    for (int row = first; row < end; ++row) {
      copy_row(candidates, n_candidates, kept, row);
      candidates.distance2[n_candidates] = kept.distance2[first];
      ++n_candidates;
    }
    end = first;
  }
}

namespace {

/// `first` is the direction of the first of the four neighbours: north at an even level, north-east
/// at an odd one.
template <int first>
void extract_square(const Domain& domain, const Cell& c, Stencil& list, int& n_list,
                    int& quick_hessian_case) {
  std::array<const Cell*, 4> neighbours;
  const double spacing2 = domain.dist_0 * domain.dist_0 * exact_power_of_2(-c.level);
  for (int i = 0; i < 4; ++i) {
    const Cell* neighbour = link(c, first + 2 * i).cell();
    if (neighbour == nullptr || link(c, first + 2 * i + 1).cell() != nullptr) return;
    neighbours[static_cast<std::size_t>(i)] = neighbour;
  }
  for (const Cell* neighbour : neighbours) {
    const double x = neighbour->x - c.x, y = neighbour->y - c.y;
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
