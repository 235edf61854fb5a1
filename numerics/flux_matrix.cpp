// The matrix of two-point fluxes. Cells of one shape have their faces in the same directions, so
// that what a row holds is looked up by shape; only the order of its columns is its own.
#include <array>
#include <cmath>
#include <limits>
#include <string>

#include "numerics.hpp"

namespace velmar_2d::numerics {

namespace {

using detail::index, detail::require_size;

constexpr std::size_t most_in_row = 9;

/// The entries of a row of some shape: those of the node itself come first.
struct RowOfShape {
  std::int32_t n = 1;
  std::array<std::int32_t, most_in_row> direction{};
  std::array<double, most_in_row> value{};
};

std::vector<RowOfShape> rows_of_shapes(const MeshArrays& arrays) {
  std::vector<RowOfShape> rows;
  for (const std::array<double, 8>& weights : arrays.weight_rows()) {
    RowOfShape row;
    for (std::int32_t d = 0; d < 8; ++d) {
      const double weight = weights[index(d)];
      if (weight <= 0.0) continue;
      row.direction[index(row.n)] = d;
      row.value[index(row.n++)] = -weight;
      row.value[0] += weight;
    }
    rows.push_back(row);
  }
  return rows;
}

/// Where each of `n` different columns goes when they are in order. Without branches, which no
/// processor could foresee.
template <std::size_t n>
void ranks(const std::int32_t* columns, std::int32_t* rank) {
  for (std::size_t a = 0; a < n; ++a) rank[a] = 0;
  for (std::size_t a = 1; a < n; ++a) {
    for (std::size_t b = 0; b < a; ++b) {
      const std::int32_t above = columns[a] > columns[b] ? 1 : 0;
      rank[a] += above;
      rank[b] += 1 - above;
    }
  }
}

/// One row, with `n` entries; value_of tells that of the entry to another node.
template <std::size_t n, typename ValueOf>
void fill_row(const RowOfShape& shape, const std::int32_t* links, std::int32_t i,
              const ValueOf& value_of, SparseMatrix& matrix) {
  const std::int32_t begin = matrix.row_begin[index(i)];
  std::array<std::int32_t, n> columns, rank;
  columns[0] = i;
  for (std::size_t k = 1; k < n; ++k) columns[k] = links[shape.direction[k]];
  ranks<n>(columns.data(), rank.data());
  std::int32_t* column = &matrix.columns[index(begin)];
  double* value = &matrix.values[index(begin)];
  double own = 0.0;
  for (std::size_t k = 1; k < n; ++k) {
    const double entry = value_of(shape.value[k], columns[k]);
    column[rank[k]] = columns[k];
    value[rank[k]] = entry;
    own -= entry;
  }
  column[rank[0]] = i;
  value[rank[0]] = own;
  matrix.diagonal[index(i)] = begin + rank[0];
}

template <typename ValueOf>
void fill_row(const RowOfShape& shape, const std::int32_t* links, std::int32_t i,
              const ValueOf& value_of, SparseMatrix& matrix) {
  switch (shape.n) {
    case 1: return fill_row<1>(shape, links, i, value_of, matrix);
    case 2: return fill_row<2>(shape, links, i, value_of, matrix);
    case 3: return fill_row<3>(shape, links, i, value_of, matrix);
    case 4: return fill_row<4>(shape, links, i, value_of, matrix);
    case 5: return fill_row<5>(shape, links, i, value_of, matrix);
    case 6: return fill_row<6>(shape, links, i, value_of, matrix);
    case 7: return fill_row<7>(shape, links, i, value_of, matrix);
    case 8: return fill_row<8>(shape, links, i, value_of, matrix);
    default: return fill_row<9>(shape, links, i, value_of, matrix);
  }
}

/// Where rows begin, and room for them.
void make_room(const std::vector<RowOfShape>& rows, const MeshArrays& arrays,
               SparseMatrix& matrix) {
  const std::size_t n = index(arrays.size());
  matrix.row_begin.resize(n + 1);
  std::int64_t end = 0;
  for (std::size_t i = 0; i < n; ++i) {
    matrix.row_begin[i] = static_cast<std::int32_t>(end);
    end += rows[index(arrays.shapes()[i])].n;
  }
  if (end > std::numeric_limits<std::int32_t>::max()) {
    throw Error("(velmar_2D/numerics:) ERROR: a matrix of " + std::to_string(end) +
                " entries is too large for numbers of 32 bits");
  }
  matrix.row_begin[n] = static_cast<std::int32_t>(end);
  matrix.columns.resize(static_cast<std::size_t>(end));
  matrix.values.resize(static_cast<std::size_t>(end));
  matrix.diagonal.resize(n);
}

bool is_of(const FluxMatrix& flux, const MeshArrays& arrays) {
  return flux.matrix.pattern != 0 && flux.revision == arrays.revision() &&
         flux.matrix.size() == arrays.size();
}

/// All entries; value_of(weight, i, j) tells that between two nodes.
template <typename ValueOf>
void assemble(FluxMatrix& flux, const MeshArrays& arrays, const ValueOf& value_of) {
  SparseMatrix& matrix = flux.matrix;
  const std::vector<RowOfShape> rows = rows_of_shapes(arrays);
  const bool other_places = !is_of(flux, arrays);
  if (other_places) make_room(rows, arrays, matrix);
  const std::span<const std::int32_t> links = arrays.links(), shapes = arrays.shapes();
  for (std::int32_t i = 0; i < arrays.size(); ++i) {
    fill_row(
        rows[index(shapes[index(i)])], &links[8 * index(i)], i,
        [&](double weight, std::int32_t j) { return value_of(weight, i, j); }, matrix);
  }
  flux.revision = arrays.revision();
  touch(matrix);
  if (other_places) matrix.pattern = matrix.version;
}

}  // namespace

bool update(FluxMatrix& flux, const MeshArrays& arrays, double coefficient) {
  if (is_of(flux, arrays) && flux.coefficient == coefficient) return false;
  assemble(flux, arrays,
           [&](double weight, std::int32_t, std::int32_t) { return coefficient * weight; });
  flux.coefficient = coefficient;
  return true;
}

void update(FluxMatrix& flux, const MeshArrays& arrays, std::span<const double> of_nodes) {
  require_size("coefficients of nodes", of_nodes.size(), index(arrays.size()));
  assemble(flux, arrays, [&](double weight, std::int32_t i, std::int32_t j) {
    const double a = of_nodes[index(i)], b = of_nodes[index(j)];
    return a + b > 0.0 ? weight * (2.0 * a * b / (a + b)) : 0.0;
  });
  flux.coefficient = std::numeric_limits<double>::quiet_NaN();
}

void update(FluxMatrix& flux, const MeshArrays& arrays, const Faces& faces,
            std::span<const double> of_faces) {
  require_size("coefficients of faces", of_faces.size(), faces.size());
  if (!is_of(flux, arrays)) update(flux, arrays, 0.0);
  if (faces.revision != arrays.revision()) {
    throw Error("(velmar_2D/numerics:) ERROR: the faces are those of another mesh than the arrays");
  }
  SparseMatrix& matrix = flux.matrix;
  for (const std::int32_t place : matrix.diagonal) matrix.values[index(place)] = 0.0;
  const auto place_of = [&](std::int32_t row, std::int32_t column) {
    std::int32_t k = matrix.row_begin[index(row)];
    while (matrix.columns[index(k)] != column) ++k;
    return index(k);
  };
  for (std::size_t f = 0; f < faces.size(); ++f) {
    const std::int32_t i = faces.from[f], j = faces.to[f];
    const double entry = of_faces[f] * faces.weight[f];
    matrix.values[place_of(i, j)] = matrix.values[place_of(j, i)] = -entry;
    matrix.values[index(matrix.diagonal[index(i)])] += entry;
    matrix.values[index(matrix.diagonal[index(j)])] += entry;
  }
  flux.coefficient = std::numeric_limits<double>::quiet_NaN();
  touch(matrix);
}

}  // namespace velmar_2d::numerics
