#include "support/literal_derivatives.hpp"

#include <cmath>
#include <cstdint>

#include "support/full_pivoting.hpp"
#include "velmar_2D/base/base.hpp"

namespace velmar_2d::tests {
namespace {

using Path = LiteralDerivatives::Path;

LiteralRow row_of(const Cell& c) { return {double(c.id), c.x, c.y, c.data[0], 0.0}; }

std::vector<const Cell*> cells_around(const Cell& c) {
  std::vector<const Cell*> cells;
  for (const NeighbourLink link : {c.n, c.ne, c.e, c.se, c.s, c.sw, c.w, c.nw}) {
    if (link.cell() != nullptr) cells.push_back(link.cell());
  }
  return cells;
}

int id_of(const LiteralRow& row) { return static_cast<int>(row.id); }

/// Condition estimate in coordinates relative to (x0, y0), divided by `unit`.
double condition(const LiteralRows& rows, double x0, double y0, double unit) {
  double matrix[36] = {};
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const double x = (rows[i].x - x0) / unit, y = (rows[i].y - y0) / unit;
    const double p[6] = {1.0, x, y, x * x, y * y, y * x};
    for (std::size_t j = 0; j < 6; ++j) {
      if (rows.size() <= 6) matrix[i + 6 * j] = p[j];
      for (std::size_t k = 0; k < 6 && rows.size() > 6; ++k) matrix[j + 6 * k] += p[j] * p[k];
    }
  }
  std::int32_t pivots[6];
  double rcond = -1.0, work[6];
  detail::dgeco(matrix, 6, pivots, rcond, work);
  return rcond;
}

double largest_distance(const Cell& c, const LiteralRows& rows) {
  double largest = 0.0;
  for (const LiteralRow& row : rows) {
    largest = std::max(largest, std::hypot(row.x - c.x, row.y - c.y));
  }
  return largest;
}

/// The least-squares quadratic, in long double with full pivoting.
void solve(const Cell& c, const LiteralRows& rows, LiteralDerivatives& d) {
  const long double size = largest_distance(c, rows);
  long double m[6][7] = {};
  for (const LiteralRow& row : rows) {
    const long double x = (row.x - c.x) / size, y = (row.y - c.y) / size;
    const long double p[7] = {1, x, y, x * x, y * y, x * y, row.value};
    for (int j = 0; j < 6; ++j) {
      for (int k = 0; k < 7; ++k) m[j][k] += p[j] * p[k];
    }
  }
  solve_with_full_pivoting(m);
  const long double dx2 = 2 * m[3][6] / (size * size), dy2 = 2 * m[4][6] / (size * size);
  const long double dxdy = m[5][6] / (size * size);
  d.dx = double(m[1][6] / size);
  d.dy = double(m[2][6] / size);
  d.grad2 = double(std::sqrt(dx2 * dx2 + dy2 * dy2 + 2 * dxdy * dxdy));
}

bool accepted(const Cell& c, const LiteralRows& rows, bool centred) {
  if (centred) return literal_condition(c, rows) >= (rows.size() > 6 ? 1e-8 : 1e-6);
  const double power = static_cast<double>(static_cast<std::int32_t>(1u << c.level));
  const double t = 0.001 * dist_0 * dist_0 / power;
  return !(condition(rows, 0.0, 0.0, 1.0) < (rows.size() > 6 ? t * t : t));
}

bool search(const Cell& c, LiteralRows& stencil, const LiteralRows& candidates, int offset,
            bool centred) {
  const auto candidate = [&](int i) { return candidates[static_cast<std::size_t>(i - 1)]; };
  const int n_list_2 = static_cast<int>(candidates.size());
  int init_offset = offset;
  while (!accepted(c, stencil, centred)) {
    if (offset == 0) return false;
    ++offset;
    if (offset > n_list_2) {
      stencil[stencil.size() - 2] = candidate(init_offset);
      ++init_offset;
      if (init_offset > n_list_2) return false;
      offset = init_offset;
    }
    stencil.back() = candidate(offset);
  }
  return true;
}

bool square(const Cell& c, LiteralDerivatives& d) {
  const NeighbourLink Cell::*even[4] = {&Cell::n, &Cell::e, &Cell::s, &Cell::w};
  const NeighbourLink Cell::*odd[4] = {&Cell::ne, &Cell::se, &Cell::sw, &Cell::nw};
  const NeighbourLink Cell::*const(&ways)[4] = c.level % 2 == 0 ? even : odd;
  const double h = dist_0 / std::pow(2.0, c.level / 2.0);
  const Cell* at[4];
  double f[4];
  for (int i = 0; i < 4; ++i) {
    at[i] = (c.*ways[i]).cell();
    if (at[i] == nullptr) return false;
    if (std::abs(std::hypot(at[i]->x - c.x, at[i]->y - c.y) - h) > 1e-6 * h) return false;
    f[i] = at[i]->data[0];
  }
  const int pairs[4][2] = {{0, 1}, {3, 0}, {2, 3}, {1, 2}};
  for (const auto& [a, b] : pairs) {
    const Cell* far = (at[a]->*ways[b]).cell();
    if (far == nullptr || far != (at[b]->*ways[a]).cell()) continue;
    const double f0 = c.data[0];
    const double first = (f[0] - 2 * f0 + f[2]) / (h * h),
                 second = (f[1] - 2 * f0 + f[3]) / (h * h);
    const double mixed = (f0 - f[a] - f[b] + far->data[0]) / (h * h);
    d.grad2 = std::sqrt(first * first + second * second + 2 * mixed * mixed);
    if (c.level % 2 == 0) {
      d.dx = (f[1] - f[3]) / (at[1]->x - at[3]->x);
      d.dy = (f[0] - f[2]) / (at[0]->y - at[2]->y);
    } else {
      d.dx = (f[0] + f[1] - f[2] - f[3]) / (2 * (at[0]->x - at[3]->x));
      d.dy = (f[0] + f[3] - f[1] - f[2]) / (2 * (at[0]->y - at[1]->y));
    }
    return true;
  }
  return false;
}

/// The nodes of the squares at a side, for each of the four.
void add_side_square(const Cell& c, LiteralRows& stencil) {
  constexpr NeighbourLink Cell::*ways[4] = {&Cell::n, &Cell::e, &Cell::s, &Cell::w};
  for (std::size_t side = 0; side < 4; ++side) {
    const auto a_way = ways[(side + 1) % 4], inwards = ways[(side + 2) % 4];
    const auto b_way = ways[(side + 3) % 4];
    if ((c.*ways[side]).boundary() == nullptr) continue;
    const Cell *inner = (c.*inwards).cell(), *a = (c.*a_way).cell(), *b = (c.*b_way).cell();
    if (inner == nullptr || a == nullptr || b == nullptr) continue;
    const Cell *ia = (inner->*a_way).cell(), *ib = (inner->*b_way).cell();
    const Cell* second = (inner->*inwards).cell();
    if (ia == nullptr || ib == nullptr || second == nullptr) continue;
    if (ia != (a->*inwards).cell() || ib != (b->*inwards).cell()) continue;
    for (const Cell* cell : {ia, ib, second}) stencil.push_back(row_of(*cell));
  }
}

void add_fifth_parallelogram(const Cell& c, LiteralRows& stencil) {
  LiteralRow best{};
  double best_condition = -1.0;
  for (std::size_t i = 1; i < 5; ++i) {
    for (std::size_t j = i + 1; j < 5; ++j) {
      const LiteralRow &p = stencil[i], &q = stencil[j], &o = stencil[0];
      const LiteralRow sixth{0.0, p.x + q.x - o.x, p.y + q.y - o.y, p.value + q.value - o.value, 0};
      LiteralRows six = stencil;
      six.push_back(sixth);
      const double rcond = literal_condition(c, six);
      if (rcond > best_condition) best_condition = rcond, best = sixth;
    }
  }
  stencil.push_back(best);
}

}  // namespace

