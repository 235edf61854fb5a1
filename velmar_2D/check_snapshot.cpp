// Whether arrays from anywhere make a mesh.
#include <cmath>
#include <limits>

#include "velmar_2D/adapt/update_mesh_decl.hpp"
#include "velmar_2D/arrays/arrays.hpp"
#include "velmar_2D/snapshot.hpp"

namespace velmar_2d::detail {

Domain domain_of(const Snapshot& s) {
  Domain domain;
  domain.x_min = s.x_min;
  domain.x_max = s.x_max;
  domain.y_min = s.y_min;
  domain.y_max = s.y_max;
  domain.frame = {s.x_min, s.y_min, s.x_max, s.y_max};
  domain.dist_0 = s.dist_0;
  domain.largest_coordinate =
      std::max({std::abs(s.x_min), std::abs(s.x_max), std::abs(s.y_min), std::abs(s.y_max)});
  domain.deepest_level = deepest_level_of(domain);
  set_regular(domain);
  if (!s.first_grid_is_whole) domain.longest_link = std::numeric_limits<double>::infinity();
  domain.lattice_is_whole = domain.lattice_is_whole && s.first_grid_is_whole && s.lattice_is_whole;
  return domain;
}

namespace {

void check_sizes(const Snapshot& s) {
  const std::size_t n = s.size();
  require(n > 0 && n <= std::numeric_limits<std::int32_t>::max(), "it has no nodes");
  std::size_t listed = 0;
  for (const std::int32_t size : s.stretch_sizes) {
    require(size >= 0 && static_cast<std::size_t>(size) <= n - listed,
            "the stretches do not hold its nodes");
    listed += static_cast<std::size_t>(size);
  }
  require(listed == n, "the stretches do not hold its nodes");
  require(s.limit >= 0 && s.stretch_sizes.size() <= most_stretches &&
              s.stretch_sizes.size() > static_cast<std::size_t>(s.limit),
          "the limit does not fit the number of stretches");
  require(std::all_of(s.stretch_sizes.begin() + s.limit + 1, s.stretch_sizes.end(),
                      [](std::int32_t size) { return size == 0; }),
          "a stretch above the limit holds nodes");
  bool fit = s.n_cell_data >= 0;
  for (const std::vector<double>* column : {&s.x, &s.y, &s.area, &s.grad_data, &s.grad2_data}) {
    fit = fit && column->size() == n;
  }
  for (const std::vector<std::uint8_t>* column :
       {&s.link_levels, &s.reserve, &s.on_boundary, &s.wanted_level, &s.signature_set}) {
    fit = fit && column->size() == n;
  }
  fit = fit && s.level.size() == n && s.used.size() == n && s.signature.size() == 2 * n &&
        s.links.size() == std::size_t{nb_directions} * n;
  if (s.data_sizes.empty()) {
    fit = fit && s.data.size() == n * static_cast<std::size_t>(s.n_cell_data);
  } else {
    fit = fit && s.data_sizes.size() == n;
    std::size_t values = 0;
    for (const std::int32_t size : s.data_sizes) {
      fit = fit && size >= 0;
      values += static_cast<std::size_t>(std::max(size, 0));
    }
    fit = fit && s.data.size() == values;
  }
  require(fit, "its arrays differ in length");
}

void check_domain(const Snapshot& s) {
  const double width = s.x_max - s.x_min, height = s.y_max - s.y_min;
  require(width > 0.0 && height > 0.0 && std::isfinite(width) && std::isfinite(height) &&
              s.dist_0 > 0.0 && s.dist_0 <= (1.0 + height_tolerance) * std::min(width, height),
          "its rectangle is none");
  const double largest =
      std::max({std::abs(s.x_min), std::abs(s.x_max), std::abs(s.y_min), std::abs(s.y_max)});
  require(s.dist_0 >= smallest_cell * largest, "its first grid is too fine for its rectangle");
  require(s.limit <= domain_of(s).deepest_level, "the limit is too deep for its rectangle");
  for (std::size_t side = 0; side < 4; ++side) {
    require(s.has_side_record[side][bc_type_dir], "a side has no Dirichlet record");
  }
}

void check_counters(const Snapshot& s) {
  const auto n = static_cast<std::int64_t>(s.size());
  const auto nb_stretches = static_cast<std::int64_t>(s.stretch_sizes.size());
  require(s.next_id > n && s.revision >= s.size() && s.resolved_revision <= s.revision &&
              s.revision < std::numeric_limits<std::uint64_t>::max() / 2 &&
              s.next_id < std::numeric_limits<std::int64_t>::max() / 2,
          "its counters are out of range");
  require(s.transfer == Transfer::first || s.transfer == Transfer::all ||
              s.transfer == Transfer::conservative || s.transfer == Transfer::remap,
          "its transfer is none");
  for (const std::int32_t l : s.level_range) {
    require(l >= -1 && l < nb_stretches, "its range of levels is none");
  }
}

/// Whether no two are the same; all lie between 1 and next_id.
bool are_unique(const std::vector<std::int64_t>& ids, std::int64_t next_id) {
  // Few ids have gone as a rule: then a bit for each takes less than a copy of them.
  constexpr std::int64_t ids_a_node = 64;
  if (next_id <= ids_a_node * static_cast<std::int64_t>(ids.size())) {
    std::vector<bool> met(static_cast<std::size_t>(next_id));
    for (const std::int64_t id : ids) {
      if (met[static_cast<std::size_t>(id)]) return false;
      met[static_cast<std::size_t>(id)] = true;
    }
    return true;
  }
  std::vector<std::int64_t> sorted = ids;
  std::sort(sorted.begin(), sorted.end());
  return std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
}

void check_nodes(const Snapshot& s) {
  for (std::size_t i = 0; i < s.size(); ++i) {
    require(s.id[i] >= 1 && s.id[i] < s.next_id, "an id is out of range");
    require(std::isfinite(s.x[i]) && std::isfinite(s.y[i]), "a position is none");
    require(s.level[i] >= 0 && s.level[i] <= s.limit, "a level is outside of the limits");
    require(s.reserve[i] >= 1 && s.reserve[i] <= 4 && s.on_boundary[i] <= 2 &&
                s.signature_set[i] <= 1 && s.wanted_level[i] <= highest_wanted_level,
            "a field of a node is out of range");
  }
  require(are_unique(s.id, s.next_id), "two nodes have one id");
}

void check_links(const Snapshot& s, bool mutual) {
  const std::size_t n = s.size();
  for (int d = 0; d < nb_directions; ++d) {
    const std::int32_t* to = &s.links[static_cast<std::size_t>(d) * n];
    const std::int32_t* back = &s.links[static_cast<std::size_t>(opposite(d)) * n];
    for (std::size_t i = 0; i < n; ++i) {
      if (to[i] == no_link) continue;
      if (to[i] >= 0) {
        require(static_cast<std::size_t>(to[i]) < n, "a link leads to no node");
        require(!mutual || back[to[i]] == static_cast<std::int32_t>(i), "a link is one-way");
        continue;
      }
      require(d % 2 == 0 && side_of(to[i]) == static_cast<Direction>(d) &&
                  s.has_side_record[static_cast<std::size_t>(d / 2)]
                                   [static_cast<std::size_t>(kind_of(to[i]))],
              "a link leads to no record of its side");
    }
  }
}

}  // namespace

void check_snapshot(const Snapshot& s, bool mutual) {
  check_sizes(s);
  check_domain(s);
  check_counters(s);
  check_nodes(s);
  check_links(s, mutual);
}

}  // namespace velmar_2d::detail
