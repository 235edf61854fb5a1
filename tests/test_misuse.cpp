// Callers who break the rules: they get one clear message, and nothing is read or written outside.
#include <cmath>
#include <cstdlib>
#include <optional>

#include "scenarios/scenarios.hpp"
#include "support/child_process.hpp"
#include "support/error_text.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {
namespace {

constexpr Rectangle square{0, 4, 0, 4};
const Grid small_grid{.nx = 5, .subdiv_max = 7, .n_cell_data = 1};

size_function near(double x) {
  return [x](double px, double py, auto...) { return 0.2 + 0.4 * std::hypot(px - x, py - 2.0); };
}
double product(double x, double y) { return x * y; }
/// Asks for nothing.
void as_it_is(std::span<const Cell* const> /*nodes*/, std::span<double> /*sizes*/) {}

Vertex any_proposal(const Mesh& mesh) {
  for (const Cell& c : mesh.nodes()) {
    const Proposals proposals = mesh.build_vertex(const_cast<Cell&>(c));
    if (proposals.n > 0) return proposals.vertices[0];
  }
  return {};
}

/// What changes a mesh.
void (*const intrusions[])(Mesh& mesh) = {
    [](Mesh& mesh) { mesh.update(near(3.0)); },
    [](Mesh& mesh) { mesh.update(near(3.0), product); },
    [](Mesh& mesh) { mesh.update_batched(as_it_is); },
    [](Mesh& mesh) { mesh.resolve(near(3.0)); },
    [](Mesh& mesh) { mesh.resolve_batched(as_it_is, product); },
    [](Mesh& mesh) { mesh.set_limit(2); },
    [](Mesh& mesh) { mesh.set_limit(900); },
    [](Mesh& mesh) { mesh.insert_node_odd_level(any_proposal(mesh)); },
    [](Mesh& mesh) { mesh.insert_node_even_level(any_proposal(mesh)); },
    [](Mesh& mesh) { mesh.remove_node_odd_level(*mesh.nodes(1).begin()); },
    [](Mesh& mesh) { mesh.remove_node_even_level(*mesh.nodes(2).begin()); },
    [](Mesh& mesh) { mesh.join_sublists(); },
    [](Mesh& mesh) { mesh.split_sublists(); },
    [](Mesh& mesh) { mesh.compute_derivatives(2); },
    [](Mesh& mesh) { mesh.set_message_handler(nullptr); },
};

/// Runs an update in which `intrude` is called in the middle, by one callback after the other.
constexpr int nb_callbacks = 6;
template <typename Intrude>
void update_with(Mesh& mesh, int callback, const Intrude& intrude) {
  int nb_asked = 0;
  const auto when = [&](bool asked) {
    if (asked && ++nb_asked == 5) intrude();
  };
  const size_function size = [&](double x, double y, auto... rest) {
    when(callback % 3 == 0);
    return near(1.0)(x, y, rest...);
  };
  const auto init = [&](double x, double y) {
    when(callback % 3 == 1);
    return product(x, y);
  };
  const batch_size_function sizes = [&](std::span<const Cell* const> nodes, std::span<double> out) {
    if (callback % 3 == 2) intrude();
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      out[i] = size(nodes[i]->x, nodes[i]->y, {}, 0.0, 0.0);
    }
  };
  if (callback == 2) {
    mesh.update_batched(sizes, init);
  } else if (callback == 5) {
    mesh.resolve_batched(sizes, init);
  } else if (callback < 3) {
    mesh.update(size, init);
  } else {
    mesh.resolve(size, init);
  }
}

bool contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

TEST(Misuse, CallbacksDoNotChangeTheirMesh) {
  for (int callback = 0; callback < nb_callbacks; ++callback) {
    for (const auto& intrude : intrusions) {
      Mesh mesh(square, small_grid);
      mesh.update(near(2.0));
      const std::string error =
          text_of_error([&] { update_with(mesh, callback, [&] { intrude(mesh); }); });
      const auto number = &intrude - intrusions;
      EXPECT_TRUE(contains(error, callback < 3 ? "in use by update" : "in use by resolve"))
          << error << ", callback " << callback << ", intrusion " << number;
      ASSERT_TRUE(mesh.check().empty()) << number;
      EXPECT_EQ(mesh.limit(), 7);
      mesh.resolve(near(3.0));  // in use no more
      ASSERT_TRUE(mesh.check().empty()) << number;
    }
  }
}

TEST(Misuse, SidesAreNoWayIn) {
  Mesh* made = nullptr;
  Mesh mesh(square, {.nx = 5, .bc_type = [&](double, double, std::string_view) {
                       if (made != nullptr) made->update(near(1.0));
                       return bc_type_neu;
                     }});
  made = &mesh;
  EXPECT_TRUE(
      contains(text_of_error([&] { mesh.resolve(scenarios::even_spacing(0.3)); }), "in use"));
  EXPECT_TRUE(mesh.check().empty());
}

