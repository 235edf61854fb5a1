// Asking all nodes for the spacing they want, by several threads, before the mesh changes.
//
// A want is noted in the node. Where that is not all, the node is listed: in the order of the list,
// whichever thread has asked it.
#include <new>

#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

namespace {

template <typename T>
void append(std::vector<T>& list, const std::vector<T>& others) {
  list.insert(list.end(), others.begin(), others.end());
}

class Asking {
 public:
  /// May throw std::bad_alloc.
  Asking(const State& state, const size_function& size_fun, const WantedLevels& wants)
      : portions_(state),
        history_(state.history),
        sizes_(size_fun),
        wants_(wants),
        by_portion_(Portions::number(state)) {}

  void ask(std::int32_t threads) {
    portions_.share(threads, [this] { ask_portions(); });
  }
  /// As one thread would, node by node: up to the first one that fails.
  std::optional<AskedNodes> gather() const {
    if (has_given_up_) return {};
    AskedNodes asked;
    try {
      for (const AskedNodes& of_portion : by_portion_) {
        asked.nb_asked += of_portion.nb_asked;
        append(asked.demands, of_portion.demands);
        append(asked.fallen, of_portion.fallen);
        asked.thrown = of_portion.thrown;
        if (asked.thrown) break;
      }
    } catch (const std::bad_alloc&) {
      return {};
    }
    return asked;
  }

 private:
  void ask_portions() noexcept {
    for (Portion portion = portions_.take(); !portion.empty(); portion = portions_.take()) {
      if (portion.place >= by_portion_.size()) {  // a caller has lengthened the list
        give_up();
        return;
      }
      AskedNodes asked;  // in no line of the cache that other threads write to
      try {
        Walk walk = Walk::to_ask(history_, portion.number);
        for (Cell& c : walk(portion.first)) {
          if (&c == portion.end) break;
          ++asked.nb_asked;
          note(c, sizes_.at(c), asked);
        }
      } catch (...) {
        asked.thrown = std::current_exception();
        portions_.fail();
      }
      by_portion_[portion.place] = std::move(asked);
    }
  }
  void note(Cell& c, double size, AskedNodes& asked) {
    const Want want = wants_.of(c, size, 0);
    try {
      if (is_demand(c, want)) {
        asked.demands.push_back({&c, size});
        return;
      }
      if (may_release(c, want)) asked.fallen.push_back(&c);
    } catch (const std::bad_alloc&) {
      give_up();
    }
    c.wanted_level = static_cast<std::uint8_t>(want.kept);
  }

  void give_up() {
    has_given_up_ = true;
    portions_.fail();
  }

  Portions portions_;
  const TraversalHistory& history_;
  const SizesOneByOne sizes_;
  const WantedLevels& wants_;
  std::vector<AskedNodes> by_portion_;
  std::atomic<bool> has_given_up_ = false;
};

}  // namespace

std::optional<AskedNodes> ask_nodes(State& state, const size_function& size_fun,
                                    const WantedLevels& wants, std::int32_t threads) {
  std::optional<Asking> asking;
  try {
    asking.emplace(state, size_fun, wants);
  } catch (const std::bad_alloc&) {
    return {};
  }
  asking->ask(threads);
  return asking->gather();
}

}  // namespace velmar_2d::detail
