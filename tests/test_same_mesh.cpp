// The same input gives the same mesh, to the last bit, with every compiler, in every build and
// through both faces of the library. A change of a result is a change of what every user's program
// computes: make it on purpose.
#include "support/golden_meshes.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {

void PrintTo(const GoldenMesh& golden, std::ostream* out) { *out << golden.name; }

namespace {

class SameMesh : public MeshTest, public testing::WithParamInterface<GoldenMesh> {};

TEST_P(SameMesh, ForTheSameInput) {
  GoldenRun run(GetParam(), Face::free_procedures), as_object(GetParam(), Face::object);
  while (!run.is_over()) run.step();
  EXPECT_EQ(fingerprint(), GetParam().result);
  EXPECT_TRUE(mesh_is_whole());
  while (!as_object.is_over()) as_object.step();
  EXPECT_EQ(state_hash(as_object.mesh()), state_hash(default_mesh()));
}

INSTANTIATE_TEST_SUITE_P(All, SameMesh, testing::ValuesIn(golden_meshes()),
                         [](const auto& golden) { return std::string(golden.param.name); });

}  // namespace
}  // namespace velmar_2d::tests