// The mesh is not at one place, and nobody has said that it is.
TEST(Misuse, MeshesMayMoveInTheMiddle) {
  for (int callback = 0; callback < nb_callbacks; ++callback) {
    Mesh expected(square, small_grid), other(square, small_grid);
    std::optional<Mesh> mesh(std::in_place, square, small_grid);
    std::optional<Mesh> elsewhere;
    update_with(expected, callback, [] {});
    update_with(*mesh, callback, [&] {
      if (!elsewhere) elsewhere.emplace(std::move(*mesh));
    });
    EXPECT_EQ(fingerprint(*elsewhere), fingerprint(expected));
    EXPECT_TRUE(contains(text_of_error([&] { (void)mesh->size(); }), "moved away"));
    update_with(other, callback, [&] { std::swap(other, *elsewhere); });
    EXPECT_TRUE(other.check().empty() && elsewhere->check().empty());
  }
}

TEST(Misuse, MeshesThatGoInTheMiddleGoAtTheEnd) {
  const auto go = [](std::optional<Mesh>& mesh, int way) {
    if (way == 0) mesh.reset();
    if (way == 1) mesh = Mesh(square, {.nx = 3});
    if (way == 2) throw std::exchange(mesh, std::nullopt)->limit();  // and leave at once
  };
  for (int callback = 0; callback < nb_callbacks; ++callback) {
    for (int way = 0; way < 3; ++way) {
      std::optional<Mesh> mesh(std::in_place, square, small_grid);
      bool gone = false;
      const auto update = [&] {
        update_with(*mesh, callback, [&] {
          if (!std::exchange(gone, true)) go(mesh, way);
        });
      };
      if (way == 2) {
        EXPECT_THROW(update(), std::int32_t);
      } else {
        EXPECT_TRUE(contains(text_of_error(update), "has deleted the mesh"));
      }
      EXPECT_EQ(mesh.has_value(), way == 1);
    }
  }
}

/// Gives a mesh a node of unknown shape, worth a warning.
Cell& vandalised(Mesh& mesh) {
  mesh.update(near(2.0));
  Cell& c = *mesh.nodes(1).begin();
  c.ne = c.sw = nullptr;
  c.signature_set = false;
  return c;
}

TEST(Misuse, HandlersOfAMeshNeitherReplaceThemselvesNorDeleteIt) {
  for (const bool throws : {false, true}) {
    std::optional<Mesh> mesh(std::in_place, square, small_grid);
    Cell& c = vandalised(*mesh);
    mesh->set_message_handler([&](std::string_view) { mesh->set_message_handler(nullptr); });
    EXPECT_TRUE(contains(text_of_error([&] { mesh->shape(c); }), "in use by one of its handlers"));
    mesh->set_message_handler([&, throws](std::string_view) {
      mesh.reset();
      if (throws) throw Error("mine");
    });
    EXPECT_TRUE(contains(text_of_error([&] { mesh->shape(c); }), throws ? "mine" : "has deleted"));
    EXPECT_FALSE(mesh.has_value());
  }
  for (int way = 0; way < 3; ++way) {  // in the middle of an update
    std::optional<Mesh> mesh(std::in_place, square, small_grid);
    mesh->set_fatal_handler([&](std::string_view) {
      if (way == 0) mesh->update(near(1.0));
      if (way == 1) mesh->set_fatal_handler(nullptr);
      if (way == 2) mesh.reset();
    });
    const std::string error = text_of_error([&] { mesh->update(nullptr); });
    EXPECT_TRUE(contains(error, way == 2 ? "'size_fun' is no procedure" : "in use by update"))
        << error;
  }
}

// ---------------------------------------------------------------------------------------------
// The free procedures and their variables
// ---------------------------------------------------------------------------------------------

class MisuseOfFreeProcedures : public MeshTest {
 protected:
  void SetUp() override {
    MeshTest::SetUp();
    n_cell_data = 1;
    fatal_handler = [](std::string_view text) { throw Error(std::string(text)); };
    make_grid(5, 5, 7);
    update_mesh_no_init(near(2.0));
  }
  void TearDown() override {
    fatal_handler = message_handler = pause_handler = nullptr;
    MeshTest::TearDown();
  }
};

void (*const free_intrusions[])() = {
    [] { update_mesh_init(near(3.0), product); },
    [] { update_mesh_no_init_batched(as_it_is); },
    [] { resolve_mesh_no_init(near(3.0)); },
    [] { delete_mesh(); },
    [] {
      double y_max = 0.0;
      init_mesh(scenarios::all_dirichlet, 3, 3, 3, y_max);
    },
    [] { set_subdiv_max(2); },
    [] { set_subdiv_max(-1); },
    [] { remove(level_beg[1].next); },
    [] { insert_node_odd_level(any_proposal(default_mesh())); },
    [] { split_sublists(); },
    [] { join_sublists(); },
    [] { compute_data_at_all_nodes(); },
    [] { default_mesh().set_fatal_handler(nullptr); },
};

