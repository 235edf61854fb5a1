// Records, copy rules, and the state before the first mesh.
#include <numeric>

#include "support/mesh_view.hpp"
#include "support/plugin.hpp"
#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::tests {
namespace {

// Read while the process is loaded, before any test can have made a mesh.
struct InitialState {
  std::int64_t id = next_id;
  std::int32_t limit = get_subdiv_max(), nodes = nb_nodes, data = n_cell_data;
  bool interpolation = data_interpolation;
  bool nothing = mesh_beg == nullptr && mesh_end == nullptr && level_beg.empty() &&
                 level_end.empty() && tmp_beg.empty() && north_boundary_dir == nullptr &&
                 east_boundary_neu == nullptr && south_boundary_oth == nullptr;
};
const InitialState at_load;

TEST(Records, InitialStateOfTheLibrary) {
  EXPECT_EQ(at_load.limit, -1);
  EXPECT_EQ(at_load.id, 1);
  EXPECT_EQ(at_load.nodes, 0);
  EXPECT_EQ(at_load.data, 0);
  EXPECT_TRUE(at_load.interpolation);
  EXPECT_TRUE(at_load.nothing);
}

// Sizes on both sides of what fits into the record itself.
TEST(Records, DataKeepTheirValuesWhenResizedCopiedAndMoved) {
  for (const std::size_t size : {0U, 1U, 2U, 5U}) {
    SCOPED_TRACE(size);
    Cell node;
    CellData& data = node.data;
    data.resize(size);
    std::iota(data.begin(), data.end(), 1.0);
    const std::vector<double> values(data.begin(), data.end());
    const auto holds_values = [&](const CellData& d) {
      return std::equal(d.begin(), d.end(), values.begin(), values.end());
    };
    Cell copy = node;
    EXPECT_TRUE(holds_values(copy.data));
    std::fill(copy.data.begin(), copy.data.end(), -7.0);
    EXPECT_TRUE(holds_values(data)) << "the copy shares its values";
    copy = node;
    EXPECT_TRUE(holds_values(copy.data));
    Cell moved = std::move(copy);
    EXPECT_TRUE(holds_values(moved.data));
    copy = std::move(moved);
    EXPECT_TRUE(holds_values(copy.data));

    data.resize(size + 3);
    EXPECT_TRUE(std::equal(values.begin(), values.end(), data.begin()));
    EXPECT_EQ(data[size] + data[size + 1] + data[size + 2], 0.0);
    data[size] = 3.0;
    data.resize(size);
    data.resize(size + 1);
    EXPECT_EQ(data[size], 0.0) << "a value given up comes back";
  }
}

TEST(Records, UserReferencesTellTypesApart) {
  Cell c;
  double users = 1.0;
  EXPECT_TRUE(c.data_ptr.empty());
  c.data_ptr = &users;
  EXPECT_EQ(c.data_ptr.get<double>(), &users);
  EXPECT_EQ(c.data_ptr.get<float>(), nullptr) << "read with another type";
  EXPECT_EQ(c.data_ptr.get<const double>(), nullptr);
  c.data_ptr = static_cast<const double*>(&users);
  EXPECT_EQ(c.data_ptr.get<const double>(), &users);
  EXPECT_EQ(c.data_ptr.get<double>(), nullptr) << "what must not be written";
  Charge charge;
  c.data_ptr = &charge;
  EXPECT_EQ(charge_read_elsewhere(c), &charge) << "in a shared object with types of its own";
  c.data_ptr = &users;
  EXPECT_EQ(charge_read_elsewhere(c), nullptr);
  c.data_ptr = &cell_ipos;
  EXPECT_EQ(c.data_ptr.get<std::int32_t(const Cell*)>(), &cell_ipos);
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
    c.ne = c.se = c.sw = c.nw = &dir;  // diagonal links do not count
    for (Boundary* other : {&neu, &oth}) {
      c.*straight = other;
      EXPECT_FALSE(known_value(c));
    }
  }
}

TEST(CellData, DebugBuildsRefuseWhatIsNotThere) {
  CellData data;
  data.resize(1);
  EXPECT_EQ(data[0], 0.0);
#if !defined(NDEBUG)
  EXPECT_DEATH(data[1] = 1.0, "n_cell_data");
  EXPECT_DEATH(CellData()[0] = 1.0, "n_cell_data");
#endif
}

}  // namespace
}  // namespace velmar_2d::tests
