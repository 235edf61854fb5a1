// Values by what lay under a cell before an update, on whatever processes.
#include "partition.hpp"

namespace velmar_2d {

// Each process tells what the cells covered that it has no more. Whose new cells reach there asks
// for the parts that lay under these.
void Partition::Parts::remap() {
  const std::size_t nb_neighbours = messages.neighbours().size();
  std::vector<std::vector<Rectangle>> covered(nb_neighbours);
  messages.alone([&] { covered.assign(nb_neighbours, {piece->begin_remap()}); });
  const std::vector<std::vector<Rectangle>> covered_there = messages.exchange(covered);
  std::vector<std::vector<double>> asked(nb_neighbours), answers(nb_neighbours);
  messages.alone([&] {
    for (std::size_t i = 0; i < nb_neighbours; ++i) {
      asked[i] = piece->cells_over(covered_there[i].at(0));
    }
  });
  const std::vector<std::vector<double>> asked_here = messages.exchange(asked);
  messages.alone([&] {
    for (std::size_t i = 0; i < nb_neighbours; ++i) answers[i] = piece->parts_under(asked_here[i]);
  });
  const std::vector<std::vector<double>> told = messages.exchange(answers);
  messages.alone([&] { piece->end_remap(told); });
  messages.together();
  exchange_data();
}

}  // namespace velmar_2d
