// Values from one mesh to another.
//
// Conservative: a control cell of the one mesh takes from each of the other mesh that lies under it
// the value times the area that both share,
//
//        +---------+
//        |  +------|----+        value = sum of (shared area x value below) / sum of shared areas
//        |  |//////|    |
//        +---------+    |
//           +-----------+
//
// Both are convex, so that the shared part is the one polygon cut by the edges of the other. The
// cells below are found one from the next: through each edge of a shared part that is a face below,
// the next one lies.
#include <cmath>
#include <limits>
#include <new>
#include <unordered_set>

#include "velmar_2D/find/find.hpp"

namespace velmar_2d::detail {

namespace {

/// The nodes that were met under one cell. Few, mostly.
class Met {
 public:
  void clear() {
    nodes_.clear();
    table_.clear();
  }
  std::size_t size() const { return nodes_.size(); }
  const Cell* operator[](std::size_t i) const { return nodes_[i]; }
  void add(const Cell* c) {
    constexpr std::size_t few = 32;
    if (nodes_.size() < few) {
      if (std::find(nodes_.begin(), nodes_.end(), c) != nodes_.end()) return;
    } else {
      if (table_.empty()) table_.insert(nodes_.begin(), nodes_.end());
      if (!table_.insert(c).second) return;
    }
    nodes_.push_back(c);
  }

 private:
  std::vector<const Cell*> nodes_;
  std::unordered_set<const Cell*> table_;
};

/// The polygon of a control cell, relative to its node, cut by the rectangle of another mesh.
SharedPart part_inside(const Domain& domain, const Domain& other, const Cell& c) {
  SharedPart part(cell_below(domain, c));
  const double west = other.x_min - c.x, east = other.x_max - c.x;
  const double south = other.y_min - c.y, north = other.y_max - c.y;
  part.cut({west, south}, {east, south}, -1);
  part.cut({east, south}, {east, north}, -1);
  part.cut({east, north}, {west, north}, -1);
  part.cut({west, north}, {west, south}, -1);
  return part;
}

class Conservative {
 public:
  Conservative(const State& from, const State& to, std::size_t nb_values)
      : from_(from), to_(to), sums_(nb_values) {}

  /// The mean of each value under a control cell; false where nothing lies there.
  bool mean(const Cell& c, const Cell* first, std::span<double> means) {
    std::fill(sums_.begin(), sums_.end(), 0.0);
    const SharedPart whole = part_inside(to_.domain, from_.domain, c);
    double shared = 0.0;
    met_.clear();
    met_.add(first);
    for (std::size_t i = 0; i < met_.size(); ++i) shared += take_from(*met_[i], c, whole);
    if (!(shared > 0.0)) return false;
    for (std::size_t k = 0; k < means.size(); ++k) means[k] = sums_[k] / shared;
    return true;
  }

 private:
  double take_from(const Cell& below, const Cell& c, SharedPart part) {
    const Polygon polygon = cell_below(from_.domain, below);
    part.cut(polygon, below.x - c.x, below.y - c.y);
    const double area = part.area();
    if (!(area > 0.0)) return 0.0;
    for (std::size_t k = 0; k < sums_.size(); ++k) {
      sums_[k] += area * (k < below.data.size() ? below.data[k] : 0.0);
    }
    for (std::size_t i = 0; i < part.n; ++i) {
      const int edge = part.corners[i].edge;
      if (edge < 0 || edge >= nb_directions) continue;
      if (const Cell* next = link(below, edge).cell()) met_.add(next);
    }
    return area;
  }

