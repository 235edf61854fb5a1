// Asking the nodes for the spacing they want, before the mesh changes anywhere: by one thread or by
// several, which take the list piece by piece.
//
// A want is noted in the node. Those few nodes that need more than that are listed, in the order of
// the list whichever thread has asked them.
#include <atomic>
#include <cmath>
#include <new>
#include <optional>

#include "velmar_2D/adapt/update_mesh_decl.hpp"

namespace velmar_2d::detail {

WantedLevels::WantedLevels(const State& state, double margin)
    : dist_0_(state.domain.dist_0),
      margin_ratio_(margin > 0.0 ? std::exp2(margin / 2.0) : 1.0),
      limit_(std::min(state.level_max, highest_wanted_level)) {}

Want WantedLevels::of(double size, std::int32_t lowest) const {
  const double ratio = std::abs(dist_0_ / size);
  const std::int32_t level = level_wanted_by(ratio);
  const std::int32_t kept = margin_ratio_ == 1.0 ? level : level_wanted_by(ratio * margin_ratio_);
  return {std::clamp(level, lowest, limit_), std::clamp(kept, lowest, limit_), level > limit_};
}

void Demands::note(const WantedLevels& wants, Cell& c, double size) {
  const std::int32_t before = wanted_level(c);
  try {
    if (!WantedLevels::has_size(size)) {
      const bool may_fall = notes_fallen && c.level < before && before > c.ipos;
      if (may_fall) fallen.push_back(&c);
      demands.push_back({&c, 0, false, false, may_fall});
      return;
    }
    const Want want = wants.of(size);
    c.wanted_level = static_cast<std::uint8_t>(want.kept);
    // What was wanted up to ipos concerns parents only. Where a want falls to above the level, what
    // the level is when its turn comes decides.
    const bool falls = notes_fallen && want.kept < before && before > c.ipos;
    const bool may_fall = falls && want.kept > c.level;
    if (falls) fallen.push_back(&c);
    if (want.level > c.level || want.is_refused || may_fall) {
      demands.push_back(
          {&c, static_cast<std::int16_t>(want.level), want.is_refused, true, may_fall});
    }
  } catch (const std::bad_alloc&) {
    throw NoMemory();
  }
}

void Demands::append(const Demands& others) {
  try {
    demands.insert(demands.end(), others.demands.begin(), others.demands.end());
    fallen.insert(fallen.end(), others.fallen.begin(), others.fallen.end());
  } catch (const std::bad_alloc&) {
    throw NoMemory();
  }
}

namespace {

std::exception_ptr ask_by_one_thread(State& state, const size_function& size_fun,
                                     const WantedLevels& wants, Demands& demands) {
  const SizesOneByOne sizes(size_fun);
  Walk walk = Walk::to_ask(state.history);
  try {
    for (Cell& c : walk(state.mesh_beg)) {
      ++state.update_statistics.visited;
      demands.note(wants, c, sizes.at(c));
      state.progress.step();
    }
  } catch (const Demands::NoMemory&) {
    throw;
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

/// What was found in a piece of the list.
struct Answer {
  Demands demands;
  std::int32_t nb_asked = 0;
  std::exception_ptr thrown;
};

/// Pieces that have been asked, and how many of their nodes the caller has not been told of.
class Asking {
 public:
  Asking(const State& state, const size_function& size_fun, const WantedLevels& wants,
         bool notes_fallen)
      : pieces_(state), size_fun_(size_fun), wants_(wants), history_(state.history) {
    const std::int32_t n = state.nb_nodes / Pieces::nodes_of_a_piece + 1;
    answers_.resize(static_cast<std::size_t>(n));
    for (Answer& answer : answers_) answer.demands.notes_fallen = notes_fallen;
  }

  /// Asks pieces, until none is left or a thread has failed. `after_piece` may throw.
  template <typename AfterPiece>
  void work(const AfterPiece& after_piece) {
    for (Piece piece = pieces_.take(); !piece.empty(); piece = pieces_.take()) {
      ask(piece);
      after_piece();
    }
  }
  void fail() { pieces_.fail(); }
  std::int32_t take_nb_asked() { return nb_asked_.exchange(0); }
  bool has_memory() const { return has_memory_; }
  const std::vector<Answer>& answers() const { return answers_; }

 private:
  void ask(const Piece& piece) noexcept {
    Answer& answer = answers_[piece.place];
    try {
      const SizesOneByOne sizes(size_fun_);
      Walk walk = Walk::to_ask(history_, piece.number);
      for (Cell& c : walk(piece.first)) {
        if (&c == piece.end) break;
        ++answer.nb_asked;
        answer.demands.note(wants_, c, sizes.at(c));
      }
    } catch (const Demands::NoMemory&) {
      has_memory_ = false;
      pieces_.fail();
    } catch (...) {
      answer.thrown = std::current_exception();
      pieces_.fail();
    }
    nb_asked_ += answer.nb_asked;
  }

  Pieces pieces_;
  const size_function& size_fun_;
  const WantedLevels& wants_;
  const TraversalHistory& history_;
  std::vector<Answer> answers_;
  std::atomic<std::int32_t> nb_asked_ = 0;
  std::atomic<bool> has_memory_ = true;
};

/// As by one thread: the demands of the nodes before the first one that fails.
std::exception_ptr gather(State& state, const Asking& asking, Demands& demands) {
  if (!asking.has_memory()) throw Demands::NoMemory();
  for (const Answer& answer : asking.answers()) {
    state.update_statistics.visited += answer.nb_asked;
    demands.append(answer.demands);
    if (answer.thrown) return answer.thrown;
  }
  return nullptr;
}

std::exception_ptr ask_by_threads(State& state, const size_function& size_fun,
                                  const WantedLevels& wants, int threads, Demands& demands) {
  std::optional<Asking> asking;
  try {
    asking.emplace(state, size_fun, wants, demands.notes_fallen);
  } catch (const std::bad_alloc&) {
    throw Demands::NoMemory();
  }
  std::exception_ptr left;  // what the caller's own handler throws while it is told the progress
  {
    const Helpers helpers(threads - 1, [&] { asking->work([] {}); });
    try {
      asking->work([&] {
        for (std::int32_t n = asking->take_nb_asked(); n > 0; --n) state.progress.step();
      });
    } catch (...) {
      left = std::current_exception();
      asking->fail();
    }
  }
  std::exception_ptr thrown = gather(state, *asking, demands);
  return thrown ? thrown : left;
}

}  // namespace

std::exception_ptr ask_all_nodes(State& state, const size_function& size_fun,
                                 const WantedLevels& wants, int threads, Demands& demands) {
  threads = Pieces::useful_threads(state, threads);
  return threads > 1 ? ask_by_threads(state, size_fun, wants, threads, demands)
                     : ask_by_one_thread(state, size_fun, wants, demands);
}

}  // namespace velmar_2d::detail
