// Heat conduction du/dt = div(D grad u) + q by finite volumes on the control cells of the mesh.
#pragma once

#include <Eigen/Sparse>
#include <vector>

#include "velmar_2D/mesh.hpp"

/// The temperature u is data[0]. On Dirichlet sides u = 0, on Neumann sides no heat flows, through
/// the other ones `transfer` x u flows out per unit of length.
struct HeatProblem {
  double conductivity = 1.0, transfer = 0.0;
  double (*source)(double x, double y, double time) = [](double, double, double) { return 0.0; };
};

/// What one step did to the energy, which is the sum of area x u.
struct EnergyBalance {
  double change = 0.0, source = 0.0, through_sides = 0.0;
  double imbalance() const { return change - source - through_sides; }
};

class HeatSolver {
 public:
  explicit HeatSolver(const HeatProblem& problem) : problem_(problem) {}

  /// Reads the mesh as it stands and factorises the matrix. Fluxes are taken at `share` of the
  /// step: 1 is implicit Euler, 1/2 the midpoint rule. Numbers the nodes by their `used`.
  void prepare(velmar_2d::Mesh& mesh, double step, double share);
  /// Advances u from `time` by one step. Needs: the mesh of the last prepare().
  EnergyBalance advance(double time);

 private:
  HeatProblem problem_;
  double step_ = 0.0, share_ = 1.0;
  std::vector<velmar_2d::Cell*> nodes_;
  Eigen::VectorXd areas_, outflow_, free_;  // outflow_ x u leaves; free_ is 0 where u is given
  Eigen::SparseMatrix<double> conduction_;
  Eigen::SimplicialLDLT<Eigen::SparseMatrix<double>> factors_;
};

/// The energy of the mesh as it stands.
double total_energy(velmar_2d::Mesh& mesh);
