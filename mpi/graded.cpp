// Resolution::slope over all processes: sizes that are graded together.
#include "partition.hpp"

namespace velmar_2d {

/// What each process knows of sizes that concerns the others, by neighbour.
std::vector<std::vector<PlacedSize>> Partition::Parts::take_sizes_to_tell() {
  std::vector<std::vector<PlacedSize>> out(messages.neighbours().size());
  messages.alone([&] {
    for (const PlacedSize& of : piece->sizes_for_owners())
      out[neighbour_of(of.place)].push_back(of);
    for (std::size_t i = 0; i < out.size(); ++i) {
      const std::vector<PlacedSize> own = piece->sizes_for(i);
      out[i].insert(out[i].end(), own.begin(), own.end());
    }
  });
  return out;
}

void Partition::Parts::take_sizes(const std::vector<std::vector<PlacedSize>>& told) {
  messages.alone([&] {
    for (std::size_t i = 0; i < told.size(); ++i) piece->take_sizes(i, told[i]);
  });
}

/// Until no size gets lower. What follows from another's in the own box is found between two
/// messages, so there are about as many of these as boxes on the way from a small size.
void Partition::Parts::grade_together() {
  while (messages.any(piece->has_sizes_to_tell() ? 1 : 0) != 0) {
    ++statistics.nb_rounds;
    take_sizes(messages.exchange(take_sizes_to_tell()));
  }
}

/// Without data it does not matter when a node is asked, so that each process goes as far as it
/// can between two messages.
void Partition::Parts::refine_graded_by_place() {
  for (;;) {
    messages.alone([&] {
      do {
        piece->ask();
        piece->settle();
      } while (piece->has_nodes_to_ask());
    });
    if ((any_news() & (News::wants | News::sizes)) == 0) return;
    ++statistics.nb_rounds;
    // Of nodes that are there once the wants have arrived.
    const std::vector<std::vector<PlacedSize>> told = take_sizes_to_tell();
    exchange_wants_once();
    take_sizes(messages.exchange(told));
  }
}

void Partition::Parts::refine_graded() {
  if (grid.n_cell_data == 0) {
    refine_graded_by_place();
    sharing([&] { share_children(tells_all_children); });
  } else {
    refine();
  }
  // Nodes that want the level that is there get to know it.
  if (messages.any(piece->lacks_sizes() ? 1 : 0) != 0) {
    share_ghosts();
    messages.alone([&] { piece->settle(); });
  }
}

/// Without a node that has gone others may want less.
void Partition::Parts::release_graded() {
  const auto nb_removed = [this] { return piece->statistics().removed; };
  std::int64_t nb_before = nb_removed();
  release();
  while (messages.together(nb_removed() - nb_before) > 0) {
    nb_before = nb_removed();
    messages.alone([&] { piece->forget_grading(); });
    grade_together();
    messages.alone([&] { piece->settle(); });
    release_until_kept();
  }
}

}  // namespace velmar_2d
