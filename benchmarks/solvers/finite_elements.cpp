// The side of deal.II, in the form of its tutorial on the heat equation (step-26): bilinear
// elements, Kelly's estimator, refinement every few steps, solutions transferred, conjugate
// gradients preconditioned by SSOR.
//
// What is different, since it is faster here: the mass matrix and the reaction are lumped, the
// estimator is held against a threshold instead of a fixed fraction of the cells, and the
// tolerance of the solver is no smaller than it has to be. Time steps are of second order, linearly
// implicit, so that one linear system is solved in each.
#include <deal.II/base/mpi.h>
#include <deal.II/base/quadrature_lib.h>
#include <deal.II/dofs/dof_handler.h>
#include <deal.II/dofs/dof_tools.h>
#include <deal.II/fe/fe_q.h>
#include <deal.II/grid/grid_generator.h>
#include <deal.II/grid/grid_refinement.h>
#include <deal.II/grid/tria.h>
#include <deal.II/lac/affine_constraints.h>
#include <deal.II/lac/dynamic_sparsity_pattern.h>
#include <deal.II/lac/precondition.h>
#include <deal.II/lac/solver_cg.h>
#include <deal.II/lac/sparse_matrix.h>
#include <deal.II/lac/vector.h>
#include <deal.II/numerics/error_estimator.h>
#include <deal.II/numerics/matrix_tools.h>
#include <deal.II/numerics/solution_transfer.h>
#include <deal.II/numerics/vector_tools.h>

#include "problem.hpp"

namespace {

using namespace dealii;
using velmar_2d::solvers::Case, velmar_2d::solvers::Front;

struct Wave : Function<2> {
  explicit Wave(const Front& of) : front(of) {}
  double value(const Point<2>& p, unsigned int) const override {
    return front.wave(p[0], p[1], get_time());
  }
  const Front& front;
};

struct Solver {
  explicit Solver(const Case& of) : run(of), wave(of.front), fe(1), dofs(tria) {}

  const Case& run;
  Wave wave;
  Triangulation<2> tria;
  FE_Q<2> fe;
  DoFHandler<2> dofs;
  AffineConstraints<double> constraints;
  SparsityPattern pattern;
  SparseMatrix<double> mass, diffusion, system;
  Vector<double> u, change, right, reaction, slope;

