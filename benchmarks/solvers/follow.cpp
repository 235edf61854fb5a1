#include "follow.hpp"

#include <Eigen/Sparse>
#include <algorithm>

#include "stepping.hpp"
#include "velmar_2D/velmar_2D_numerics.hpp"

namespace {

using namespace velmar_2d;
using solvers::Case, solvers::Front, solvers::FluxRows;

/// Derivatives want three rows of nodes.
Grid first_grid(const Case& run) {
  int limit = 0;
  for (int squares = run.coarsest(2); squares < run.cells; squares *= 2) limit += 2;
  return {.nx = run.coarsest(2) + 1, .subdiv_max = limit, .n_cell_data = 1};
}

Mesh first_mesh(const Case& run, const size_function& size) {
  Mesh mesh({0.0, 1.0, 0.0, run.front.height}, first_grid(run));
  const auto wave = [&run](double x, double y) { return run.front.wave(x, y, 0.0); };
  mesh.resolve([&run](double x, double y, auto...) { return run.first_spacing(x, y); }, wave);
  for (int i = 0; i < 2; ++i) {
    for (Cell& c : mesh.nodes()) c.data[0] = wave(c.x, c.y);
    mesh.resolve(size, wave, {.margin = 0.5});
  }
  return mesh;
}

/// Where the faces of a shape of control cell are.
struct FacesOfShape {
  std::size_t n = 0;
  std::array<std::size_t, 8> directions{};
  bool square = false;
};

std::vector<FacesOfShape> faces_of_shapes(const MeshArrays& arrays) {
  std::vector<FacesOfShape> shapes;
  for (const std::array<double, 8>& weights : arrays.weight_rows()) {
    FacesOfShape faces;
    for (std::size_t d = 0; d < 8; ++d) {
      if (weights[d] > 0.0) faces.directions[faces.n++] = d;
    }
    faces.square = std::ranges::count(weights, 1.0) == 4 && faces.n == 4;
    shapes.push_back(faces);
  }
  return shapes;
}

void assemble(const MeshArrays& arrays, const Case& run, FluxRows& rows) {
  const Front& front = run.front;
  rows.clear();
  const std::vector<FacesOfShape> shapes = faces_of_shapes(arrays);
  for (std::int32_t i = 0; i < arrays.size(); ++i) {
    const auto here = static_cast<std::size_t>(i);
    if (arrays.known()[here] != 0) {
      rows.known.push_back({i, arrays.x()[here], arrays.y()[here]});
      rows.end_row();
      continue;
    }
    const auto links = arrays.links(i);
    const FacesOfShape& faces = shapes[static_cast<std::size_t>(arrays.shapes()[here])];
    const double scale = front.D / arrays.areas()[here];
    const auto& to = faces.directions;
    if (faces.square) {
      rows.add_square({links[to[0]], links[to[1]], links[to[2]], links[to[3]]}, scale);
      continue;
    }
    for (std::size_t k = 0; k < faces.n; ++k) {
      rows.add(links[to[k]], scale * arrays.weights(i)[to[k]]);
    }
    rows.end_row();
  }
  if (run.sums == 2) rows.end();
}

struct Explicit {
  const Case& run;
  FluxRows rows = {};
  solvers::Loops loops = loops_over(rows, run.front);
  solvers::StageValues room = {};

  void prepare(const MeshArrays& arrays) { assemble(arrays, run, rows); }
  void advance(double time, double step, std::vector<double>& u) {
    chebyshev_step(loops, rows.radius + run.front.k, time, step, u, room);
  }
};

struct Implicit {
  const Front& front;
  std::vector<solvers::Known> known = {};
  std::vector<double> areas = {}, known_after = {};
  std::vector<std::uint8_t> is_known = {};
  numerics::FluxMatrix diffusion = {};
  numerics::Work work = {};
  Eigen::ConjugateGradient<Eigen::SparseMatrix<double, Eigen::RowMajor>,
                           Eigen::Lower | Eigen::Upper>
      solver = {};

