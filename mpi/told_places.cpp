#include "told_places.hpp"

#include <algorithm>
#include <iterator>

namespace velmar_2d {

void tell_changes(std::vector<Place>& told, std::vector<Place> now, std::vector<Place>& message) {
  const std::size_t head = message.size();
  message.emplace_back();
  std::set_difference(told.begin(), told.end(), now.begin(), now.end(),
                      std::back_inserter(message));
  const std::size_t middle = message.size();
  std::set_difference(now.begin(), now.end(), told.begin(), told.end(),
                      std::back_inserter(message));
  message[head] = {static_cast<std::int64_t>(middle - head - 1),
                   static_cast<std::int64_t>(message.size() - middle)};
  told = std::move(now);
}

void tell_no_changes(std::vector<Place>& message) { message.emplace_back(); }

std::vector<Place> all_that_come(std::span<const Place> message) {
  std::vector<Place> come;
  for (ChangesReader reader(message); reader.next();) {
    come.insert(come.end(), reader.come().begin(), reader.come().end());
  }
  return come;
}

bool ChangesReader::next() {
  gone_ = come_ = {};
  if (rest_.empty()) return false;
  const auto nb_gone = static_cast<std::size_t>(rest_[0].x);
  const auto nb_come = static_cast<std::size_t>(rest_[0].y);
  if (rest_.size() - 1 < nb_gone + nb_come) return false;
  gone_ = rest_.subspan(1, nb_gone);
  come_ = rest_.subspan(1 + nb_gone, nb_come);
  rest_ = rest_.subspan(1 + nb_gone + nb_come);
  return true;
}

bool ChangesReader::read(std::vector<Place>& told) {
  if (!next() || (gone_.empty() && come_.empty())) return false;
  std::vector<Place> kept, all;
  kept.reserve(told.size());
  std::set_difference(told.begin(), told.end(), gone_.begin(), gone_.end(),
                      std::back_inserter(kept));
  all.reserve(kept.size() + come_.size());
  std::merge(kept.begin(), kept.end(), come_.begin(), come_.end(), std::back_inserter(all));
  told = std::move(all);
  return true;
}

}  // namespace velmar_2d
