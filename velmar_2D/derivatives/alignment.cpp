// Which stencils lie on straight lines: the cases in which a quadratic cannot be told.
#include <cmath>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

double distance(const Stencil& list, int i, int j) {
  return std::hypot(list.x[j] - list.x[i], list.y[j] - list.y[i]);
}

double tolerance(const Stencil& list, int n_list) {
  double size = 0.0;
  for (int i = 0; i < n_list; ++i) {
    for (int j = i + 1; j < n_list; ++j) size = std::max(size, distance(list, i, j));
  }
  return alignment_tolerance * size;
}

/// Whether row k lies on the line through rows i and j, which are not at one place.
bool on_line(const Stencil& list, int i, int j, int k, double tolerance) {
  const double cross = (list.x[j] - list.x[i]) * (list.y[k] - list.y[i]) -
                       (list.y[j] - list.y[i]) * (list.x[k] - list.x[i]);
  return std::abs(cross) <= tolerance * distance(list, i, j);
}

/// Whether three rows lie on one line: measured from the two that are farthest apart.
bool aligned(const Stencil& list, int i, int j, int k, double tolerance) {
  if (distance(list, i, k) > distance(list, i, j)) std::swap(j, k);
  if (distance(list, j, k) > distance(list, i, j)) std::swap(i, k);
  return on_line(list, i, j, k, tolerance);
}

}  // namespace

bool are_4pts_not_aligned(const Stencil& list, int n_list) {
  const double close = tolerance(list, n_list);
  if (close == 0.0) return n_list < 4;  // all at one place, through which any line goes
  for (int i = 0; i < n_list; ++i) {
    for (int j = i + 1; j < n_list; ++j) {
      if (distance(list, i, j) <= close) continue;
      int nb_on_line = 2;
      for (int k = 0; k < n_list; ++k) {
        if (k != i && k != j && on_line(list, i, j, k, close)) ++nb_on_line;
      }
      if (nb_on_line >= 4) return false;
    }
  }
  return true;
}

bool are_4pts_not_aligned_neighbors(const Cell* c) {
  Stencil list;
  list.x[0] = c->x;
  list.y[0] = c->y;
  int n_list = 1;
  extract_neighbors(c, list, n_list);
  return are_4pts_not_aligned(list, n_list);
}

bool are_6pts_not_aligned_3_by_3(const Stencil& list) {
  const double close = tolerance(list, 6);
  // Row 0 and two others on one line, the remaining three on another: ten ways.
  for (int j = 1; j < 6; ++j) {
    for (int k = j + 1; k < 6; ++k) {
      std::array<int, 3> rest{};
      std::size_t n_rest = 0;
      for (int i = 1; i < 6; ++i) {
        if (i != j && i != k) rest[n_rest++] = i;
      }
      if (aligned(list, 0, j, k, close) && aligned(list, rest[0], rest[1], rest[2], close)) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace velmar_2d::detail
