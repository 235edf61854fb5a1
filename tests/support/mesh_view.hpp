// The mesh as text, for tests that draw it, and the fixture that starts and ends with no mesh.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "scenarios/scenarios.hpp"
#include "support/mesh_hash.hpp"
#include "velmar_2D/mesh.hpp"
#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::tests {

/// The node at an offset from the lower left corner, in units of dist_0; nullptr if there is none.
Cell* node_at(double u, double v);

/// The links that are not empty, in the order n to nw, as "ne(1.5,0.5) s[South]": nodes by their
/// offsets, side records by side and kind ("[South]", "[South neu]", "[South oth]").
std::string links(const Cell& c);
std::string links(double u, double v);

/// Every node in list order with id, position, ipos, level, reserve, on_boundary and links. Link
/// levels and cached shapes are left out: what was refined and coarsened again may differ in them.
std::vector<std::string> describe_mesh();

/// A grid of squares of side 1 whose lower left corner lies at the origin.
void make_grid(int nx, int ny, int limit, bc_type_function kinds = scenarios::all_dirichlet);

/// Proposes what refines the mesh around a node; the proposals in the order in which they come.
std::vector<Vertex> proposals_around(Cell* c);
/// Inserts a proposal with the operation for its level and returns the new node.
Cell* insert(const Vertex& v);
/// Inserts what is proposed around one node at a given place; a failure if nothing is.
Cell* insert_at(double u, double v, Cell* around);
/// Removes a node with the operation for its level; whether it was removed.
bool remove(Cell* c);

/// Starts and ends without a mesh, without data values, with interpolation.
class MeshTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

/// The same without warnings, and without waiting for a key.
class QuietMeshTest : public MeshTest {
 protected:
  void SetUp() override {
    MeshTest::SetUp();
    message_handler = pause_handler = [](std::string_view) {};
  }
  void TearDown() override {
    MeshTest::TearDown();
    message_handler = pause_handler = nullptr;
  }
};

}  // namespace velmar_2d::tests
