#include <new>

#include "velmar_2D/memory/memory.hpp"

namespace velmar_2d::detail {

void StretchNodes::open(const std::vector<Handle>& level_end, const TraversalHistory& history,
                        std::uint64_t revision, ProgressTeller& progress) {
  const bool is_known = revision_ == revision;
  revision_ = 0;
  is_open_ = has_room_ = true;
  stretches_.resize(level_end.size());
  if (is_known) return;
  Walk walk = Walk::to_list(history);
  for (std::size_t stretch = level_end.size(); stretch-- > 0;) {
    stretches_[stretch].clear();
    list(stretch, level_end[stretch].next, walk, progress);
  }
}

void StretchNodes::enter(const Cell& c) {
  if (!has_room_) return;
  try {
    stretches_[static_cast<std::size_t>(c.ipos)].push_back(&c);
  } catch (const std::bad_alloc&) {
    has_room_ = false;  // this one and those to come will be searched for
  }
}

std::span<const Cell*> StretchNodes::of_stretch(std::size_t stretch, Cell* last,
                                                const TraversalHistory& history,
                                                ProgressTeller& progress) {
  const std::vector<const Cell*>& nodes = stretches_[stretch];
  Walk walk = Walk::to_list_newcomers(history);
  list(stretch, nodes.empty() ? last : nodes.back()->prev, walk, progress);
  return stretches_[stretch];
}

void StretchNodes::list(std::size_t stretch, Cell* first, Walk& walk, ProgressTeller& progress) {
  constexpr std::size_t between_looks = 1024;
  for (const Cell& c : walk(first)) {
    stretches_[stretch].push_back(&c);
    if (stretches_[stretch].size() % between_looks == 0) progress.look_aside();
  }
}

void StretchNodes::close(std::uint64_t revision) {
  for (std::vector<const Cell*>& nodes : stretches_) std::erase(nodes, nullptr);
  revision_ = revision;
  is_open_ = false;
}

void StretchNodes::forget() {
  std::vector<std::vector<const Cell*>>().swap(stretches_);
  revision_ = 0;
  is_open_ = false;
}

}  // namespace velmar_2d::detail
