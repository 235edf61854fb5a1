// Links to nodes that leave the mesh.
//
// A node is mostly linked to from where its own links lead, and whoever removes it relinks its
// neighbours. Only where a caller has inserted nodes that their parents do not surround may others
// link to it too. Those are searched for; where many nodes go, all links are gathered first.
#include <algorithm>
#include <new>

#include "velmar_2D/mesh/state.hpp"

namespace velmar_2d::detail {

namespace {

/// Calls `use` with every node of the mesh, split or joined.
template <typename Use>
void for_all_nodes(const State& state, const Use& use) {
  for (std::size_t stretch = 0; stretch < state.level_beg.size(); ++stretch) {
    const Cell* last = state.level_end[stretch].next;
    for (Cell* c = state.level_beg[stretch].next; c != nullptr; c = c == last ? nullptr : c->next) {
      use(*c);
    }
  }
}

void cut_links(Cell& from, const Cell* to) {
  for (int d = 0; d < nb_directions; ++d) {
    if (link(from, d).cell() == to) link(from, d) = nullptr;
  }
}

void cut_links_to(State& state, const Cell* c) {
  if (state.gathers_link_sources && state.link_sources == nullptr) {
    try {
      state.link_sources = std::make_unique<LinkSources>(state);
    } catch (const std::bad_alloc&) {
      state.gathers_link_sources = false;  // slower, that is all
    }
  }
  if (state.link_sources != nullptr) {
    if (state.link_sources->cut_links_to(c)) return;
    state.link_sources.reset();
    state.gathers_link_sources = false;
  }
  for_all_nodes(state, [c](Cell& from) { cut_links(from, c); });
}

}  // namespace

LinkSources::LinkSources(const State& state) {
  for_all_nodes(state, [this](Cell& from) {
    for (int d = 0; d < nb_directions; ++d) {
      if (const Cell* to = link(from, d).cell()) sorted_.emplace_back(to, &from);
    }
  });
  std::sort(sorted_.begin(), sorted_.end());
}

void LinkSources::add(const Cell* to, Cell* from) {
  try {
    later_.emplace(to, from);
    gone_.erase(from);
  } catch (const std::bad_alloc&) {
    is_complete_ = false;
  }
}

bool LinkSources::cut_links_to(const Cell* c) {
  const auto cut = [&](Cell* from) {
    if (!gone_.contains(from)) cut_links(*from, c);
  };
  const auto is_before = [](const auto& entry, const Cell* to) { return entry.first < to; };
  for (auto it = std::lower_bound(sorted_.begin(), sorted_.end(), c, is_before);
       it != sorted_.end() && it->first == c; ++it) {
    cut(it->second);
  }
  const auto [begin, end] = later_.equal_range(c);
  for (auto it = begin; it != end; ++it) cut(it->second);
  try {
    gone_.insert(c);
  } catch (const std::bad_alloc&) {
    is_complete_ = false;
  }
  return is_complete_;
}

GatherLinkSources::~GatherLinkSources() {
  state_.gathers_link_sources = false;
  state_.link_sources.reset();
}

void drop_cell(State& state, Cell*& c) {
  if (state.links_may_be_one_way) cut_links_to(state, c);
  leave_stretch(state, *c);
  release_cell(state, c);
}

}  // namespace velmar_2d::detail
