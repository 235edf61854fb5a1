// Derivatives at the nodes of our mesh, fitted by Eigen: quadratics through the same stencils.
#pragma once

#include <vector>

#include "field.hpp"

namespace velmar_2d::peers {

/// The rows of one fit: the node first, then its neighbours, six to nine in all.
struct FitRows {
  int n = 0;
  double x[9], y[9], value[9];
};

struct FitResult {
  double gradient = 0.0, hessian = 0.0;
};

/// For every node of the mesh, in list order: the node and its neighbours over the eight links.
/// Where these are fewer than six rows, the neighbours' neighbours join them, the nearest first,
/// each as long as the six do not become singular by it.
std::vector<FitRows> collect_rows();

/// The 6 x 6 system (six rows) or normal equations (more), factorised by PartialPivLU, with the
/// estimate of the condition on which a stencil is accepted. Returns the smallest estimate.
double fit_by_lu(const std::vector<FitRows>& all, std::vector<FitResult>& results);
/// The rows as they are, by ColPivHouseholderQR, which finds the rank by itself.
double fit_by_qr(const std::vector<FitRows>& all, std::vector<FitResult>& results);

}  // namespace velmar_2d::peers