  void prepare(const MeshArrays& arrays) {
    numerics::update(diffusion, arrays, front.D);
    areas.assign(arrays.areas().begin(), arrays.areas().end());
    is_known.assign(arrays.known().begin(), arrays.known().end());
    known.clear();
    for (std::int32_t i = 0; i < arrays.size(); ++i) {
      const auto here = static_cast<std::size_t>(i);
      if (is_known[here] != 0) known.push_back({i, arrays.x()[here], arrays.y()[here]});
    }
    solver.setTolerance(1e-5);
  }

  void advance(double time, double step, std::vector<double>& u) {
    known_after.resize(u.size());
    for (const solvers::Known& one : known) {
      known_after[static_cast<std::size_t>(one.number)] = front.wave(one.x, one.y, time + step);
    }
    const auto reaction = [this](double, std::span<const double> values, std::span<double> rate,
                                 std::span<double> slope) {
      for (std::size_t i = 0; i < values.size(); ++i) {
        rate[i] = front.reaction(values[i]);
        slope[i] = front.slope_of_reaction(values[i]);
      }
    };
    const auto solve = [this](const numerics::SparseMatrix& matrix, std::span<const double> right,
                              std::span<double> solution) {
      const Eigen::Index n = matrix.size();
      const Eigen::Map<const Eigen::SparseMatrix<double, Eigen::RowMajor>> a(
          n, n, static_cast<Eigen::Index>(matrix.values.size()), matrix.row_begin.data(),
          matrix.columns.data(), matrix.values.data());
      const Eigen::Map<const Eigen::VectorXd> b(right.data(), n);
      Eigen::Map<Eigen::VectorXd> x(solution.data(), n);
      solver.compute(a);
      x = solver.solveWithGuess(b, x);
    };
    numerics::rosenbrock_step({diffusion.matrix, areas, is_known}, time, step, reaction, u, solve,
                              work, known_after);
  }
};

template <typename Steps>
solvers::Outcome follow_by(const Case& run, Steps steps) {
  const size_function size = [&run](double, double, std::span<const double>, double gradient,
                                    double hessian) { return run.spacing(gradient, hessian); };
  Mesh mesh = first_mesh(run, size);

  const solvers::Clock clock;
  solvers::Outcome outcome;
  MeshArrays arrays(mesh);
  std::vector<double> u;
  double sum_of_nodes = 0.0;
  for (int i = 0; i < run.steps(); ++i) {
    if (i % run.steps_between() == 0) {
      const solvers::Clock adapting;
      if (i > 0) {
        arrays.push(0, u);
        mesh.resolve(size, {.margin = 0.5});
      }
      if (arrays.update() || i == 0) {
        steps.prepare(arrays);
        u.resize(static_cast<std::size_t>(arrays.size()));
        arrays.pull(0, u);
      }
      outcome.adapting += adapting.processor_seconds();
    }
    steps.advance(i * run.time_step(), run.time_step(), u);
    sum_of_nodes += arrays.size();
  }
  outcome.seconds = clock.seconds();
  outcome.processor_seconds = clock.processor_seconds();
  outcome.cells = static_cast<std::int64_t>(sum_of_nodes / run.steps());

  for (std::int32_t i = 0; i < arrays.size(); ++i) {
    const auto here = static_cast<std::size_t>(i);
    const double exact = run.front.wave(arrays.x()[here], arrays.y()[here], Front::duration);
    outcome.errors.add(arrays.areas()[here], u[here] - exact);
  }
  if (!run.picture.empty()) {
    solvers::Picture picture(run);
    for (std::int32_t i = 0; i < arrays.size(); ++i) {
      const CellPolygon cell = mesh.polygon(arrays.node(i));
      std::vector<std::array<double, 2>> corners;
      for (const Point& corner : cell) corners.push_back({corner.x, corner.y});
      picture.add(u[static_cast<std::size_t>(i)], corners);
    }
  }
  return outcome;
}

}  // namespace

namespace velmar_2d::solvers {

Outcome follow(const Case& run) { return follow_by(run, Explicit{run}); }
Outcome follow_implicitly(const Case& run) { return follow_by(run, Implicit{run.front}); }

}  // namespace velmar_2d::solvers
