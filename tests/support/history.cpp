#include "support/history.hpp"

#include <cmath>
#include <cstdio>
#include <sstream>

namespace velmar_2d::tests {
namespace {

using scenarios::Random;

std::int32_t mixed_kinds(double x, double y, std::string_view side) {
  return static_cast<std::int32_t>(3.0 * scenarios::position_noise(x, y, side.size()));
}

int small_or_large_limit(Random& random) {
  return random.between(0, 3) == 0 ? random.between(7, 9) : random.between(0, 6);
}

/// Derivatives above this level end the process, with the free procedures.
constexpr int deepest_with_derivatives = 31;

/// Two rows of nodes are too few for second derivatives: computing them would end the process.
bool has_second_derivatives(int nx, int ny) { return nx > 2 && ny > 2; }
bool grid_has_second_derivatives(const Mesh& mesh) {
  return mesh.x_max() - mesh.x_min() > 1.5 * mesh.dist_0() &&
         mesh.y_max() - mesh.y_min() > 1.5 * mesh.dist_0();
}

}  // namespace

std::string History::make_mesh() {
  const int nx = random_.between(2, 8), ny = random_.between(2, 8);
  const int limit = plan_.depth > 0 ? plan_.depth : small_or_large_limit(random_);
  const int nb_values = has_second_derivatives(nx, ny) && limit <= deepest_with_derivatives
                            ? random_.between(0, 2)
                            : 0;
  // Powers of 2 near the origin: no coordinate is rounded and no side has to be moved.
  const double spacing = plan_.far_from_origin ? 0.1 : std::ldexp(1.0, random_.between(-4, 4));
  // Limits above 44 need more digits than are left at 1e6.
  const double west =
      plan_.far_from_origin
          ? std::pow(10.0, random_.between(3, limit > 44 ? 5 : 6)) + random_.uniform()
          : spacing * random_.between(-8, 8);
  const double south = plan_.far_from_origin ? -west / 3.0 : spacing * random_.between(-8, 8);
  if (plan_.face == Face::free_procedures && plan_.far_from_origin &&
      std::freopen("/dev/null", "r", stdin) == nullptr)
    std::abort();
  driven_.make({west, west + (nx - 1) * spacing, south, south + (ny - 1) * spacing},
               {nx, ny, limit, nb_values, mixed_kinds});

  std::ostringstream text;
  text << "grid of " << nx << " x " << ny << ", spacing " << mesh().dist_0() << ", west side at "
       << west << ", limit " << limit << ", " << nb_values << " data values";
  return text.str();
}

/// Down to the limit at one point, anywhere or on a side.
size_function History::draw_point() {
  const double x = mesh().x_min() + (mesh().x_max() - mesh().x_min()) * random_.uniform();
  const double y = random_.between(0, 3) == 0
                       ? mesh().y_max()
                       : mesh().y_min() + (mesh().y_max() - mesh().y_min()) * random_.uniform();
  const double slope = 0.5 + random_.uniform();
  return [=](double px, double py, auto, double, double) {
    return slope * std::hypot(px - x, py - y);
  };
}

/// The rings, jumps and noise reach from the coarsest to a finest spacing that the limit may or may
/// not allow. The work stays small: fine spacing everywhere is asked for under low limits only.
size_function History::draw_size(std::string& name) {
  const double x_min = mesh().x_min(), y_min = mesh().y_min(), dist_0 = mesh().dist_0();
  const double width = mesh().x_max() - x_min, height = mesh().y_max() - y_min;
  const double finest = dist_0 * std::exp2(-0.5 * random_.between(0, 9));
  const double coarsest = dist_0 * random_.between(1, 3);
  const std::uint64_t seed = random_.next();
  size_function size;
  switch (plan_.depth > 0 && random_.between(0, 3) > 0 ? 4 : random_.between(0, 3)) {
    case 0: {
      const scenarios::Ring ring{x_min + width * random_.uniform(),
                                 y_min + height * random_.uniform(),
                                 0.4 * width * random_.uniform()};
      name = "ring";
      size = scenarios::ring_spacing(ring, 0.2 + random_.uniform(), finest, coarsest);
      break;
    }
    case 1:
      name = "jump";
      size = scenarios::jumping_spacing(x_min + width * random_.uniform(),
                                        std::max(finest, 0.2 * dist_0), coarsest);
      break;
    case 2:
      name = "noise";
      size = scenarios::random_spacing(seed, 0.02, finest, coarsest);
      break;
    case 4:
      name = "point";
      size = draw_point();
      break;
    default:
      name = "even";
      size = scenarios::even_spacing(std::max(finest, 0.3 * dist_0));
      break;
  }
  if (plan_.by_data) {
    size = [size = std::move(size)](double x, double y, std::span<const double> data, double grad,
                                    double grad2) {
      const double value = data.empty() ? 0.0 : data[0];
      return size(x, y, data, grad, grad2) *
             (0.5 + 1.0 / (1.0 + std::abs(value) + std::sqrt(grad) + std::cbrt(grad2)));
    };
  }
  if (plan_.steps == Steps::adapt_hostile) {
    name = "hostile " + name;
    size = scenarios::hostile_spacing(seed, std::move(size));
  }
  return size;
}

std::string History::adapt() {
  std::string name;
  const size_function size = draw_size(name);
  const batch_size_function sizes = [&](std::span<const Cell* const> nodes, std::span<double> out) {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      const Cell& c = *nodes[i];
      out[i] = size(c.x, c.y, {c.data.data(), c.data.size()}, c.grad_data, c.grad2_data);
    }
  };
  const auto product = [](double x, double y) { return x * y; };
  if (random_.between(0, 1) == 0 || !grid_has_second_derivatives(mesh()) ||
      plan_.depth > deepest_with_derivatives) {
    plan_.batched ? driven_.update_batched(sizes) : driven_.update(size);
  } else {
    plan_.batched ? driven_.update_batched(sizes, product) : driven_.update(size, product);
  }
  return "update: " + name;
}

