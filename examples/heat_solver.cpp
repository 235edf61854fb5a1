#include "heat_solver.hpp"

namespace {

/// An array as Eigen sees it.
Eigen::Map<const Eigen::VectorXd> vector(std::span<const double> values) {
  return {values.data(), static_cast<Eigen::Index>(values.size())};
}

}  // namespace

void HeatSolver::prepare(double step, double share) {
  step_ = step;
  share_ = share;
  arrays_.update();
  arrays_.pull();
  if (assembled_at_ != arrays_.revision()) assemble();
  // Rows and columns of nodes whose values are given are left out, but for the diagonal.
  Eigen::SparseMatrix<double> system = free_.asDiagonal() * conduction_ * free_.asDiagonal();
  system.diagonal() += areas_ / (share_ * step_);
  system.prune(1.0, 0.0);
  factors_.compute(system);
}

/// Flux from i to j: D x weight x (u_i - u_j), the weight being length / distance. Both cells see
/// the same face.
void HeatSolver::assemble() {
  assembled_at_ = arrays_.revision();
  const Eigen::Index n = arrays_.size();
  areas_ = vector(arrays_.areas());
  outflow_.setZero(n);
  free_.setOnes(n);
  conduction_.resize(n, n);
  conduction_.reserve(Eigen::VectorXi::Constant(n, 9));
  for (std::int32_t i = 0; i < arrays_.size(); ++i) {
    if (arrays_.known()[static_cast<std::size_t>(i)] != 0) free_[i] = 0.0;
    const auto links = arrays_.links(i);
    const std::array<double, 8>& weights = arrays_.weights(i);
    double sum = 0.0;
    for (std::size_t d = 0; d < 8; ++d) {
      if (links[d] >= 0) {
        const double weight = problem_.conductivity * weights[d];
        conduction_.insert(links[d], i) = -weight;
        sum += weight;
      } else if (velmar_2d::is_side(links[d]) &&
                 velmar_2d::kind_of(links[d]) == velmar_2d::bc_type_oth) {
        outflow_[i] += problem_.transfer * arrays_.faces(i).side[d / 2];
      }
    }
    conduction_.insert(i, i) = sum + outflow_[i];
  }
  conduction_.makeCompressed();
}

EnergyBalance HeatSolver::advance(double time) {
  const std::span<double> values = arrays_.values(0);
  Eigen::Map<Eigen::VectorXd> u(values.data(), areas_.size());
  Eigen::VectorXd source(u.size());
  for (Eigen::Index i = 0; i < u.size(); ++i) {
    const auto here = static_cast<std::size_t>(i);
    source[i] =
        areas_[i] * problem_.source(arrays_.x()[here], arrays_.y()[here], time + share_ * step_);
  }
  const Eigen::VectorXd right = areas_.cwiseProduct(u) / (share_ * step_) + source;
  const Eigen::VectorXd state = factors_.solve(free_.cwiseProduct(right));
  const Eigen::VectorXd change = (state - u) / share_;
  u += change;

  // What the equations of the given nodes lack has come in through their sides.
  const Eigen::VectorXd lack = areas_.cwiseProduct(change) / step_ + conduction_ * state - source;
  const double through_given = lack.dot(Eigen::VectorXd::Ones(u.size()) - free_);
  return {areas_.dot(change), step_ * source.sum(), step_ * (through_given - outflow_.dot(state))};
}

double HeatSolver::energy() const { return areas_.dot(vector(arrays_.values(0))); }
