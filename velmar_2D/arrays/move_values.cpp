// Data values from the nodes into arrays, and back.
#include <algorithm>

#include "velmar_2D/arrays/arrays.hpp"

namespace velmar_2d::detail {

namespace {

/// Nodes ahead that are asked for. Their values lie in them, or are looked up there.
constexpr std::size_t nodes_ahead = 16;

}  // namespace

void pull_values(const MeshTables& tables, std::size_t first,
                 std::span<const std::span<double>> into, std::int32_t threads) {
  const std::span<Cell* const> nodes = tables.nodes.all();
  in_parts(nodes.size(), threads, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      prefetch(&nodes[std::min(i + nodes_ahead, nodes.size() - 1)]->data);
      const CellData& data = nodes[i]->data;
      const double* values = data.data();
      for (std::size_t k = 0; k < into.size(); ++k) {
        into[k][i] = first + k < data.size() ? values[first + k] : 0.0;
      }
    }
  });
}

void push_values(const MeshTables& tables, std::size_t first,
                 std::span<const std::span<const double>> from, std::int32_t threads) {
  const std::span<Cell* const> nodes = tables.nodes.all();
  in_parts(nodes.size(), threads, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      prefetch_to_write(&nodes[std::min(i + nodes_ahead, nodes.size() - 1)]->data);
      CellData& data = nodes[i]->data;
      if (data.size() < first + from.size()) data.resize(first + from.size());
      double* values = data.data() + first;
      for (std::size_t k = 0; k < from.size(); ++k) values[k] = from[k][i];
    }
  });
}

}  // namespace velmar_2d::detail
