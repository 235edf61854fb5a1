// Asking many nodes for the spacing they want, by several threads, before the mesh changes.
//
// A want is noted in the node. Where that is not all, the node is listed: in the order of one
// thread, whichever thread has asked it.
#include <new>

#include "velmar_2D/arrays/arrays.hpp"
#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

namespace {

constexpr std::size_t nodes_of_part = Portions::nodes_of_a_portion;

template <typename T>
void append(std::vector<T>& list, const std::vector<T>& others) {
  list.insert(list.end(), others.begin(), others.end());
}

class Asking {
 public:
  /// Ends the work of all threads: a node has failed, or there is no memory.
  struct Stop {};

  /// May throw std::bad_alloc.
  Asking(const size_function& size_fun, const WantedLevels& wants, std::size_t nb_nodes)
      : sizes_(size_fun), wants_(wants), by_part_((nb_nodes + nodes_of_part - 1) / nodes_of_part) {}

  /// Asks the nodes that `for_nodes` hands out, which tells whether it could. May throw Stop.
  template <typename ForNodes>
  void ask(std::size_t part, const ForNodes& for_nodes) {
    AskedNodes asked;  // in no line of the cache that other threads write to
    try {
      const bool all_known = for_nodes([&](Cell& c) {
        ++asked.nb_asked;
        note(c, sizes_.at(c), asked);
      });
      if (!all_known) is_known_ = false;
    } catch (...) {
      asked.thrown = std::current_exception();
    }
    const bool has_thrown = asked.thrown != nullptr;
    by_part_[part] = std::move(asked);
    if (has_thrown || !is_known_) throw Stop();
  }
  /// As one thread would, node by node: up to the first one that fails.
  std::optional<AskedNodes> gather() const {
    if (!is_known_) return {};
    AskedNodes asked;
    try {
      for (const AskedNodes& of_part : by_part_) {
        asked.nb_asked += of_part.nb_asked;
        append(asked.demands, of_part.demands);
        append(asked.fallen, of_part.fallen);
        asked.thrown = of_part.thrown;
        if (asked.thrown) break;
      }
    } catch (const std::bad_alloc&) {
      return {};
    }
    return asked;
  }

 private:
  void note(Cell& c, double size, AskedNodes& asked) {
    const Want want = wants_.of(c, size, 0);
    try {
      if (is_demand(c, want)) {
        asked.demands.push_back({&c, size});
        return;
      }
      if (may_release(c, want)) asked.fallen.push_back(&c);
    } catch (const std::bad_alloc&) {
      is_known_ = false;
    }
    c.wanted_level = static_cast<std::uint8_t>(want.kept);
  }

  const SizesOneByOne sizes_;
  const WantedLevels& wants_;
  std::vector<AskedNodes> by_part_;
  std::atomic<bool> is_known_ = true;  ///< what all nodes that were asked want
};

/// @param for_nodes  hands out the nodes from a number on
template <typename ForNodes>
std::optional<AskedNodes> ask(State& state, Asking& asking, std::size_t nb_nodes,
                              std::int32_t threads, const ForNodes& for_nodes) {
  const auto tell = [&](std::size_t nb_done) {
    while (nb_done-- > 0) state.progress.step();
  };
  DoneTogether done(tell);
  try {
    in_parts(
        nb_nodes, threads,
        [&](std::size_t begin, std::size_t end) {
          asking.ask(begin / nodes_of_part,
                     [&](const auto& use) { return for_nodes(begin, end, use); });
          done.add(end - begin);
        },
        nodes_of_part);
    done.end();
  } catch (const Asking::Stop&) {
  }
  return asking.gather();
}

}  // namespace

std::optional<AskedNodes> ask_all_nodes(State& state, const size_function& size_fun,
                                        const WantedLevels& wants, std::int32_t threads) {
  try {
    const Portions portions(state);
    Asking asking(size_fun, wants, portions.nb_nodes());
    return ask(state, asking, portions.nb_nodes(), threads,
               [&](std::size_t begin, std::size_t /*end*/, const auto& use) {
                 return portions.for_nodes(begin, Walk::to_ask, use);
               });
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::optional<AskedNodes> ask_nodes(State& state, std::span<Cell* const> nodes,
                                    const size_function& size_fun, const WantedLevels& wants,
                                    std::int32_t threads) {
  try {
    Asking asking(size_fun, wants, nodes.size());
    return ask(state, asking, nodes.size(), threads,
               [&](std::size_t begin, std::size_t end, const auto& use) {
                 for (std::size_t i = begin; i < end; ++i) {
                   prefetch_node_to_ask(nodes, i);
                   use(*nodes[i]);
                 }
                 return true;
               });
  } catch (const std::bad_alloc&) {
    return {};
  }
}

}  // namespace velmar_2d::detail
