#include "heat_solver.hpp"

using velmar_2d::Cell, velmar_2d::Mesh;

void HeatSolver::prepare(Mesh& mesh, double step, double share) {
  step_ = step;
  share_ = share;
  nodes_.clear();
  for (Cell& c : mesh.nodes()) {
    c.used = static_cast<std::int32_t>(nodes_.size());
    nodes_.push_back(&c);
  }
  const auto n = static_cast<Eigen::Index>(nodes_.size());
  areas_.resize(n);
  outflow_.setZero(n);
  free_.setOnes(n);
  for (Cell* c : nodes_) {
    areas_[c->used] = mesh.area(*c);
    if (known_value(*c)) free_[c->used] = 0.0;
  }

  // Flux from i to j: D x length x (u_i - u_j) / distance. Both cells see the same face.
  std::vector<Eigen::Triplet<double>> conduction, matrix;
  for (const Cell* c : nodes_) {
    const int i = c->used;
    const velmar_2d::CellFaces faces = mesh.faces(*c);
    for (std::size_t side = 0; side < 4; ++side) {
      const velmar_2d::Boundary* b = link(*c, velmar_2d::directions[2 * side]).boundary();
      if (b != nullptr && b->bc_type == velmar_2d::bc_type_oth) {
        outflow_[i] += problem_.transfer * faces.side[side];
      }
    }
    double sum = outflow_[i];
    for (std::size_t d = 0; d < 8; ++d) {
      if (faces.neighbour[d] == nullptr) continue;
      const int j = faces.neighbour[d]->used;
      const double weight = problem_.conductivity * faces.length[d] / faces.distance[d];
      sum += weight;
      conduction.emplace_back(i, j, -weight);
      if (free_[i] * free_[j] > 0.0) matrix.emplace_back(i, j, -weight);
    }
    conduction.emplace_back(i, i, sum);
    matrix.emplace_back(i, i, areas_[i] / (share_ * step_) + free_[i] * sum);
  }
  conduction_.resize(n, n);
  conduction_.setFromTriplets(conduction.begin(), conduction.end());
  Eigen::SparseMatrix<double> system(n, n);
  system.setFromTriplets(matrix.begin(), matrix.end());
  factors_.compute(system);
}

EnergyBalance HeatSolver::advance(double time) {
  const auto n = static_cast<Eigen::Index>(nodes_.size());
  Eigen::VectorXd old(n), source(n);
  for (Eigen::Index i = 0; i < n; ++i) {
    const Cell& c = *nodes_[static_cast<std::size_t>(i)];
    old[i] = c.data[0];
    source[i] = areas_[i] * problem_.source(c.x, c.y, time + share_ * step_);
  }
  const Eigen::VectorXd right = areas_.cwiseProduct(old) / (share_ * step_) + source;
  const Eigen::VectorXd state = factors_.solve(free_.cwiseProduct(right));
  const Eigen::VectorXd change = (state - old) / share_;
  for (Eigen::Index i = 0; i < n; ++i) nodes_[static_cast<std::size_t>(i)]->data[0] += change[i];

  // What the equations of the given nodes lack has come in through their sides.
  const Eigen::VectorXd lack = areas_.cwiseProduct(change) / step_ + conduction_ * state - source;
  const double through_given = lack.dot(Eigen::VectorXd::Ones(n) - free_);
  return {areas_.dot(change), step_ * source.sum(), step_ * (through_given - outflow_.dot(state))};
}

double total_energy(Mesh& mesh) {
  double sum = 0.0;
  for (Cell& c : mesh.nodes()) sum += mesh.area(c) * c.data[0];
  return sum;
}
