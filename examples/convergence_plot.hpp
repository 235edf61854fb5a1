// Errors over spacings on logarithmic axes, with the slopes of orders 1 and 2.
#pragma once

#include <span>
#include <string>

struct ErrorOfSpacing {
  double spacing = 0.0, error = 0.0;
};

/// Slope of the straight line that fits the points best on logarithmic axes.
double observed_order(std::span<const ErrorOfSpacing> points);

/// Draws a PNG file; coarse spacings first. Returns nothing, or the reason why it failed.
std::string draw_convergence(const std::string& path, std::span<const ErrorOfSpacing> points);