TEST_F(MisuseOfFreeProcedures, CallbacksDoNotCallWhatChangesTheMesh) {
  for (int callback = 0; callback < nb_callbacks; ++callback) {
    for (const auto& intrude : free_intrusions) {
      update_mesh_no_init(near(3.0));
      const std::string error =
          text_of_error([&] { update_with(default_mesh(), callback, intrude); });
      const auto number = &intrude - free_intrusions;
      EXPECT_TRUE(contains(error, "ERROR: the mesh is in use by ")) << error << ", " << number;
      ASSERT_TRUE(mesh_is_whole()) << number;
    }
  }
  update_mesh_no_init(near(1.0));
  EXPECT_TRUE(mesh_is_whole());
}

TEST_F(MisuseOfFreeProcedures, HandlersThatComeBackEndTheProcessOnce) {
  const std::string in_use = "(velmar_2D/delete_mesh:) ERROR: the mesh is in use by delete_mesh\n";
  const std::string rule = "        (Callbacks and handlers must not call what changes it.)\n";
  ChildEnd end = run_in_child([] {
    fatal_handler = nullptr;
    message_handler = [](std::string_view) { delete_mesh(); };
    delete_mesh();
  });
  EXPECT_EQ(end.output, in_use + rule);
  EXPECT_EQ(end.exit_status, EXIT_FAILURE);
  end = run_in_child([] {
    fatal_handler = [](std::string_view) { update_mesh_no_init(nullptr); };
    update_mesh_no_init(nullptr);
  });
  EXPECT_TRUE(contains(end.output, "in use by update_mesh_no_init")) << end.output;
  EXPECT_EQ(end.exit_status, EXIT_FAILURE);
}

TEST_F(MisuseOfFreeProcedures, LimitWrittenByHandIsFoundOut) {
  void (*const operations[])() = {[] { update_mesh_no_init(near(3.0)); },
                                  [] { resolve_mesh_no_init_batched(as_it_is); },
                                  [] { split_sublists(); },
                                  [] { join_sublists(); },
                                  [] { set_subdiv_max(9); },
                                  [] { set_subdiv_max(0); },
                                  [] { compute_data_at_all_nodes(); },
                                  [] { remove(level_beg[1].next); },
                                  [] { insert(any_proposal(default_mesh())); }};
  for (const std::int32_t wrong : {8, 1000000, 2147483647, 1, -1, -2147483647 - 1}) {
    for (const auto operation : operations) {
      level_max = wrong;
      const std::string error = text_of_error(operation);
      EXPECT_TRUE(contains(error, "'level_max' is " + std::to_string(wrong))) << error;
      level_max = 7;
      ASSERT_TRUE(mesh_is_whole()) << wrong;
    }
    // By a callback: told with the next call.
    for (int callback = 0; callback < nb_callbacks; ++callback) {
      text_of_error([&] { update_with(default_mesh(), callback, [&] { level_max = wrong; }); });
      if (level_max != 7) {
        EXPECT_TRUE(
            contains(text_of_error([] { update_mesh_no_init(near(1.0)); }), "'level_max' is"));
      }
      level_max = 7;
      ASSERT_TRUE(mesh_is_whole()) << wrong << ", callback " << callback;
    }
  }
  level_max = 50;
  delete_mesh();
  EXPECT_EQ(nb_nodes, 0);
  make_grid(5, 5, 3);
}

TEST_F(MisuseOfFreeProcedures, ListRelinkedBetweenBatches) {
  for (int way = 0; way < 2; ++way) {
    update_mesh_no_init_batched(as_it_is);
    Cell& a = *mesh_beg->next;
    Cell &b = *a.next, &before = *a.prev, &after = *b.next;
    if (way == 0) {  // one before the other
      before.next = &b, b.prev = &before, b.next = &a;
      a.prev = &b, a.next = &after, after.prev = &a;
    } else {  // one left out
      before.next = &b, b.prev = &before;
    }
    for (int i = 0; i < 2; ++i) {
      const std::string error = text_of_error([&] {
        i == way ? update_mesh_no_init_batched(as_it_is) : resolve_mesh_no_init_batched(as_it_is);
      });
      if (i == 0) {
        EXPECT_TRUE(contains(error, "the list of nodes is not what it was")) << way << i << error;
      }
    }
    if (way == 1) before.next = &a, b.prev = &a;
    update_mesh_no_init_batched(as_it_is);
    ASSERT_TRUE(mesh_is_whole()) << way;
  }
}

}  // namespace
}  // namespace velmar_2d::tests