  const State &from_, &to_;
  std::vector<double> sums_;
  Met met_;
};

std::size_t common_values(const State& from, const State& to) {
  return static_cast<std::size_t>(std::max(0, std::min(from.n_cell_data, to.n_cell_data)));
}

/// Writes only when all is known: an exception changes nothing, and both may be the same mesh.
std::int64_t write(State& to, std::span<const Cell* const> found, std::span<const double> values,
                   std::size_t nb_values) {
  std::int64_t nb_written = 0;
  std::size_t i = 0;
  for_each_node(to, [&](Cell& c) {
    if (found[i] != nullptr) {
      const std::size_t nb_here = std::min(nb_values, c.data.size());
      std::copy_n(values.begin() + static_cast<std::ptrdiff_t>(i * nb_values), nb_here,
                  c.data.begin());
      ++nb_written;
    }
    ++i;
  });
  return nb_written;
}

std::size_t size_of(const State& state) { return static_cast<std::size_t>(state.nb_nodes); }

/// One entry for each node of a mesh.
template <typename T>
std::vector<T> make_table_for(const State& to, std::size_t columns, const T& value = {}) {
  std::vector<T> table;
  try {
    to.progress.resize(table, size_of(to) * columns, value);
  } catch (const std::bad_alloc&) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): of a pointer, where the table holds some
    allocation_failed(to.handlers, size_of(to) * columns * sizeof(T));
  }
  return table;
}

/// Goes through the nodes three times.
void begin_progress(const State& to) { to.progress.begin("transferring", 3 * to.nb_nodes); }

std::int64_t transfer_by_areas(const State& from, State& to, std::size_t nb_values) {
  begin_progress(to);
  std::vector<Point> inside = make_table_for<Point>(to, 1);
  std::vector<const Cell*> found = make_table_for<const Cell*>(to, 1);
  std::vector<double> values = make_table_for<double>(to, nb_values);
  std::size_t i = 0;
  for_each_node(to, [&](const Cell& c) {
    constexpr double nowhere = std::numeric_limits<double>::quiet_NaN();
    const SharedPart part = part_inside(to.domain, from.domain, c);
    double x = 0.0, y = 0.0;
    for (std::size_t k = 0; k < part.n; ++k) {
      x += part.corners[k].x;
      y += part.corners[k].y;
    }
    const auto n = static_cast<double>(part.n);
    const bool has_area = part.area() > 0.0;
    inside[i++] = has_area ? Point{c.x + x / n, c.y + y / n} : Point{nowhere, nowhere};
    to.progress.step();
  });
  locate_many(from, inside, found, &to.progress);
  Conservative conservative(from, to, nb_values);
  i = 0;
  for_each_node(to, [&](const Cell& c) {
    const std::span<double> here = std::span(values).subspan(i * nb_values, nb_values);
    if (found[i] != nullptr && !conservative.mean(c, found[i], here)) found[i] = nullptr;
    ++i;
    to.progress.step();
  });
  return write(to, found, values, nb_values);
}

}  // namespace

std::int64_t transfer(const State& from, State& to, Interpolation how) {
  begin_progress(to);
  const std::size_t nb_values = common_values(from, to);
  std::vector<Point> points = make_table_for<Point>(to, 1);
  std::vector<const Cell*> found = make_table_for<const Cell*>(to, 1);
  std::vector<double> values = make_table_for<double>(to, nb_values);
  std::size_t i = 0;
  for_each_node(to, [&](const Cell& c) {
    points[i++] = {c.x, c.y};
    to.progress.step();
  });
  locate_many(from, points, found, &to.progress);
  for (i = 0; i < found.size(); ++i) {
    to.progress.step();
    if (found[i] == nullptr) continue;
    const Blend blend = blend_at(*found[i], points[i], how);
    for (std::size_t k = 0; k < nb_values; ++k) values[i * nb_values + k] = blend.value(k);
  }
  return write(to, found, values, nb_values);
}

std::int64_t transfer_conservative(const State& from, State& to) {
  const std::size_t nb_values = common_values(from, to);
  try {
    return transfer_by_areas(from, to, nb_values);
  } catch (const std::bad_alloc&) {
    allocation_failed(to.handlers, size_of(from) * sizeof(void*));
  }
}

}  // namespace velmar_2d::detail
