// How fast the errors of the derivatives fall with the spacing.
//
// A smooth field is differentiated at every node of five uniform grids and of five meshes adapted
// to a ring, sides and corners included. Each grid has half the spacing of the one before. The
// table shows root-mean-square and largest errors of the gradient and of the Hessian norm, and the
// orders p of the former (error ~ spacing^p); the same numbers are drawn as a log-log picture.
//
//     05_derivative_orders                pictures go to the folder pictures/
//     05_derivative_orders my/folder      pictures go to my/folder/
//
// At the end:
//
//     orders of the gradient: uniform 2.0, adapted 2.1
//     orders of the Hessian norm: uniform 1.0, adapted 1.0
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <tuple>

#include "log_log_plot.hpp"
#include "pictures.hpp"
#include "scenarios/scenarios.hpp"
#include "velmar_2D/mesh.hpp"

namespace {

using velmar_2d::Cell;

constexpr std::array<int, 5> grids = {9, 17, 33, 65, 129};

double field(double x, double y) { return std::sin(3.0 * x + 1.0) * std::cos(2.0 * y) + x * y * y; }

struct Exact {
  double dx, dy, hessian;
};
Exact derivatives(double x, double y) {
  const double s = std::sin(3.0 * x + 1.0), c = std::cos(3.0 * x + 1.0);
  const double t = std::sin(2.0 * y), d = std::cos(2.0 * y);
  const double dx2 = -9.0 * s * d, dy2 = -4.0 * s * d + 2.0 * x, dxdy = -6.0 * c * t + 2.0 * y;
  return {3.0 * c * d + y * y, -2.0 * s * t + 2.0 * x * y,
          std::sqrt(dx2 * dx2 + dy2 * dy2 + 2.0 * dxdy * dxdy)};
}

struct Errors {
  double spacing = 0.0;
  long long nodes = 0;
  double gradient = 0.0, largest_gradient = 0.0, hessian = 0.0, largest_hessian = 0.0;
};

/// Errors on a grid of n by n nodes, uniform or refined along a ring: to a quarter of the spacing
/// within 1/16 of it, less and less as far as 1/4.
Errors measure(int n, bool adapt) {
  velmar_2d::Mesh mesh({0.0, 1.0, 0.0, 1.0}, {.nx = n, .subdiv_max = 4, .n_cell_data = 1});
  Errors e;
  e.spacing = mesh.dist_0();
  if (adapt) {
    mesh.resolve(velmar_2d::scenarios::ring_spacing({0.45, 0.55, 0.3}, 4.0 * e.spacing,
                                                    e.spacing / 4.0, e.spacing));
  }
  for (Cell& c : mesh.nodes()) c.data[0] = field(c.x, c.y);
  for (Cell& c : mesh.nodes()) {
    const velmar_2d::Gradient computed = mesh.compute_derivatives(c);
    const Exact exact = derivatives(c.x, c.y);
    const double gradient = std::hypot(computed.dfdx - exact.dx, computed.dfdy - exact.dy);
    const double hessian = std::abs(c.grad2_data - exact.hessian);
    e.gradient += gradient * gradient;
    e.hessian += hessian * hessian;
    e.largest_gradient = std::max(e.largest_gradient, gradient);
    e.largest_hessian = std::max(e.largest_hessian, hessian);
  }
  e.nodes = mesh.size();
  e.gradient = std::sqrt(e.gradient / static_cast<double>(e.nodes));
  e.hessian = std::sqrt(e.hessian / static_cast<double>(e.nodes));
  return e;
}

using Series = std::array<Errors, grids.size()>;

constexpr LogLogPlot::Colour teal{0.0, 0.5, 0.5}, violet{0.45, 0.1, 0.55};

double order(double coarse, double fine) { return std::log2(coarse / fine); }

void print(const char* name, const Series& series) {
  std::printf("%s\n spacing   nodes   gradient order  largest    Hessian order  largest\n", name);
  for (std::size_t i = 0; i < series.size(); ++i) {
    const Errors& e = series[i];
    std::printf("%8.5f %7lld %10.2e", e.spacing, e.nodes, e.gradient);
    i == 0 ? std::printf("      ")
           : std::printf(" %5.2f", order(series[i - 1].gradient, e.gradient));
    std::printf(" %8.1e %10.2e", e.largest_gradient, e.hessian);
    i == 0 ? std::printf("      ") : std::printf(" %5.2f", order(series[i - 1].hessian, e.hessian));
    std::printf(" %8.1e\n", e.largest_hessian);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path folder = picture_folder(argc, argv);
  Series uniform, adapted;
  for (std::size_t i = 0; i < grids.size(); ++i) {
    uniform[i] = measure(grids[i], false);
    adapted[i] = measure(grids[i], true);
  }
  print("uniform", uniform);
  print("adapted", adapted);

  LogLogPlot plot("Errors of the derivatives", "spacing of the first grid", "error");
  for (const auto& [name, series, dashed] :
       {std::tuple{"uniform", &uniform, false}, std::tuple{"adapted", &adapted, true}}) {
    LogLogPlot::Line gradient{std::string("gradient, ") + name, teal, dashed, {}};
    LogLogPlot::Line hessian{std::string("Hessian norm, ") + name, violet, dashed, {}};
    for (const Errors& e : *series) {
      gradient.points.push_back({e.spacing, e.gradient});
      hessian.points.push_back({e.spacing, e.hessian});
    }
    plot.add(gradient);
    plot.add(hessian);
  }
  const std::string picture = (folder / "05_derivative_orders.svg").string();
  require(plot.draw(picture));
  const auto last_orders = [](const Series& s, double Errors::*error_of) {
    return order(s[s.size() - 2].*error_of, s.back().*error_of);
  };
  std::printf("orders of the gradient: uniform %.1f, adapted %.1f\n",
              last_orders(uniform, &Errors::gradient), last_orders(adapted, &Errors::gradient));
  std::printf("orders of the Hessian norm: uniform %.1f, adapted %.1f\n",
              last_orders(uniform, &Errors::hessian), last_orders(adapted, &Errors::hessian));
  return 0;
}
