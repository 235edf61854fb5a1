// Meshes that are known to the last bit.
#pragma once

#include <cstdint>
#include <span>

#include "support/driven_mesh.hpp"

namespace velmar_2d::tests {

/// What makes a mesh, and its fingerprint().
struct GoldenMesh {
  const char* name;
  Rectangle rectangle;
  Grid grid;
  double (*first_data)(std::size_t value, double x, double y);  ///< of the first grid; none: 0.0
  int nb_steps;
  void (*step)(DrivenMesh& mesh, int i);  ///< i from 0
  const char* result;
};

std::span<const GoldenMesh> golden_meshes();

/// A hash of 400 meshes whose wanted spacings lie within four roundings of where a decision between
/// two levels changes; and what it is.
std::uint64_t hash_at_thresholds();
inline constexpr std::uint64_t known_hash_at_thresholds = 0xb41ae9a87a5ffd89;

/// The making of one of them, step by step.
class GoldenRun {
 public:
  GoldenRun(const GoldenMesh& golden, Face face) : golden_(golden), driven_(face) {}

  bool is_over() const { return next_step_ > golden_.nb_steps; }
  void step();
  Mesh& mesh() { return driven_.mesh(); }
  void end() { driven_.end(); }

 private:
  const GoldenMesh& golden_;
  DrivenMesh driven_;
  int next_step_ = 0;
};

}  // namespace velmar_2d::tests
