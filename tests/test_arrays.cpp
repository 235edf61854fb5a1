// The mesh as arrays: they tell what the records tell, on meshes of every history, and know when
// they are out of date.
#include <optional>

#include "support/error_text.hpp"
#include "support/history.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/arrays.hpp"

namespace velmar_2d::tests {

namespace {

/// What a link is in an array, told from the records alone.
std::int32_t code_of(Mesh& mesh, const MeshArrays& arrays, const Cell& c, Direction d) {
  const NeighbourLink there = link(c, d);
  if (const Cell* node = there.cell()) return arrays.number(*node);
  if (there.empty()) return no_link;
  std::int32_t kind = bc_type_dir;
  while (&mesh.side_record(d, kind) != there.boundary()) ++kind;
  return side_code(d, kind);
}

/// Compares all that the arrays tell with the records; whether there is no difference.
bool tell_what_records_tell(Mesh& mesh, const MeshArrays& arrays) {
  EXPECT_TRUE(arrays.is_current());
  EXPECT_EQ(arrays.size(), mesh.size());
  std::int32_t i = 0;
  bool all_alike = arrays.size() == mesh.size();
  for (Cell& c : mesh.nodes()) {
    if (!all_alike) break;
    const auto here = static_cast<std::size_t>(i);
    bool alike = &arrays.node(i) == &c && arrays.number(c) == i && arrays.x()[here] == c.x &&
                 arrays.y()[here] == c.y && arrays.levels()[here] == c.level &&
                 (arrays.known()[here] != 0) == known_value(c);
    const CellFaces faces = mesh.faces(c), told = arrays.faces(i);
    alike = alike && told.neighbour == faces.neighbour && told.length == faces.length &&
            told.distance == faces.distance && told.side == faces.side;
    alike = alike && arrays.areas()[here] == mesh.area(c);
    const CellShape shape = mesh.shape(c);
    alike = alike && arrays.shape(i).type == shape.type && arrays.shape(i).shift == shape.shift;
    for (std::size_t d = 0; d < directions.size() && alike; ++d) {
      const double weight = faces.length[d] > 0.0 ? faces.length[d] / faces.distance[d] : 0.0;
      alike = arrays.links(i)[d] == code_of(mesh, arrays, c, directions[d]) &&
              arrays.weights(i)[d] == weight;
    }
    EXPECT_TRUE(alike) << "node " << i << " at " << c.x << ", " << c.y;
    all_alike = alike;
    ++i;
  }
  return all_alike;
}

std::vector<double> values_in_records(const Mesh& mesh, std::size_t k) {
  std::vector<double> values;
  for (const Cell& c : mesh.nodes()) values.push_back(k < c.data.size() ? c.data[k] : 0.0);
  return values;
}

std::vector<double> copy_of(std::span<const double> values) {
  return {values.begin(), values.end()};
}

Mesh ring_mesh(double finest, std::int32_t n_cell_data = 1) {
  Mesh mesh({}, {.nx = 17, .subdiv_max = 14, .n_cell_data = n_cell_data});
  mesh.resolve(scenarios::ring_spacing({}, 0.2, finest, 1.0 / 16.0));
  return mesh;
}

using Arrays = QuietMeshTest;

/// One by one, whatever was removed, inserted out of order or cut off by a lower limit in between.
TEST_F(Arrays, TellWhatTheRecordsTellThroughHistories) {
  constexpr std::array kinds = {Steps::adapt, Steps::adapt_hostile, Steps::single_nodes};
  for (std::uint64_t seed = 0; seed < 36 && !HasFailure(); ++seed) {
    HistoryPlan plan{seed, kinds[seed % 3], seed % 4 == 3, 6, seed % 2 == 0};
    plan.face = seed % 5 == 0 ? Face::free_procedures : Face::object;
    History history(plan);
    std::optional<MeshArrays> arrays;
    while (!history.is_over() && !HasFailure()) {
      const std::string step = history.step();
      SCOPED_TRACE("seed " + std::to_string(seed) + ": " + step);
      Mesh& mesh = history.mesh();
      if (!arrays) {
        arrays.emplace(mesh, seed % 2 == 0 ? 1 : 3);
      } else {
        const bool was_current = arrays->revision() == mesh.revision();
        EXPECT_EQ(arrays->is_current(), was_current);
        EXPECT_EQ(arrays->update(), !was_current);
      }
      tell_what_records_tell(mesh, *arrays);
      arrays->pull();
      for (std::int32_t k = 0; k < mesh.n_cell_data(); ++k) {
        EXPECT_EQ(copy_of(arrays->values(k)), values_in_records(mesh, static_cast<std::size_t>(k)));
      }
    }
    history.end();
    if (nb_nodes > 0) delete_mesh();
  }
}

/// Enough nodes that several threads have work, in the joined and in the split state.
TEST_F(Arrays, AreTheSameByAnyNumberOfThreads) {
  Mesh mesh = ring_mesh(0.0012, 2);
  ASSERT_GT(mesh.size(), 12'000);
  for (Cell& c : mesh.nodes()) c.data[1] = c.x * c.y;
  MeshArrays one(mesh), several(mesh, 4);
  EXPECT_TRUE(tell_what_records_tell(mesh, several));
  EXPECT_TRUE(std::ranges::equal(one.shapes(), several.shapes()));
  EXPECT_TRUE(std::ranges::equal(one.links(), several.links()));
  several.pull();
  EXPECT_EQ(copy_of(several.values(1)), values_in_records(mesh, 1));
  for (double& value : several.values(1)) value += 1.0;
  several.push();
  one.pull();
  EXPECT_EQ(copy_of(one.values(1)), copy_of(several.values(1)));
  mesh.split_sublists();
  const MeshArrays of_split(mesh, 2);
  EXPECT_TRUE(tell_what_records_tell(mesh, of_split));
}

/// Cells of no known shape have rows of their own, in the order of the nodes.
TEST_F(Arrays, TellOfCellsThatNoTableHas) {
  Mesh mesh({}, {.nx = 129});
  std::vector<std::int32_t> cut;
  std::int32_t i = 0;
  for (Cell& c : mesh.nodes()) {
    if (i % 999 == 0 && c.on_boundary == 0) {
      c.n = nullptr;
      c.signature_set = false;
      c.area = -1.0;
      cut.push_back(i);
    }
    ++i;
  }
  ASSERT_GT(cut.size(), 10U);
  const MeshArrays several(mesh, 3), one(mesh);
  EXPECT_TRUE(tell_what_records_tell(mesh, several));
  EXPECT_TRUE(std::ranges::equal(one.shapes(), several.shapes()));
  for (std::size_t k = 0; k < cut.size(); ++k) {
    EXPECT_EQ(one.shape(cut[k]).type, 0);
    EXPECT_EQ(one.weights(cut[k])[0], 0.0);
    EXPECT_GT(one.weights(cut[k])[2], 1.0);
  }
}

TEST_F(Arrays, CodesNameSideAndKind) {
  std::vector<std::int32_t> codes;
  for (const Direction side :
       {Direction::north, Direction::east, Direction::south, Direction::west}) {
    for (std::int32_t kind = bc_type_dir; kind <= bc_type_oth; ++kind) {
      const std::int32_t code = side_code(side, kind);
      codes.push_back(code);
      EXPECT_TRUE(is_side(code) && side_of(code) == side && kind_of(code) == kind) << code;
    }
  }
  std::ranges::sort(codes);
  EXPECT_TRUE(std::ranges::adjacent_find(codes) == codes.end());
  EXPECT_FALSE(is_side(no_link) || is_side(0));
}

/// Values go where they belong, and nothing goes where it is not asked to.
TEST_F(Arrays, MoveValuesBothWays) {
  Mesh mesh = ring_mesh(0.02, 3);
  MeshArrays arrays(mesh);
  const auto n = static_cast<std::size_t>(arrays.size());
  double number = 0.0;
  for (Cell& c : mesh.nodes()) {
    for (double& value : c.data) value = ++number;
  }
  EXPECT_NE(text_of_error([&] { arrays.values(0); }).find("pull() brings them"), std::string::npos);
  EXPECT_NE(text_of_error([&] { arrays.push(); }).find("pull() brings them"), std::string::npos);
  arrays.pull();
  arrays.values(2)[5] = -1.0;
  arrays.push();
  EXPECT_EQ(arrays.node(5).data[2], -1.0);
  EXPECT_EQ(arrays.node(5).data[1], 17.0);

  std::vector<double> own(n);
  arrays.pull(1, own);
  EXPECT_EQ(own, values_in_records(mesh, 1));
  std::ranges::reverse(own);
  const std::vector<double> first = values_in_records(mesh, 0), last = values_in_records(mesh, 2);
  arrays.push(1, own);
  EXPECT_EQ(values_in_records(mesh, 1), own);
  EXPECT_EQ(values_in_records(mesh, 0), first);
  EXPECT_EQ(values_in_records(mesh, 2), last);

  own.pop_back();
  for (const auto& text :
       {text_of_error([&] { arrays.pull(1, own); }), text_of_error([&] { arrays.push(1, own); })}) {
    EXPECT_NE(text.find("an array of " + std::to_string(n - 1) + " values was given for " +
                        std::to_string(n) + " nodes"),
              std::string::npos)
        << text;
  }
  own.push_back(0.0);
  for (const std::int32_t value : {-1, 3}) {
    const std::string expected =
        "there is no value " + std::to_string(value) + ": the nodes have 3";
    for (const auto& text : {text_of_error([&] { arrays.pull(value, own); }),
                             text_of_error([&] { arrays.push(value, own); }),
                             text_of_error([&] { arrays.values(value); })}) {
      EXPECT_NE(text.find(expected), std::string::npos) << text;
    }
  }
}

/// Nodes of other sizes than the mesh gives them: callers may shorten and lengthen their data.
TEST_F(Arrays, TakeWhatNodesLackForZero) {
  Mesh mesh = ring_mesh(0.02, 2);
  MeshArrays arrays(mesh);
  for (Cell& c : mesh.nodes()) c.data[0] = c.data[1] = c.x;
  arrays.node(3).data.resize(0);
  arrays.node(4).data.resize(1);
  arrays.node(5).data.resize(4);
  arrays.pull();
  EXPECT_EQ(arrays.values(0)[3], 0.0);
  EXPECT_EQ(arrays.values(0)[4], arrays.node(4).x);
  EXPECT_EQ(arrays.values(1)[4], 0.0);
  EXPECT_EQ(arrays.values(1)[5], arrays.node(5).x);
  arrays.push();
  EXPECT_EQ(arrays.node(3).data.size(), 2U);
  EXPECT_EQ(arrays.node(5).data.size(), 4U);
  arrays.node(3).data = {};
  arrays.push(1, std::vector<double>(static_cast<std::size_t>(arrays.size()), 8.0));
  EXPECT_EQ(values_in_records(mesh, 1)[3], 8.0);
  Mesh bare({}, {.nx = 3});
  MeshArrays of_bare(bare);
  of_bare.pull();
  EXPECT_NE(text_of_error([&] { of_bare.values(0); }).find("the nodes have 0"), std::string::npos);
}

TEST_F(Arrays, StayWithTheMeshThatIsMovedAndOutliveTheOneThatIsDeleted) {
  std::optional<MeshArrays> arrays;
  std::vector<std::int32_t> links;
  {
    Mesh mesh = ring_mesh(0.02);
    arrays.emplace(mesh);
    Mesh moved = std::move(mesh);
    arrays->pull();
    EXPECT_TRUE(tell_what_records_tell(moved, *arrays));
    moved.resolve(scenarios::even_spacing(0.03));
    EXPECT_FALSE(arrays->is_current());
    const std::string expected =
        "the arrays are of revision " + std::to_string(arrays->revision()) +
        " of the mesh, which is at revision " + std::to_string(moved.revision());
    EXPECT_NE(text_of_error([&] { arrays->push(); }).find(expected), std::string::npos);
    EXPECT_NE(text_of_error([&] { arrays->pull(); }).find(expected), std::string::npos);
    EXPECT_TRUE(arrays->update());
    EXPECT_TRUE(tell_what_records_tell(moved, *arrays));
    EXPECT_NE(text_of_error([&] { arrays->push(); }).find("pull() brings them"), std::string::npos);
    EXPECT_NE(text_of_error([&] { MeshArrays{mesh}; }).find("moved away"), std::string::npos);
    links.assign(arrays->links().begin(), arrays->links().end());
  }
  EXPECT_FALSE(arrays->is_current());
  EXPECT_TRUE(std::ranges::equal(arrays->links(), links));
  std::vector<double> own(static_cast<std::size_t>(arrays->size()));
  for (const auto& text :
       {text_of_error([&] { arrays->update(); }), text_of_error([&] { arrays->pull(); }),
        text_of_error([&] { arrays->push(0, own); })}) {
    EXPECT_NE(text.find("has been deleted"), std::string::npos) << text;
  }
  MeshArrays taken = std::move(*arrays);
  EXPECT_NE(text_of_error([&] { arrays->update(); }).find("have been moved away"),
            std::string::npos);
  EXPECT_EQ(static_cast<std::size_t>(taken.size()), own.size());
}

/// In the middle of a change levels and links are not yet those of the revision.
TEST_F(Arrays, AreNotMadeByCallbacks) {
  Mesh mesh = ring_mesh(0.05);
  MeshArrays arrays(mesh);
  const auto size = [&](double, double, std::span<const double>, double, double) {
    arrays.update();
    return 0.01;
  };
  EXPECT_NE(text_of_error([&] { mesh.resolve(size); }).find("the mesh is in use by resolve"),
            std::string::npos);
  EXPECT_FALSE(arrays.update());
  EXPECT_TRUE(tell_what_records_tell(mesh, arrays));
}

/// A damaged mesh gives an Error and no arrays; mended, it gives them.
TEST_F(Arrays, AreNotMadeOfABrokenMesh) {
  Mesh mesh = ring_mesh(0.05), other = ring_mesh(0.05);
  std::optional<MeshArrays> arrays;
  Cell& c = *mesh.nodes().begin();
  const NeighbourLink east = c.e;
  c.e = &*other.nodes().begin();
  EXPECT_NE(text_of_error([&] { arrays.emplace(mesh); }).find("what is no node of the mesh"),
            std::string::npos);
  c.e = east;
  arrays.emplace(mesh);
  EXPECT_EQ(arrays->number(*other.nodes().begin()), -1);

  mesh.resolve(scenarios::even_spacing(0.02));
  Cell& last = *c.next;
  Cell* const after = last.next;
  last.next = nullptr;
  EXPECT_NE(text_of_error([&] { arrays->update(); }).find("list of nodes is not what it was"),
            std::string::npos);
  EXPECT_EQ(arrays->size(), 0);
  EXPECT_FALSE(arrays->is_current());
  last.next = &c;
  EXPECT_NE(text_of_error([&] { arrays->update(); }).find("list of nodes is not what it was"),
            std::string::npos);
  last.next = after;
  EXPECT_TRUE(arrays->update());
  EXPECT_TRUE(tell_what_records_tell(mesh, *arrays));
}

/// The mesh of the free procedures: its mistakes go where its others go, and nodes that come back
/// to the same places are others.
TEST_F(Arrays, OfTheDefaultMesh) {
  n_cell_data = 1;
  make_grid(5, 5, 6);
  MeshArrays arrays(default_mesh());
  EXPECT_TRUE(tell_what_records_tell(default_mesh(), arrays));
  resolve_mesh_no_init(scenarios::even_spacing(0.4));
  EXPECT_TRUE(arrays.update());
  EXPECT_TRUE(tell_what_records_tell(default_mesh(), arrays));
  arrays.pull();
  delete_mesh();
  struct Told {};
  std::string text;
  fatal_handler = [&](std::string_view message) {
    text = message;
    throw Told();
  };
  EXPECT_THROW(arrays.push(), Told);
  EXPECT_NE(text.find("the arrays are of revision"), std::string::npos) << text;
  fatal_handler = nullptr;
  EXPECT_TRUE(arrays.update());
  EXPECT_EQ(arrays.size(), 0);
  make_grid(5, 5, 6);
  EXPECT_TRUE(arrays.update());
  EXPECT_TRUE(tell_what_records_tell(default_mesh(), arrays));
}

}  // namespace

}  // namespace velmar_2d::tests
