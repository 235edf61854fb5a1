// What the calls are given: numbers, callbacks and nodes.
#include <cmath>

#include "fuzz/run.hpp"

namespace velmar_2d::tests::fuzz {

Resolution Run::resolution() {
  constexpr std::array<double, 8> margins = {0.0, 0.0, 0.0, 0.5, 1.5, 1e9, -1.0, no_number};
  constexpr std::array<double, 8> slopes = {0.0, 0.0, 0.0, 0.0, 0.2, 1.0, infinity, -0.5};
  constexpr std::array<std::int64_t, 8> numbers = {0, 0, 0, 0, 1, 60, 5000, -3};
  return {bytes_.one_of(margins), bytes_.one_of(numbers), bytes_.one_of(slopes)};
}

std::int32_t Run::limit() {
  constexpr std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
  constexpr std::array<std::int32_t, 16> limits = {0, 1,    2,  3,  4,  5,  6,       7,
                                                   8, 1000, 12, 30, 63, -1, 2000000, lowest};
  return bytes_.one_of(limits);
}

void Run::count_down() {
  if (--countdown_ == 0) throw Thrown("callback");
  if (countdown_ == 3 && std::exchange(intrude_, false) && nb_nodes > 0 &&
      call_ < first_of_objects) {
    call_ % 2 == 0 ? delete_mesh() : set_subdiv_max(level_max > 2 ? 1 : 9);
  }
}

void Run::set_countdown() {
  constexpr std::array<int, 8> counts = {1, 2, 3, 7, 20, 100, 2000, 2000};
  countdown_ = bytes_.one_of(counts);
}

bc_type_function Run::sides() {
  const std::int32_t byte = bytes_.next(), kind = byte % 8;
  if (kind == 7) return nullptr;
  return [this, byte, kind](double x, double y, std::string_view side) {
    constexpr std::int32_t hostile_from = 240;
    if (byte >= hostile_from && x > 0.5) {
      regular_ = false;
      return byte % 2 == 0 ? byte : std::numeric_limits<std::int32_t>::min();
    }
    if (kind < 3) return kind;
    if (kind == 3) return side.size() % 3 == 0 ? 1 : 0;
    if (kind == 4) return x > 0.5 ? 2 : 1;
    if (kind == 5 && nb_nodes > 4) count_down();
    const double steps = (x - x_min + y - y_min) / dist_0;
    const bool on_first_grid = !(std::abs(steps - std::round(steps)) > 1e-3);
    if (kind < 6 || on_first_grid) return 0;
    regular_ = false;
    return -5;
  };
}

init_data_function Run::data() {
  const std::int32_t kind = bytes_.below(6);
  if (kind == 5) return nullptr;
  return [this, kind](double x, double y) {
    count_down();
    return kind == 0 ? 0.0 : kind == 1 ? x * y : kind == 2 ? no_number : kind == 3 ? infinity : x;
  };
}

size_function Run::size(const Mesh& mesh) {
  set_countdown();
  const std::int32_t kind = size_kind_ = bytes_.below(12);
  batches_are_written_ = true;
  const double a = bytes_.next() / 255.0, b = bytes_.next() / 255.0;
  const double finest = std::exp2(-bytes_.below(24) / 2.0), radius = bytes_.next() / 255.0;
  if (kind == 11) return nullptr;
  const double x_min = mesh.x_min(), y_min = mesh.y_min(), dist_0 = mesh.dist_0();
  return [=, this](double x, double y, std::span<const double> values, double g, double g2) {
    count_down();
    const double u = (x - x_min) / dist_0 / 5.0, v = (y - y_min) / dist_0 / 5.0;
    switch (kind) {
      case 0: return dist_0 * finest;
      case 1: return 0.0;
      case 2: return infinity;
      case 3: return u < a ? no_number : dist_0;
      case 4: return -finest;
      case 5: return values.empty() ? g : dist_0 / (1.0 + std::abs(values[0]) + g + g2);
      case 6: return dist_0 * (u < a ? finest : 1.0) * (v < b ? 0.5 : 1.0);
      default: {
        const double distance = std::abs(std::hypot(u - a, v - b) - radius);
        return dist_0 * std::max(finest, 4.0 * distance);
      }
    }
  };
}

batch_size_function Run::in_batches(const size_function& size) {
  if (!size) return nullptr;
  batches_are_written_ = bytes_.below(4) != 0;
  const std::size_t written = batches_are_written_ ? std::numeric_limits<std::size_t>::max() : 10;
  return [size, written](std::span<const Cell* const> nodes, std::span<double> sizes) {
    for (std::size_t i = 0; i < std::min(nodes.size(), written); ++i) {
      const Cell& c = *nodes[i];
      sizes[i] = size(c.x, c.y, {c.data.data(), c.data.size()}, c.grad_data, c.grad2_data);
    }
  };
}

Cell* Run::node() {
  if (nb_nodes == 0) return nullptr;
  std::int32_t i = (bytes_.next() * 256 + bytes_.next()) % nb_nodes;
  for (const Handle& first : level_beg) {
    Cell* last = nullptr;
    for (Cell* c = first.next; c != nullptr && (last == nullptr || c->ipos == last->ipos);
         last = c, c = c->next) {
      if (i-- == 0) return c;
    }
  }
  fault_ = "a node cannot be reached through the stretches\n";
  return nullptr;
}

std::int32_t Run::small_limit() { return bytes_.below(14) - 1; }

}  // namespace velmar_2d::tests::fuzz