double literal_condition(const Cell& c, const LiteralRows& rows) {
  return condition(rows, c.x, c.y, largest_distance(c, rows));
}

void literal_unique(LiteralRows& rows) {
  LiteralRows sorted;
  while (!rows.empty()) {
    std::size_t smallest = 0;
    for (std::size_t i = 1; i < rows.size(); ++i) {
      if (id_of(rows[i]) < id_of(rows[smallest])) smallest = i;
    }
    if (sorted.empty() || id_of(sorted.back()) != id_of(rows[smallest])) {
      sorted.push_back(rows[smallest]);
    }
    rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(smallest));
  }
  rows = sorted;
}

void literal_order(const LiteralRows& stencil, LiteralRows& rows) {
  LiteralRows work;
  for (const LiteralRow& row : rows) {
    bool known = false;
    for (const LiteralRow& other : stencil) known = known || id_of(other) == id_of(row);
    if (!known) work.push_back(row);
  }
  for (LiteralRow& row : work) {
    row.distance2 = std::pow(row.y - stencil[0].y, 2) + std::pow(row.x - stencil[0].x, 2);
  }
  rows.clear();
  for (std::size_t left = work.size(); left > 0; --left) {
    std::size_t nearest = 0;
    for (std::size_t i = 1; i < left; ++i) {
      if (work[i].distance2 < work[nearest].distance2) nearest = i;
    }
    rows.push_back(work[nearest]);
    for (std::size_t i = nearest; i + 1 < left; ++i) {
      const double stays = work[i].distance2;
      work[i] = work[i + 1];
      work[i].distance2 = stays;
    }
  }
}

