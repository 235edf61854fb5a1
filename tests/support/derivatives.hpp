// Meshes on which derivatives are tested.
#pragma once

#include <cmath>

#include "scenarios/scenarios.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {

struct Domain {
  double x, y, size;
};

class Derivatives : public MeshTest {
 protected:
  /// A mesh that a ring has moved over, out of the domain in part, with values of a field of the
  /// position. Radius and position are measured in the domain's size.
  template <typename Field>
  static void make_mesh(const Domain& domain, double radius, int nx, int ny, int limit,
                        int nb_updates, Field&& field) {
    n_cell_data = 1;
    const double height = domain.size * (ny - 1) / (nx - 1);
    scenarios::set_domain(domain.x, domain.x + domain.size, domain.y, domain.y + height);
    double y_max = 0.0;
    init_mesh(scenarios::all_dirichlet, nx, ny, limit, y_max);
    const auto value = [=](double x, double y) {
      return field((x - domain.x) / domain.size, (y - domain.y) / domain.size);
    };
    for (int i = 0; i < nb_updates; ++i) {
      const double way = 0.1 + 0.8 * i / nb_updates;
      const scenarios::Ring ring{domain.x + way * domain.size, domain.y + 0.3 * domain.size,
                                 radius * domain.size};
      const double finest = dist_0 / std::exp2(limit / 2.0);
      update_mesh_init(scenarios::ring_spacing(ring, 0.3, finest, dist_0), value);
    }
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->data[0] = value(c->x, c->y);
  }
};

inline double wave(double x, double y) {
  return std::sin(3.0 * x + 1.0) * std::cos(2.0 * y) + x * y;
}

}  // namespace velmar_2d::tests
