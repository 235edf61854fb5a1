// Several meshes at a time, one of them that of the free procedures: taking turns in one thread, or
// each in a thread of its own, they go the way that each goes alone, and each gives its memory
// back. In a program of its own because it replaces the global allocation functions.
#include <cstdlib>
#include <new>
#include <thread>

#include "support/golden_meshes.hpp"
#include "support/history.hpp"
#include "support/mesh_view.hpp"

namespace {

thread_local long blocks_in_use = 0;  // allocations of this thread less those it gave back

}  // namespace

// The thread sanitizer has allocation functions of its own.
#if !defined(VELMAR_2D_SANITIZE_THREADS)

namespace {

// Not inlined: the compiler would take free() for a mismatch with the operator new around it.
[[gnu::noinline]] void* allocate(std::size_t size, std::size_t alignment) {
  void* memory = std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
  blocks_in_use += memory != nullptr ? 1 : 0;
  return memory;
}
[[gnu::noinline]] void give_back(void* memory) {
  blocks_in_use -= memory != nullptr ? 1 : 0;
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size, std::align_val_t alignment) {
  if (void* memory = allocate(size, static_cast<std::size_t>(alignment))) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size) { return operator new (size, std::align_val_t{16}); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size, 16); }
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return allocate(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t) noexcept { give_back(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { give_back(memory); }

#endif

namespace velmar_2d::tests {

namespace {

constexpr std::size_t at_a_time = 8;

/// A history, or the making of a golden mesh, with what it leaves behind.
template <typename Story>
class Watched {
 public:
  template <typename Plan>
  Watched(const Plan& plan, Face face) : story_(plan, face) {}

  bool is_over() const { return ended_; }
  /// One step; after the last one, the end of the mesh.
  void step() {
    const long before = blocks_in_use;
    if (story_.is_over()) {
      story_.end();
      ended_ = true;
    } else {
      story_.step();
    }
    blocks_ += blocks_in_use - before;
    if (!ended_) states_.push_back(state_hash(story_.mesh()));
  }
  const std::vector<std::uint64_t>& states() const { return states_; }
  long blocks_kept() const { return blocks_; }

 private:
  Story story_;
  bool ended_ = false;
  long blocks_ = 0;
  std::vector<std::uint64_t> states_;  ///< after each step
};

struct FacedHistory : History {
  FacedHistory(HistoryPlan plan, Face face) : History((plan.face = face, plan)) {}
};

template <typename Story>
void run_to_its_end(Watched<Story>& story) {
  while (!story.is_over()) story.step();
}
template <typename Story>
void take_turns(std::vector<Watched<Story>>& stories) {
  for (bool all_over = false; !all_over;) {
    all_over = true;
    for (Watched<Story>& story : stories) {
      if (!story.is_over()) story.step();
      all_over = all_over && story.is_over();
    }
  }
}
template <typename Story>
void run_in_threads(std::vector<Watched<Story>>& stories) {
  std::vector<std::jthread> threads;
  for (Watched<Story>& story : stories) threads.emplace_back([&story] { run_to_its_end(story); });
}

/// The first one goes through the free procedures.
template <typename Story>
void expect_the_same_together(const auto& plans) {
  const auto make = [&plans] {
    std::vector<Watched<Story>> stories;
    for (const auto& plan : plans) {
      stories.emplace_back(plan, stories.empty() ? Face::free_procedures : Face::object);
    }
    return stories;
  };
  std::vector<Watched<Story>> alone = make(), in_turns = make(), in_threads = make();
  for (Watched<Story>& story : alone) run_to_its_end(story);
  take_turns(in_turns);
  run_in_threads(in_threads);
  for (std::size_t i = 0; i < alone.size(); ++i) {
    EXPECT_EQ(in_turns[i].states(), alone[i].states()) << "story " << i;
    EXPECT_EQ(in_threads[i].states(), alone[i].states()) << "story " << i;
    for (const auto* stories : {&alone, &in_turns, &in_threads}) {
      EXPECT_EQ((*stories)[i].blocks_kept(), 0) << "story " << i;
    }
  }
}

using SeveralMeshes = QuietMeshTest;

TEST_F(SeveralMeshes, GoTheWayOfEachAlone) {
#if defined(VELMAR_2D_SANITIZE_THREADS)
  constexpr std::uint64_t nb_histories = 48;
#else
  constexpr std::uint64_t nb_histories = 504;
#endif
  constexpr std::array kinds = {Steps::adapt, Steps::adapt_hostile, Steps::single_nodes};
  for (std::uint64_t seed = 0; seed < nb_histories && !HasFailure(); seed += at_a_time) {
    SCOPED_TRACE("seeds from " + std::to_string(seed));
    std::vector<HistoryPlan> plans(at_a_time);
    for (std::size_t i = 0; i < plans.size(); ++i) {
      const std::uint64_t n = seed + i;
      plans[i] = {n, kinds[n % 3], n % 4 == 3, 5 + static_cast<int>(n % 5), n % 2 == 0, n % 7 < 3};
    }
    expect_the_same_together<FacedHistory>(plans);
  }
}

TEST_F(SeveralMeshes, OfTheGoldenTableGoTheWayOfEachAlone) {
  expect_the_same_together<GoldenRun>(golden_meshes());
}

}  // namespace
}  // namespace velmar_2d::tests