std::string History::change_limit() {
  const int old_limit = mesh().limit();
  const int fall = plan_.depth > 0 ? plan_.depth : 4;
  const int limit = random_.between(0, 1) == 0 ? std::max(0, old_limit - random_.between(1, fall))
                    : plan_.depth > 0          ? plan_.depth
                                               : std::min(9, old_limit + random_.between(1, 3));
  driven_.set_limit(limit);
  return "limit " + std::to_string(limit);
}

Cell& History::draw_node() {
  auto node = mesh().nodes().begin();
  for (int i = random_.between(0, static_cast<int>(mesh().size()) - 1); i > 0; --i) ++node;
  return *node;
}

/// Inserts or removes at a few nodes, in the joined or in the split state.
std::string History::single_nodes() {
  int inserted = 0, removed = 0;
  const bool split = random_.between(0, 1) == 0;
  for (int i = 0; i < 10; ++i) {
    Cell& c = draw_node();
    if (split) driven_.split();
    if (random_.between(0, 1) == 0) {
      const auto proposals = driven_.proposals_around(c);
      if (!proposals.empty() && proposals.back().level <= mesh().limit()) {
        driven_.insert(proposals.back());
        ++inserted;
      }
    } else if (c.ipos > 0 && driven_.remove(c)) {
      ++removed;
    }
    if (split) driven_.join();
  }
  return std::to_string(inserted) + " inserted, " + std::to_string(removed) + " removed" +
         (split ? " in the split list" : " in the joined list");
}

std::string History::step() {
  if (next_step_++ == 0) return make_mesh();
  const int choice = random_.between(0, 5);
  if (choice == 0) return change_limit();
  if (choice == 1 && plan_.steps == Steps::single_nodes) return single_nodes();
  return adapt();
}

void run_history(const HistoryPlan& plan,
                 const std::function<void(const std::string& step)>& after_step) {
  History history(plan);
  while (!history.is_over()) after_step(history.step());
}

}  // namespace velmar_2d::tests
