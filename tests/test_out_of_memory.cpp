// Exhausted memory, work that must take none, and a long life in the same memory; in a program of
// its own because it replaces the global allocation functions.
#include <malloc.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <new>
#include <numbers>
#include <optional>
#include <set>

#include "scenarios/scenarios.hpp"
#include "support/child_process.hpp"
#include "support/least_mesh.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/arrays.hpp"

namespace {

// Allocations in this range of sizes fail, and all of them once so many more have been made.
std::size_t smallest_refused = 1, largest_refused = 0;
constexpr long no_end = -1;
long still_granted = no_end;
long in_use = 0;        // allocations not given back yet
long bytes_in_use = 0;  // and their size

bool is_refused(std::size_t size) {
  if (still_granted == 0) return true;
  if (still_granted > 0) --still_granted;
  return smallest_refused <= size && size <= largest_refused;
}
void refuse(std::size_t smallest, std::size_t largest) {
  smallest_refused = smallest;
  largest_refused = largest;
}

// Not inlined: the compiler would take free() for a mismatch with the operator new around it.
[[gnu::noinline]] void* allocate(std::size_t size, std::align_val_t alignment = {}) {
  const auto multiple = static_cast<std::size_t>(alignment);
  void* memory = is_refused(size) ? nullptr
                 : multiple == 0
                     ? std::malloc(size)
                     : std::aligned_alloc(multiple, (size + multiple - 1) / multiple * multiple);
  in_use += memory != nullptr ? 1 : 0;
  bytes_in_use += static_cast<long>(malloc_usable_size(memory));
  return memory;
}
[[gnu::noinline]] void give_back(void* memory) {
  in_use -= memory != nullptr ? 1 : 0;
  bytes_in_use -= static_cast<long>(malloc_usable_size(memory));
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* memory = allocate(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return allocate(size, alignment);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  if (void* memory = allocate(size, alignment)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory, std::align_val_t) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { give_back(memory); }
void operator delete(void* memory) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t) noexcept { give_back(memory); }
void operator delete[](void* memory) noexcept { give_back(memory); }
void operator delete[](void* memory, std::size_t) noexcept { give_back(memory); }

namespace velmar_2d::tests {
namespace {

TEST(OutOfMemory, EndsWithTheSizeThatWasAskedFor) {
  static constexpr auto make_mesh = [] { scenarios::init_unit_square(20, 20, 1); };
  const struct {
    const char* what;
    void (*code)();
    std::size_t bytes;
  } cases[] = {
      {"a node", [] { refuse(sizeof(Cell), SIZE_MAX), make_mesh(); }, sizeof(Cell)},
      {"the data of a node", [] { n_cell_data = 1000, refuse(8000, 16000), make_mesh(); }, 8000},
      {"the data of an inserted node",
       [] {
         n_cell_data = 1000;
         make_mesh();
         const Vertex v = proposals_around(mesh_beg).at(0);
         refuse(8000, 16000);
         insert_node_odd_level(v);
       },
       8000},
      {"the level arrays",
       [] { make_mesh(), refuse(61 * sizeof(Handle), 61 * sizeof(Handle)), set_subdiv_max(60); },
       61 * sizeof(Handle)},
      {"the check: a table of 1024 slots of 16 bytes",
       [] {
         make_mesh();
         std::vector<Finding> findings;
         refuse(8192, SIZE_MAX);
         check_mesh(findings);
       },
       16 * 1024},
  };
  for (const auto& c : cases) {
    const ChildEnd end = run_in_child(c.code);
    EXPECT_EQ(end.output, "Error allocating " + std::to_string(c.bytes) + " bytes\n") << c.what;
    EXPECT_EQ(end.exit_status, EXIT_FAILURE) << c.what;
  }
}

// Where no large block is left, small ones go on.
TEST(OutOfMemory, ComesOnlyWhenSmallBlocksAreUsedUpToo) {
  scenarios::init_unit_square(20, 20, 4);
  refuse((1 << 16) + 1, SIZE_MAX);
  update_mesh_no_init(scenarios::even_spacing(0.3 * dist_0));
  refuse(1, 0);
  EXPECT_GT(nb_nodes, 1000);
  delete_mesh();
}

constexpr auto exhaust = [](long granted) {
  still_granted = granted;
  double y_max = 0.0;
  init_mesh(scenarios::all_dirichlet, 5, 5, 8, y_max);
  for (int i = 0; i < 2; ++i) {
    update_mesh_no_init_batched(
        [](std::span<const Cell* const> /*nodes*/, std::span<double> sizes) {
          std::fill(sizes.begin(), sizes.end(), 0.02);
        });
    update_mesh_no_init(scenarios::even_spacing(0.02));
  }
  set_subdiv_max(2);
  set_subdiv_max(60);
  still_granted = no_end;
};

/// The mesh after its limit was lowered among links that may be one-way, or the end of the attempt.
std::string lowered_mesh(std::uint64_t seed, std::size_t smallest_refused_block,
                         std::size_t largest_refused_block) {
  scenarios::Random random{seed};
  next_id = 1;
  scenarios::init_unit_square(9, 9, 8);
  update_mesh_no_init(scenarios::random_spacing(seed, 0.05, dist_0 / 8.0, dist_0));
  std::vector<Cell*> nodes;
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) nodes.push_back(c);
  for (int i = 0; i < 5; ++i) {
    const auto any = [&] { return nodes[random.next() % nodes.size()]; };
    Vertex v;
    v.x = dist_0 / 8.0 * random.between(1, 63);
    v.y = dist_0 / 8.0 * random.between(1, 63);
    v.level = 8 - i % 2;
    v.p1 = any(), v.p2 = any(), v.p3 = any(), v.p4 = i % 2 == 0 ? nullptr : any();
    insert(v);
  }
  std::string result;
  refuse(smallest_refused_block, largest_refused_block);
  try {
    set_subdiv_max(static_cast<std::int32_t>(seed % 3));
  } catch (const std::string& text) {
    result = text;
  }
  refuse(1, 0);
  for (const std::string& node : describe_mesh()) result += "\n" + node;
  delete_mesh();
  return result;
}

// Links to the nodes that go are gathered once; where there is no memory for that, or none any more
// to note new ones, they are searched for, node by node.
TEST(OutOfMemory, GatheredLinksAreThoseThatASearchFinds) {
  message_handler = [](std::string_view) {};
  fatal_handler = [](std::string_view text) { throw std::string(text); };
  std::set<std::string> results;
  for (std::uint64_t seed = 0; seed < 25; ++seed) {
    const std::string gathered = lowered_mesh(seed, 1, 0);
    EXPECT_TRUE(gathered == lowered_mesh(seed, 1 << 13, SIZE_MAX)) << seed;
    EXPECT_TRUE(gathered == lowered_mesh(seed, 24, 24)) << seed << ": those that come later";
    results.insert(gathered);
  }
  EXPECT_GT(results.size(), 10U) << "insertions leave traces";
  fatal_handler = message_handler = nullptr;
}

// Memory ends after ever more allocations, until the work is done: nodes with three values take one
// each. What exists then is whole, and all of it can be given back without memory.
TEST(OutOfMemory, AnywhereLosesNoNode) {
  n_cell_data = 3;
  scenarios::set_domain(0.0, 1.0, 0.0, 1.0);
  std::array<char, 64> text{};
  message_handler = [&](std::string_view block) { block.copy(text.data(), text.size()); };
  fatal_handler = [&](std::string_view block) {
    block.copy(text.data(), text.size());
    throw 1;
  };
  const long before = in_use;
  std::set<std::int32_t> node_counts;
  bool done = false;
  for (long granted = 0; !done; granted += 1 + granted / 64) {
    text = {};
    try {
      exhaust(granted);
      done = true;
    } catch (int) {
      still_granted = no_end;
      EXPECT_EQ(std::string_view(text.data()).substr(0, 17), "Error allocating ");
    }
    std::vector<Finding> findings;
    EXPECT_EQ(check_mesh(findings), 0U) << granted;
    const std::int32_t nodes = nb_nodes;
    node_counts.insert(nodes);
    if (!level_beg.empty()) {
      text = {};
      still_granted = 0;
      delete_mesh();
      still_granted = no_end;
      EXPECT_EQ(text.data(), " nb of deallocated nodes: " + std::to_string(nodes));
    }
  }
  EXPECT_GT(node_counts.size(), 100U) << "provoked in the middle of updates";
  node_counts.clear();
  EXPECT_EQ(in_use, before);
  fatal_handler = message_handler = nullptr;
  for (const long granted : {28, 150, 600, 2000}) {  // without handlers, the end of the process
    const ChildEnd end = run_in_child([&] { exhaust(granted); });
    EXPECT_EQ(end.output.substr(0, 17), "Error allocating ") << granted;
    EXPECT_EQ(end.exit_status, EXIT_FAILURE);
  }
  n_cell_data = 0;
}

/// The updates, one by one and in batches.
constexpr void (*updates[])(Mesh&, double spacing) = {
    [](Mesh& mesh, double spacing) {
      mesh.update([=](double, double, auto...) { return spacing; });
    },
    [](Mesh& mesh, double spacing) {
      mesh.update_batched(
          [=](auto, std::span<double> sizes) { std::fill(sizes.begin(), sizes.end(), spacing); });
    },
    [](Mesh& mesh, double spacing) {
      mesh.resolve([=](double, double, auto...) { return spacing; });
    },
    [](Mesh& mesh, double spacing) {
      mesh.resolve_batched(
          [=](auto, std::span<double> sizes) { std::fill(sizes.begin(), sizes.end(), spacing); });
    },
};

/// Does this while only so many allocations succeed. Whether it went well.
template <typename Work>
bool with_allocations(long granted, const Work& work) {
  bool done = false;
  still_granted = granted;
  try {
    work();
    done = true;
  } catch (const Error&) {
  } catch (const std::bad_alloc&) {  // none was left for the text
  }
  still_granted = no_end;
  return done;
}

// A refinement for which memory ended somewhere, or did not, leaves a mesh that any other update
// coarsens without memory.
TEST(OutOfMemory, LeavesTheWayBack) {
  int nb_failures = 0;
  for (std::size_t finer = 0; finer < std::size(updates); ++finer) {
    for (std::size_t coarser = 0; coarser < std::size(updates); ++coarser) {
      for (const long granted : {10L, 300L, no_end}) {
        Mesh mesh({0, 4, 0, 4}, {.nx = 5, .subdiv_max = 9, .n_cell_data = 2});
        updates[finer](mesh, 0.5);
        nb_failures += with_allocations(granted, [&] { updates[finer](mesh, 0.1); }) ? 0 : 1;
        ASSERT_TRUE(mesh.check().empty());
        ASSERT_GT(mesh.size(), 25);
        const auto text = [&] {
          return "from " + std::to_string(finer) + " to " + std::to_string(coarser) + ", after " +
                 std::to_string(granted);
        };
        const long bytes_before = bytes_in_use, nb_nodes_before = mesh.size();
        EXPECT_TRUE(with_allocations(0, [&] { updates[coarser](mesh, 1e3); })) << text();
        const long bytes_given_back = bytes_before - bytes_in_use;
        ASSERT_TRUE(mesh.check().empty()) << text();
        EXPECT_EQ(mesh.size(), 25) << text();
        if (coarser == 1) {  // batches would need memory: all that can go is given back
          EXPECT_GT(bytes_given_back, (nb_nodes_before - 400) * long{sizeof(Cell)}) << text();
        }
      }
    }
  }
  EXPECT_EQ(nb_failures, 2 * 16);
}

// Memory ends after ever more allocations of a resolve that moves a feature on, asks in batches,
// has holes to fill, grades sizes, or remaps data, where what cells hold in all stays.
TEST(OutOfMemory, ResolveGoesOnWhereItWasLeft) {
  const auto near_point = [](double x, double y) -> size_function {
    return [=](double px, double py, auto...) { return 0.1 + 0.3 * std::hypot(px - x, py - y); };
  };
  const size_function here = near_point(0.7, 1.2), there = near_point(2.3, 1.9);
  const auto content = [](Mesh& mesh) {
    double sum = 0.0;
    for (Cell& c : mesh.nodes()) sum += mesh.area(c) * c.data[1];
    return sum;
  };
  for (int way = 0; way < 6; ++way) {
    int nb_failures = 0;
    bool done = false;
    for (long granted = 0; !done; granted += 1 + granted / 8) {
      Mesh mesh({0, 4, 0, 4}, {.nx = 5, .subdiv_max = 9, .n_cell_data = 2});
      const Lattice lattice(mesh);
      way == 2 || way == 5 ? mesh.update(here) : mesh.resolve(here);
      if (way >= 4) mesh.set_transfer(Transfer::remap);
      for (Cell& c : mesh.nodes()) c.data[1] = 1.0 + c.x * c.y;
      const double before = content(mesh);
      done = with_allocations(granted, [&] {
        if (way == 1) {
          mesh.resolve_batched([&](std::span<const Cell* const> nodes, std::span<double> sizes) {
            for (std::size_t i = 0; i < nodes.size(); ++i) {
              sizes[i] = there(nodes[i]->x, nodes[i]->y, {}, 0.0, 0.0);
            }
          });
        } else {
          mesh.resolve(there, {.slope = way == 3 ? 0.3 : 0.0});
        }
      });
      nb_failures += done ? 0 : 1;
      ASSERT_TRUE(mesh.check().empty()) << granted;
      if (way >= 4) {
        ASSERT_NEAR(content(mesh), before, 1e-12 * before) << "way " << way << ", " << granted;
      }
      if (!done) mesh.resolve(there);
      ASSERT_TRUE(lattice.of(mesh) == lattice.least(there)) << "way " << way << ", " << granted;
      ASSERT_TRUE(mesh.check().empty()) << granted;
    }
    EXPECT_GT(nb_failures, 10) << way;
  }
}

// Far from the origin the search for a stencil runs twice.
/// Wherever memory ends, there are whole arrays or none, and they can be made when there is some.
TEST(OutOfMemory, LeavesWholeArraysOrNone) {
  const long before = in_use;
  {
    Mesh mesh({}, {.nx = 9, .subdiv_max = 8, .n_cell_data = 2});
    std::optional<MeshArrays> arrays;
    long granted = 0;
    const auto use = [&] {
      arrays.emplace(mesh);
      arrays->pull();
      arrays->push();
    };
    while (!with_allocations(granted, use)) ++granted;
    EXPECT_GT(granted, 10) << "provoked in the middle";
    mesh.resolve([](double, double, auto...) { return 0.02; });
    const auto remake = [&] { arrays->update(); };
    for (granted = 0; !with_allocations(granted, remake); ++granted) {
      EXPECT_FALSE(arrays->is_current());
      EXPECT_TRUE(arrays->size() == 0 && arrays->links().empty());
    }
    EXPECT_GT(granted, 3) << "provoked in the middle";
    EXPECT_EQ(arrays->size(), mesh.size());
  }
  EXPECT_EQ(in_use, before);
}

TEST(NoMemory, ForTheDerivatives) {
  for (const double origin : {0.0, 100.0}) {
    const ChildEnd end = run_in_child([&] {
      n_cell_data = 1;
      scenarios::set_domain(origin, origin + 1.0, origin, origin + 1.0);
      double y_max = 0.0;
      init_mesh(scenarios::all_dirichlet, 4, 4, 7, y_max);
      const scenarios::Ring ring{origin + 0.3, origin + 0.3, 0.4};
      for (int i = 0; i < 6; ++i) {
        update_mesh_no_init(scenarios::ring_spacing(ring, 0.3, dist_0 / 8.0, dist_0));
      }
      refuse(1, SIZE_MAX);
      for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
        double dx = 0.0, dy = 0.0;
        compute_data_at_node(c, &dx, &dy);
      }
      refuse(1, 0);
    });
    EXPECT_EQ(end.exit_status, 0) << end.output;
  }
}

long resident_kilobytes() {
  std::ifstream status("/proc/self/statm");
  long pages = 0, resident = 0;
  status >> pages >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// VELMAR_2D_LONG_LIFE=1 in the environment takes a larger mesh and tells about it: see
// docs/reliability.md.
TEST(LongLife, EndsInTheSameMemory) {
  const bool large = std::getenv("VELMAR_2D_LONG_LIFE") != nullptr;
  message_handler = [](std::string_view) {};
  n_cell_data = 2;
  std::vector<Finding> findings;
  const scenarios::Ring start{1.0, 2.0, 1.0};
  const auto spacing_around = [&](const scenarios::Ring& ring) {
    return scenarios::ring_spacing(ring, large ? 0.1 : 0.4, large ? 0.01 : 0.25, 1.0);
  };
  const size_function spacing = spacing_around(start);
  const std::int32_t limit = large ? 14 : 5;
  const long before = bytes_in_use;
  for (int round = 0; round < 2000; ++round) {
    make_grid(3 + round % 4, 3 + round % 3, limit);
    update_mesh_no_init(spacing);
    if (round % 2 == 0) split_sublists();
    if (round % 3 == 0) {
      const long with_nodes = bytes_in_use, of_nodes = nb_nodes * long{sizeof(Cell)};
      set_subdiv_max(-1);
      ASSERT_GE(with_nodes - bytes_in_use, of_nodes);
      ASSERT_LT(bytes_in_use, before + 1000) << "all but the level arrays";
    }
    delete_mesh();
    ASSERT_EQ(nb_nodes, 0);
    ASSERT_EQ(bytes_in_use, before) << "round " << round;
    if (large && round % 500 == 499) {
      std::printf("round %d: %ld kB resident\n", round + 1, resident_kilobytes());
    }
  }

  // A front that comes back to its place every 50 updates.
  constexpr int period = 50, nb_updates = 5000;
  make_grid(5, 5, limit);
  long most_bytes = 0, most_bytes_at_first = 0;
  for (int i = 1; i <= nb_updates; ++i) {
    const double angle = 2.0 * std::numbers::pi * i / period;
    update_mesh_no_init(spacing_around({2.0 + std::sin(angle), 2.0 + 0.3 * std::cos(angle), 1.0}));
    most_bytes = std::max(most_bytes, bytes_in_use);
    if (i == 4 * period) most_bytes_at_first = most_bytes;
    if (i % period != 0) continue;
    ASSERT_EQ(check_mesh(findings), 0U) << "update " << i;
    ASSERT_TRUE(mesh_is_whole()) << "update " << i;
    if (large && i % 500 == 0) {
      std::printf("update %d: %d nodes, %ld kB in use, %ld kB resident\n", i, nb_nodes,
                  bytes_in_use / 1024, resident_kilobytes());
    }
  }
  constexpr long rounding = 1000;  // what malloc gives beyond what is asked for varies
  EXPECT_LE(most_bytes, most_bytes_at_first + rounding);
  delete_mesh();
  std::vector<Finding>().swap(findings);
  EXPECT_EQ(bytes_in_use, before);
  n_cell_data = 0;
  message_handler = nullptr;
}

}  // namespace
}  // namespace velmar_2d::tests
