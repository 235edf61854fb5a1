#include "eigen_fits.hpp"

#include <Eigen/LU>
#include <Eigen/QR>
#include <algorithm>
#include <array>
#include <cmath>

namespace velmar_2d::peers {

namespace {

constexpr int nb_coefficients = 6;
using Rows = Eigen::Matrix<double, Eigen::Dynamic, nb_coefficients, Eigen::ColMajor, 9>;
using Values = Eigen::Matrix<double, Eigen::Dynamic, 1, Eigen::ColMajor, 9, 1>;
using Square = Eigen::Matrix<double, nb_coefficients, nb_coefficients>;
using Vector = Eigen::Matrix<double, nb_coefficients, 1>;

/// The rows in coordinates centred on the node and measured in the stencil's size.
double centred(const FitRows& rows, Rows& a, Values& b) {
  double size2 = 0.0;
  for (int i = 1; i < rows.n; ++i) {
    const double x = rows.x[i] - rows.x[0], y = rows.y[i] - rows.y[0];
    size2 = std::max(size2, x * x + y * y);
  }
  const double inverse_size = 1.0 / std::sqrt(size2);
  a.resize(rows.n, nb_coefficients);
  b.resize(rows.n);
  for (int i = 0; i < rows.n; ++i) {
    const double u = (rows.x[i] - rows.x[0]) * inverse_size;
    const double v = (rows.y[i] - rows.y[0]) * inverse_size;
    a.row(i) << 1.0, u, v, u * u, v * v, u * v;
    b[i] = rows.value[i] - rows.value[0];
  }
  return inverse_size;
}

FitResult norms(const Vector& f, double inverse_size) {
  const double s2 = inverse_size * inverse_size;
  const double dxx = 2.0 * f[3] * s2, dyy = 2.0 * f[4] * s2, dxy = f[5] * s2;
  return {std::sqrt(f[1] * f[1] + f[2] * f[2]) * inverse_size,
          std::sqrt(dxx * dxx + dyy * dyy + 2.0 * dxy * dxy)};
}

bool is_regular(const FitRows& rows) {
  Rows a;
  Values b;
  centred(rows, a, b);
  return Eigen::ColPivHouseholderQR<Rows>(a).rank() == nb_coefficients;
}

void add(FitRows& rows, const Cell& c) {
  rows.x[rows.n] = c.x;
  rows.y[rows.n] = c.y;
  rows.value[rows.n] = c.data[0];
  ++rows.n;
}

void add_neighbours(const Cell& c, std::vector<const Cell*>& cells) {
  for (const NeighbourLink link : {c.n, c.ne, c.e, c.se, c.s, c.sw, c.w, c.nw}) {
    const Cell* cell = link.cell();
    if (cell != nullptr && std::find(cells.begin(), cells.end(), cell) == cells.end()) {
      cells.push_back(cell);
    }
  }
}

/// Completes the rows of the first cells to six by the nearest of the others.
void complete(FitRows& rows, std::vector<const Cell*>& cells) {
  const Cell& node = *cells.front();
  const std::size_t nb_inner = cells.size();
  for (std::size_t i = 1; i < nb_inner; ++i) add_neighbours(*cells[i], cells);
  const auto distance = [&](const Cell* c) { return std::hypot(c->x - node.x, c->y - node.y); };
  const auto outer = cells.begin() + static_cast<std::ptrdiff_t>(nb_inner);
  std::stable_sort(outer, cells.end(),
                   [&](const Cell* a, const Cell* b) { return distance(a) < distance(b); });
  // All combinations of candidates in the order of their distances; the first regular one is taken.
  const std::size_t nb_missing = nb_coefficients - nb_inner;
  std::vector<bool> chosen(cells.size() - nb_inner, false);
  std::fill_n(chosen.begin(), std::min(nb_missing, chosen.size()), true);
  const FitRows inner = rows;
  do {
    rows = inner;
    for (std::size_t i = 0; i < chosen.size(); ++i) {
      if (chosen[i]) add(rows, *cells[nb_inner + i]);
    }
    if (rows.n == nb_coefficients && is_regular(rows)) return;
  } while (std::prev_permutation(chosen.begin(), chosen.end()));
}

}  // namespace

std::vector<FitRows> collect_rows() {
  std::vector<FitRows> all;
  all.reserve(static_cast<std::size_t>(nb_nodes));
  std::vector<const Cell*> cells;
  for (const Cell* c = mesh_beg; c != nullptr; c = c->next) {
    cells.assign(1, c);
    add_neighbours(*c, cells);
    FitRows rows;
    for (const Cell* cell : cells) add(rows, *cell);
    if (rows.n < nb_coefficients) complete(rows, cells);
    all.push_back(rows);
  }
  return all;
}

double fit_by_lu(const std::vector<FitRows>& all, std::vector<FitResult>& results) {
  double smallest = 1.0;
  Rows a;
  Values b;
  Eigen::PartialPivLU<Square> lu;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const double inverse_size = centred(all[i], a, b);
    Vector f;
    if (all[i].n == nb_coefficients) {
      lu.compute(a);
      f = lu.solve(b);
    } else {
      const Square normal = a.transpose() * a;
      const Vector rhs = a.transpose() * b;
      lu.compute(normal);
      f = lu.solve(rhs);
    }
    smallest = std::min(smallest, lu.rcond());
    results[i] = norms(f, inverse_size);
  }
  return smallest;
}

double fit_by_qr(const std::vector<FitRows>& all, std::vector<FitResult>& results) {
  double smallest = nb_coefficients;
  Rows a;
  Values b;
  Eigen::ColPivHouseholderQR<Rows> qr(9, nb_coefficients);
  for (std::size_t i = 0; i < all.size(); ++i) {
    const double inverse_size = centred(all[i], a, b);
    qr.compute(a);
    smallest = std::min(smallest, static_cast<double>(qr.rank()));
    const Vector f = qr.solve(b);
    results[i] = norms(f, inverse_size);
  }
  return smallest;
}

}  // namespace velmar_2d::peers
