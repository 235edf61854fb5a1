#include "support/history.hpp"

#include <cmath>
#include <cstdio>
#include <sstream>

#include "scenarios/scenarios.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::tests {
namespace {

using scenarios::Random;

std::int32_t mixed_kinds(double x, double y, std::string_view side) {
  return static_cast<std::int32_t>(3.0 * scenarios::position_noise(x, y, side.size()));
}

int small_or_large_limit(Random& random) {
  return random.between(0, 3) == 0 ? random.between(7, 9) : random.between(0, 6);
}

/// Two rows of nodes are too few for second derivatives: computing them would end the process.
bool has_second_derivatives(int nx, int ny) { return nx > 2 && ny > 2; }
bool grid_has_second_derivatives() {
  return east_boundary_dir->c - x_min > 1.5 * dist_0 &&
         north_boundary_dir->c - y_min > 1.5 * dist_0;
}

std::string make_mesh(const HistoryPlan& plan, Random& random) {
  const int nx = random.between(2, 8), ny = random.between(2, 8);
  const int limit = small_or_large_limit(random);
  n_cell_data = has_second_derivatives(nx, ny) ? random.between(0, 2) : 0;
  // Powers of 2 near the origin: no coordinate is rounded and no side has to be moved.
  const double spacing = plan.far_from_origin ? 0.1 : std::ldexp(1.0, random.between(-4, 4));
  const double west = plan.far_from_origin ? std::pow(10.0, random.between(3, 6)) + random.uniform()
                                           : spacing * random.between(-8, 8);
  const double south = plan.far_from_origin ? -west / 3.0 : spacing * random.between(-8, 8);
  scenarios::set_domain(west, west + (nx - 1) * spacing, south, south + (ny - 1) * spacing);
  if (plan.far_from_origin && std::freopen("/dev/null", "r", stdin) == nullptr) std::abort();
  double y_max = 0.0;
  init_mesh(mixed_kinds, nx, ny, limit, y_max);

  std::ostringstream text;
  text << "grid of " << nx << " x " << ny << ", spacing " << dist_0 << ", west side at " << west
       << ", limit " << limit << ", " << n_cell_data << " data values";
  return text.str();
}

/// The rings, jumps and noise reach from the coarsest to a finest spacing that the limit may or may
/// not allow. The work stays small: fine spacing everywhere is asked for under low limits only.
size_function draw_size(const HistoryPlan& plan, Random& random, std::string& name) {
  const double width = east_boundary_dir->c - x_min, height = north_boundary_dir->c - y_min;
  const double finest = dist_0 * std::exp2(-0.5 * random.between(0, 9));
  const double coarsest = dist_0 * random.between(1, 3);
  const std::uint64_t seed = random.next();
  size_function size;
  switch (random.between(0, 3)) {
    case 0: {
      const scenarios::Ring ring{x_min + width * random.uniform(),
                                 y_min + height * random.uniform(), 0.4 * width * random.uniform()};
      name = "ring";
      size = scenarios::ring_spacing(ring, 0.2 + random.uniform(), finest, coarsest);
      break;
    }
    case 1:
      name = "jump";
      size = scenarios::jumping_spacing(x_min + width * random.uniform(),
                                        std::max(finest, 0.2 * dist_0), coarsest);
      break;
    case 2:
      name = "noise";
      size = scenarios::random_spacing(seed, 0.02, finest, coarsest);
      break;
    default:
      name = "even";
      size = scenarios::even_spacing(std::max(finest, 0.3 * dist_0));
      break;
  }
  if (plan.by_data) {
    size = [size = std::move(size)](double x, double y, std::span<const double> data, double grad,
                                    double grad2) {
      const double value = data.empty() ? 0.0 : data[0];
      return size(x, y, data, grad, grad2) *
             (0.5 + 1.0 / (1.0 + std::abs(value) + std::sqrt(grad) + std::cbrt(grad2)));
    };
  }
  if (plan.steps == Steps::adapt_hostile) {
    name = "hostile " + name;
    size = scenarios::hostile_spacing(seed, std::move(size));
  }
  return size;
}

std::string adapt(const HistoryPlan& plan, Random& random) {
  std::string name;
  const size_function size = draw_size(plan, random, name);
  const batch_size_function sizes = [&](std::span<const Cell* const> nodes, std::span<double> out) {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      const Cell& c = *nodes[i];
      out[i] = size(c.x, c.y, {c.data.data(), c.data.size()}, c.grad_data, c.grad2_data);
    }
  };
  const auto product = [](double x, double y) { return x * y; };
  if (random.between(0, 1) == 0 || !grid_has_second_derivatives()) {
    plan.batched ? update_mesh_no_init_batched(sizes) : update_mesh_no_init(size);
  } else {
    plan.batched ? update_mesh_init_batched(sizes, product) : update_mesh_init(size, product);
  }
  return "update: " + name;
}

std::string change_limit(Random& random) {
  const int limit = random.between(0, 1) == 0 ? std::max(0, level_max - random.between(1, 4))
                                              : std::min(9, level_max + random.between(1, 3));
  set_subdiv_max(limit);
  return "limit " + std::to_string(limit);
}

Cell* draw_node(Random& random) {
  Cell* c = mesh_beg;
  for (int skip = random.between(0, nb_nodes - 1); skip > 0; --skip) c = c->next;
  return c;
}

/// Inserts or removes at a few nodes, in the joined or in the split state.
std::string single_nodes(Random& random) {
  int inserted = 0, removed = 0;
  const bool split = random.between(0, 1) == 0;
  for (int i = 0; i < 10; ++i) {
    Cell* c = draw_node(random);
    if (split) split_sublists();
    if (random.between(0, 1) == 0) {
      const auto proposals = proposals_around(c);
      if (!proposals.empty() && proposals.back().level <= level_max) {
        insert(proposals.back());
        ++inserted;
      }
    } else if (c->ipos > 0 && remove(c)) {
      ++removed;
    }
    if (split) join_sublists();
  }
  return std::to_string(inserted) + " inserted, " + std::to_string(removed) + " removed" +
         (split ? " in the split list" : " in the joined list");
}

}  // namespace

void run_history(const HistoryPlan& plan,
                 const std::function<void(const std::string& step)>& after_step) {
  Random random{plan.seed};
  after_step(make_mesh(plan, random));
  for (int i = 0; i < plan.nb_steps; ++i) {
    const int choice = random.between(0, 5);
    if (choice == 0) {
      after_step(change_limit(random));
    } else if (choice == 1 && plan.steps == Steps::single_nodes) {
      after_step(single_nodes(random));
    } else {
      after_step(adapt(plan, random));
    }
  }
}

}  // namespace velmar_2d::tests