  int levels() const;
  void make_first_mesh();
  void setup();
  void advance(double time, double step);
  void adapt();
  void measure(velmar_2d::solvers::Errors& errors) const;
};

int Solver::levels() const {
  int levels = 0;
  for (int cells = run.coarsest(1); cells < run.cells; cells *= 2) ++levels;
  return levels;
}

void Solver::make_first_mesh() {
  const auto rows = static_cast<unsigned int>(std::lround(run.coarsest(1) * run.front.height));
  GridGenerator::subdivided_hyper_rectangle(tria,
                                            {static_cast<unsigned int>(run.coarsest(1)), rows},
                                            Point<2>(0.0, 0.0), Point<2>(1.0, run.front.height));
  for (int level = 0; level < levels(); ++level) {
    for (const auto& cell : tria.active_cell_iterators()) {
      const Point<2> at = cell->center();
      if (cell->extent_in_direction(0) > run.first_spacing(at[0], at[1]) * (1.0 + 1e-9)) {
        cell->set_refine_flag();
      }
    }
    tria.execute_coarsening_and_refinement();
  }
}

/// Unknowns, hanging nodes and matrices of the mesh as it is.
void Solver::setup() {
  dofs.distribute_dofs(fe);
  constraints.clear();
  DoFTools::make_hanging_node_constraints(dofs, constraints);
  constraints.close();
  DynamicSparsityPattern entries(dofs.n_dofs());
  DoFTools::make_sparsity_pattern(dofs, entries, constraints, false);
  system.clear();
  diffusion.clear();
  mass.clear();
  pattern.copy_from(entries);
  diffusion.reinit(pattern);
  system.reinit(pattern);
  mass.reinit(pattern);
  const QGauss<2> quadrature(fe.degree + 1);
  MatrixCreator::create_laplace_matrix(dofs, quadrature, diffusion,
                                       static_cast<const Function<2>*>(nullptr), constraints);
  diffusion *= run.front.D;

  MatrixCreator::create_mass_matrix(dofs, quadrature, mass,
                                    static_cast<const Function<2>*>(nullptr), constraints);
  for (Vector<double>* vector : {&u, &change, &right, &reaction, &slope}) {
    vector->reinit(dofs.n_dofs());
  }
}

/// The linearly implicit midpoint rule for the change of u, which is known on the sides.
void Solver::advance(double time, double step) {
  const Front& front = run.front;
  for (types::global_dof_index i = 0; i < u.size(); ++i) {
    reaction(i) = front.reaction(u(i));
    slope(i) = front.slope_of_reaction(u(i));
  }
  mass.vmult(right, reaction);
  diffusion.vmult(reaction, u);
  right -= reaction;
  for (types::global_dof_index i = 0; i < u.size(); ++i) {
    auto m = mass.begin(i), d = diffusion.begin(i);
    for (auto entry = system.begin(i); entry != system.end(i); ++entry, ++m, ++d) {
      const double mean_slope = 0.5 * (slope(i) + slope(entry->column()));
      entry->value() = m->value() * (1.0 / step - 0.5 * mean_slope) + 0.5 * d->value();
    }
  }
  constraints.set_zero(right);
  constraints.set_zero(change);

  std::map<types::global_dof_index, double> on_the_sides;
  wave.set_time(time + step);
  VectorTools::interpolate_boundary_values(dofs, 0, wave, on_the_sides);
  for (auto& [i, value] : on_the_sides) value -= u(i);
  MatrixTools::apply_boundary_values(on_the_sides, system, change, right);

  ReductionControl control(1000, 1e-14, 1e-6);
  SolverCG<Vector<double>> solver(control);
  PreconditionSSOR<SparseMatrix<double>> preconditioner;
  preconditioner.initialize(system, 1.0);
  solver.solve(system, change, right, preconditioner);
  constraints.distribute(change);
  u += change;
}

/// What the estimator says of a cell is about 0.4 side^2 |Hessian of u|; see Case::spacing().
void Solver::adapt() {
  Vector<float> estimated(tria.n_active_cells());
  KellyErrorEstimator<2>::estimate(dofs, QGauss<1>(fe.degree + 1), {}, u, estimated);
  const double allowed = 0.41 * 2.0 * std::exp(-run.rim()) * run.finest() * run.finest() /
                         (run.front.length * run.front.length);
  GridRefinement::refine(tria, estimated, allowed);
  GridRefinement::coarsen(tria, estimated, 0.15 * allowed);
  const auto deepest = static_cast<unsigned int>(levels());
  if (tria.n_levels() > deepest) {
    for (const auto& cell : tria.active_cell_iterators_on_level(deepest)) {
      cell->clear_refine_flag();
    }
  }
  SolutionTransfer<2> transfer(dofs);
  tria.prepare_coarsening_and_refinement();
  transfer.prepare_for_coarsening_and_refinement(u);
  const Vector<double> before = u;
  tria.execute_coarsening_and_refinement();
  setup();
  transfer.interpolate(before, u);
  constraints.distribute(u);
}

void Solver::measure(velmar_2d::solvers::Errors& errors) const {
  for (const auto& cell : dofs.active_cell_iterators()) {
    for (const auto v : cell->vertex_indices()) {
      const Point<2> at = cell->vertex(v);
      errors.add(cell->measure() / 4.0,
                 u(cell->vertex_dof_index(v, 0)) - run.front.wave(at[0], at[1], Front::duration));
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Utilities::MPI::MPI_InitFinalize mpi(argc, argv, 1);  // one thread
  const Case run = velmar_2d::solvers::case_of_arguments(argc, argv);
  Solver solver(run);
  solver.make_first_mesh();
  solver.setup();
  for (int i = 0; i < 2; ++i) {
    VectorTools::interpolate(solver.dofs, solver.wave, solver.u);
    solver.adapt();
  }
  VectorTools::interpolate(solver.dofs, solver.wave, solver.u);

  const velmar_2d::solvers::Clock clock;
  velmar_2d::solvers::Outcome outcome;
  double sum_of_unknowns = 0.0;
  for (int i = 0; i < run.steps(); ++i) {
    if (i > 0 && i % run.steps_between() == 0) {
      const velmar_2d::solvers::Clock adapting;
      solver.adapt();
      outcome.adapting += adapting.processor_seconds();
    }
    solver.advance(i * run.time_step(), run.time_step());
    sum_of_unknowns += solver.dofs.n_dofs();
  }
  outcome.seconds = clock.seconds();
  outcome.processor_seconds = clock.processor_seconds();
  outcome.cells = static_cast<std::int64_t>(sum_of_unknowns / run.steps());
  solver.measure(outcome.errors);
  print(run, outcome);
  if (!run.picture.empty()) {
    velmar_2d::solvers::Picture picture(run);
    for (const auto& cell : solver.dofs.active_cell_iterators()) {
      const Point<2> at = cell->center();
      double mean = 0.0;
      for (const auto v : cell->vertex_indices())
        mean += 0.25 * solver.u(cell->vertex_dof_index(v, 0));
      picture.add_square(mean, at[0], at[1], cell->extent_in_direction(0));
    }
  }
  return 0;
}
