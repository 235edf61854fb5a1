// Any number of threads may read a mesh that no one changes, and all find what one alone finds.
#include <cstring>
#include <latch>
#include <thread>

#include "support/golden_meshes.hpp"
#include "support/history.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/arrays.hpp"

namespace velmar_2d::tests {

namespace {

constexpr std::size_t nb_readers = 4;

/// What one reader finds at a node.
struct Found {
  double area = 0.0;
  CellFaces faces;
  CellShape shape;
  CellPolygon polygon;
  std::int64_t at_corner = 0;  ///< id of the node at a corner of the control cell, 0 outside
  std::size_t nb_pieces = 0;   ///< of the line from there to the node

  bool operator==(const Found& b) const {
    const auto same_corner = [](const Point& p, const Point& q) {
      return p.x == q.x && p.y == q.y;
    };
    return area == b.area && faces.length == b.faces.length && faces.side == b.faces.side &&
           faces.distance == b.faces.distance && shape.type == b.shape.type &&
           shape.shift == b.shape.shift && at_corner == b.at_corner && nb_pieces == b.nb_pieces &&
           std::equal(polygon.begin(), polygon.end(), b.polygon.begin(), b.polygon.end(),
                      same_corner);
  }
};

Found look(const Mesh& mesh, Cell& c) {
  Found found;
  const auto find = [&](const Cell* node, std::size_t nb_pieces) {
    found.at_corner = node != nullptr ? node->id : 0;
    found.nb_pieces = nb_pieces;
  };
  if (&mesh != &default_mesh()) {
    found = {mesh.area(c), mesh.faces(c), mesh.shape(c), mesh.polygon(c)};
    const Point corner = found.polygon.corners[0];
    find(mesh.locate(corner.x, corner.y), mesh.line_cut(corner, {c.x, c.y}).size());
    return found;
  }
  found.area = cell_area(&c);
  cell_faces(&c, found.faces);
  cell_type(&c, found.shape.type, found.shape.shift);
  cell_polygon(&c, found.polygon.corners, found.polygon.n);
  const Point corner = found.polygon.corners[0];
  std::vector<LinePiece> pieces;
  line_cut(corner, {c.x, c.y}, pieces);
  find(locate(corner.x, corner.y), pieces.size());
  return found;
}

Gradient derive(const Mesh& mesh, Cell& c) {
  if (&mesh != &default_mesh()) return mesh.compute_derivatives(c);
  Gradient gradient;
  compute_data_at_node(&c, &gradient.dfdx, &gradient.dfdy);
  return gradient;
}

std::size_t nb_findings(const Mesh& mesh) {
  std::vector<Finding> findings;
  return &mesh != &default_mesh() ? mesh.check().size() : check_mesh(findings);
}

struct Read {
  std::vector<Found> found;
  std::vector<double> gradients;
};

/// Reader number k of n begins at a node of its own, so that they meet each other's caches in all
/// states, and computes the derivatives of every n-th node.
void read(Mesh& mesh, std::size_t k, std::size_t n, Read& read) {
  std::vector<Cell*> nodes;
  for (Cell& c : mesh.nodes()) nodes.push_back(&c);
  read.found.resize(nodes.size());
  read.gradients.resize(2 * nodes.size());
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const std::size_t at = (i + k * nodes.size() / n / 2) % nodes.size();
    read.found[at] = look(mesh, *nodes[at]);
    if (at % n != k || mesh.n_cell_data() == 0) continue;
    const Gradient gradient = derive(mesh, *nodes[at]);
    read.gradients[2 * at] = gradient.dfdx;
    read.gradients[2 * at + 1] = gradient.dfdy;
  }
  EXPECT_EQ(nb_findings(mesh), 0U);
}

void expect_that_many_read_what_one_does(Mesh& mesh, Mesh& twin) {
  Read alone;
  read(twin, 0, 1, alone);
  std::vector<Read> together(nb_readers);
  {
    std::latch start(nb_readers);
    std::vector<std::jthread> readers;
    for (std::size_t k = 0; k < nb_readers; ++k) {
      readers.emplace_back([&, k] {
        start.arrive_and_wait();
        read(mesh, k, nb_readers, together[k]);
      });
    }
  }
  std::vector<double> gradients(alone.gradients.size());
  for (const Read& one : together) {
    EXPECT_TRUE(one.found == alone.found);
    for (std::size_t i = 0; i < gradients.size(); ++i) gradients[i] += one.gradients[i];
  }
  EXPECT_EQ(gradients, alone.gradients);
  EXPECT_EQ(state_hash(mesh), state_hash(twin));

  // All nodes at once, of data that have changed since.
  if (mesh.n_cell_data() == 0) return;
  for (Mesh* one : {&mesh, &twin}) {
    for (Cell& c : one->nodes()) c.data[0] = c.x * c.x * c.y - c.data[0];
  }
  mesh.compute_derivatives(nb_readers);
  twin.compute_derivatives();
  EXPECT_EQ(state_hash(mesh), state_hash(twin));
}

class Readers : public MeshTest {
 protected:
  void TearDown() override {
    MeshTest::TearDown();
    message_handler = pause_handler = nullptr;
  }
};

TEST_F(Readers, FindWhatOneAloneFinds) {
  for (const GoldenMesh& golden : golden_meshes()) {
    SCOPED_TRACE(golden.name);
    GoldenRun run(golden, Face::object), twin(golden, Face::object);
    while (!run.is_over()) {
      run.step();
      twin.step();
    }
    expect_that_many_read_what_one_does(run.mesh(), twin.mesh());
  }
}

TEST_F(Readers, FindItAfterEachStepOfAHistory) {
  message_handler = pause_handler = [](std::string_view) {};
  std::int64_t nb_nodes_read = 0;
  for (std::uint64_t seed = 0; seed < 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    // What callers insert is filled in otherwise by the free procedures than by an object.
    const bool is_free = seed % 2 == 0, far = seed % 4 == 3;
    HistoryPlan plan{seed, seed % 3 == 0 && !is_free ? Steps::single_nodes : Steps::adapt, far};
    plan.face = Face::object;
    History twin(plan);
    if (is_free) plan.face = Face::free_procedures;
    History run(plan);
    while (!run.is_over()) {
      run.step();
      twin.step();
      expect_that_many_read_what_one_does(run.mesh(), twin.mesh());
      nb_nodes_read += run.mesh().size();
    }
    run.end();
  }
  EXPECT_GT(nb_nodes_read, 10000);
}

/// Enough nodes that all have work, beside one who reads the nodes.
TEST_F(Readers, MakeTheSameArrays) {
  Mesh mesh({}, {.nx = 33, .subdiv_max = 12, .n_cell_data = 1});
  mesh.resolve(scenarios::ring_spacing({}, 0.1, 0.002, 1.0 / 32.0));
  ASSERT_GT(mesh.size(), 12'000);
  std::vector<std::vector<double>> told(nb_readers);
  {
    std::vector<std::jthread> readers;
    for (std::vector<double>& mine : told) {
      readers.emplace_back([&mesh, &mine] {
        MeshArrays arrays(mesh, 3);
        arrays.pull();
        mine.assign(arrays.areas().begin(), arrays.areas().end());
        for (const std::int32_t there : arrays.links()) mine.push_back(there);
      });
    }
    for (Cell& c : mesh.nodes()) look(mesh, c);
  }
  const MeshArrays alone(mesh);
  for (const std::vector<double>& mine : told) {
    EXPECT_TRUE(mine == told[0]);
    EXPECT_TRUE(std::equal(alone.areas().begin(), alone.areas().end(), mine.begin()));
  }
}

}  // namespace
}  // namespace velmar_2d::tests
