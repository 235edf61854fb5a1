// Heat conduction du/dt = div(D grad u) + q by finite volumes on the control cells of the mesh.
#pragma once

#include <Eigen/Sparse>
#include <optional>

#include "velmar_2D/arrays.hpp"

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
  HeatSolver(velmar_2d::Mesh& mesh, const HeatProblem& problem)
      : problem_(problem), arrays_(mesh) {}

  /// Reads the mesh as it stands, u included, and factorises the matrix. Fluxes are taken at
  /// `share` of the step: 1 is implicit Euler, 1/2 the midpoint rule.
  void prepare(double step, double share);
  /// Advances u from `time` by one step. Needs: the mesh of the last prepare().
  EnergyBalance advance(double time);
  /// Sum of area x u.
  double energy() const;
  /// Gives u back to the nodes, before the mesh is changed, drawn or asked for it.
  void store() { arrays_.push(); }

 private:
  void assemble();

  HeatProblem problem_;
  double step_ = 0.0, share_ = 1.0;
  velmar_2d::MeshArrays arrays_;
  std::optional<std::uint64_t> assembled_at_;  // revision of the mesh
  Eigen::VectorXd areas_, outflow_, free_;     // outflow_ x u leaves; free_ is 0 where u is given
  Eigen::SparseMatrix<double> conduction_;
  Eigen::SimplicialLDLT<Eigen::SparseMatrix<double>> factors_;
};
