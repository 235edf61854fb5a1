// Records, copy rules, small accessors, and the state before the first mesh.
#include <numeric>

#include "support/mesh_view.hpp"
#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::tests {
namespace {

// Read while the process is loaded, before any test can have made a mesh.
struct InitialState {
  std::int32_t limit = get_subdiv_max(), id = next_id, nodes = nb_nodes, data = n_cell_data;
  std::array<std::int32_t, 2> range = level_range;
  bool interpolation = data_interpolation;
  bool no_lists = mesh_beg == nullptr && mesh_end == nullptr && level_beg.empty() &&
                  level_end.empty() && tmp_beg.empty() && tmp_end.empty();
  bool no_sides = north_boundary_dir == nullptr && east_boundary_neu == nullptr &&
                  south_boundary_oth == nullptr && west_boundary_dir == nullptr;
};
const InitialState at_load;

TEST(Records, InitialStateOfTheLibrary) {
  EXPECT_EQ(at_load.limit, -1);
  EXPECT_EQ(at_load.id, 1);
  EXPECT_EQ(at_load.nodes, 0);
  EXPECT_EQ(at_load.data, 0);
  EXPECT_EQ(at_load.range, (std::array<std::int32_t, 2>{0, 0}));
  EXPECT_TRUE(at_load.interpolation);
  EXPECT_TRUE(at_load.no_lists);
  EXPECT_TRUE(at_load.no_sides);
}

TEST(Records, FreshNodeHasTheDefaultsThatAreNotZero) {
  const Cell c;
  EXPECT_EQ(c.reserve, 4);
  EXPECT_EQ(c.area, -1.0);
  for (const std::int32_t level : {c.nl, c.nel, c.el, c.sel, c.sl, c.swl, c.wl, c.nwl})
    EXPECT_EQ(level, 2);
  EXPECT_EQ(links(c), "");
  EXPECT_TRUE(c.data.empty());
  EXPECT_FALSE(c.signature_set);
}

TEST(Records, LinkTellsItsThreeStatesApart) {
  Cell cell;
  Boundary boundary;
  const NeighbourLink none, to_cell = &cell, to_boundary = &boundary;
  EXPECT_TRUE(none.empty() && none.cell() == nullptr && none.boundary() == nullptr);
  EXPECT_TRUE(!to_cell.empty() && to_cell.cell() == &cell && to_cell.boundary() == nullptr);
  EXPECT_TRUE(!to_boundary.empty() && to_boundary.boundary() == &boundary &&
              to_boundary.cell() == nullptr);
  EXPECT_EQ(NeighbourLink(static_cast<Boundary*>(nullptr)), none);
  EXPECT_EQ(NeighbourLink(static_cast<Cell*>(nullptr)), none);
  EXPECT_NE(to_cell, to_boundary);
  EXPECT_EQ(sizeof(NeighbourLink), sizeof(void*));
}

// Sizes on both sides of what fits into the record itself.
TEST(Records, DataKeepTheirValuesWhenResizedCopiedAndMoved) {
  for (const std::size_t size : {0U, 1U, 2U, 5U}) {
    SCOPED_TRACE(size);
    CellData data;
    data.resize(size);
    std::iota(data.begin(), data.end(), 1.0);
    const std::vector<double> values(data.begin(), data.end());
    const auto holds_values = [&](const CellData& d) {
      return std::equal(d.begin(), d.end(), values.begin(), values.end());
    };

    CellData copy = data;
    EXPECT_TRUE(holds_values(copy));
    if (size > 0) {
      copy[0] = -7.0;
      EXPECT_TRUE(holds_values(data)) << "the copy shares its values";
    }
    copy = data;
    EXPECT_TRUE(holds_values(copy));
    CellData moved = std::move(copy);
    EXPECT_TRUE(holds_values(moved));

    data.resize(size + 3);
    EXPECT_TRUE(std::equal(values.begin(), values.end(), data.begin()));
    EXPECT_EQ(data[size] + data[size + 1] + data[size + 2], 0.0);
    data.resize(size);
    data.resize(size + 1);
    EXPECT_EQ(data[size], 0.0) << "a value given up comes back";
  }
}

TEST(Records, CopiesOfNodesOwnTheirDataAndBorrowTheRest) {
  Cell east, node;
  Boundary side;
  double users = 1.0;
  node.id = 12;
  node.e = &east;
  node.n = &side;
  node.next = &east;
  node.data_ptr = &users;
  node.data.resize(2);
  node.data[1] = 4.0;
  Cell copy = node;
  node.data[1] = 5.0;
  EXPECT_EQ(copy.data[1], 4.0);
  EXPECT_EQ(copy.id, 12);
  EXPECT_EQ(copy.e.cell(), &east);
  EXPECT_EQ(copy.n.boundary(), &side);
  EXPECT_EQ(copy.next, &east);
  EXPECT_EQ(copy.data_ptr.get<double>(), &users);
  EXPECT_EQ(copy.data_ptr.get<float>(), nullptr) << "read with another type";
  copy = Cell{};
  EXPECT_TRUE(copy.data.empty());
}

TEST(Records, AccessorsReadTheirField) {
  Cell c;
  c.ipos = 5;
  c.reserve = 3;
  c.on_boundary = 2;
  EXPECT_EQ(cell_ipos(&c), 5);
  EXPECT_EQ(velmar_get_cell_reserve(&c), 3);
  EXPECT_EQ(cell_on_boundary(&c), 2);
  EXPECT_EQ(velmar_get_cell_on_boundary(&c), 2);
}

TEST(Records, KnownValueAsksForADirichletRecordAcrossAStraightLink) {
  Boundary dir{0.0, bc_type_dir}, neu{0.0, bc_type_neu}, oth{0.0, bc_type_oth};
  for (NeighbourLink Cell::*straight : {&Cell::n, &Cell::e, &Cell::s, &Cell::w}) {
    Cell c, neighbour;
    c.n = c.e = c.s = c.w = &neighbour;
    c.*straight = &dir;
    EXPECT_FALSE(known_value(c)) << "inside, whatever the links say";
    c.on_boundary = 1;
    EXPECT_TRUE(known_value(c));
    c.*straight = &neu;
    EXPECT_FALSE(known_value(c));
    c.*straight = &oth;
    EXPECT_FALSE(known_value(c));
    c.ne = c.se = c.sw = c.nw = &dir;
    EXPECT_FALSE(known_value(c)) << "diagonal links do not count";
  }
  Cell corner;
  corner.on_boundary = 2;
  corner.e = &neu;
  corner.s = &dir;
  EXPECT_TRUE(known_value(corner)) << "the second side decides";
}

}  // namespace
}  // namespace velmar_2d::tests