LiteralDerivatives literal_derivatives(const Cell& c) {
  LiteralDerivatives d;
  LiteralRows stencil = {row_of(c)}, candidates;
  for (const Cell* cell : cells_around(c)) stencil.push_back(row_of(*cell));

  if (c.reserve == 4 && stencil.size() == 5 && square(c, d)) {
    d.path = Path::square;
  } else {
    d.path = Path::fit;
    if (c.on_boundary == 1 && c.reserve == 2 && stencil.size() == 4) {
      add_side_square(c, stencil);
      if (stencil.size() > 4) d.path = Path::side;
    }
    int offset = 0;
    if (stencil.size() < 6) {
      for (const Cell* cell : cells_around(c)) {
        for (const Cell* second : cells_around(*cell)) candidates.push_back(row_of(*second));
      }
      literal_unique(candidates);
      literal_order(stencil, candidates);
      if (stencil.size() == 2 && candidates.size() == 3) {
        for (const NeighbourLink link : {c.ne, c.se, c.sw, c.nw}) {
          if (link.cell() != nullptr) d = literal_derivatives(*link.cell());
        }
        d.path = Path::corner;
        return d;
      }
      if (stencil.size() + candidates.size() < 5) return {};
      if (stencil.size() + candidates.size() == 5) {
        for (const LiteralRow& row : candidates) stencil.push_back(row);
        add_fifth_parallelogram(c, stencil);
        d.path = Path::five;
      } else {
        offset = 6 - static_cast<int>(stencil.size());
        for (int i = 0; i < offset; ++i) {
          stencil.push_back(candidates[static_cast<std::size_t>(i)]);
        }
        d.path = Path::retry;
      }
    }
    const LiteralRows start = stencil;
    if (!search(c, stencil, candidates, offset, false)) {
      stencil = start;
      if (!search(c, stencil, candidates, offset, true)) return {};
      if (d.path == Path::retry) d.path = Path::second_search;
    }
    solve(c, stencil, d);
  }
  d.grad = std::hypot(d.dx, d.dy);
  return d;
}

}  // namespace velmar_2d::tests
