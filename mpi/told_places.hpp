// Places that processes tell their neighbours, of which only changes are sent.
#pragma once

#include <span>
#include <vector>

#include "velmar_2D/piece.hpp"

namespace velmar_2d {

/// By neighbour, sorted: what was told last.
struct ToldPlaces {
  std::vector<std::vector<Place>> sent, received;

  void forget(std::size_t nb_neighbours) {
    sent.assign(nb_neighbours, {});
    received.assign(nb_neighbours, {});
  }
};

/// Appends to a message what has come to a list and what has gone, and takes over the new list.
/// Both are sorted.
void tell_changes(std::vector<Place>& told, std::vector<Place> now, std::vector<Place>& message);
/// Appends that nothing has changed.
void tell_no_changes(std::vector<Place>& message);

/// What has come to any list of a message.
std::vector<Place> all_that_come(std::span<const Place> message);

/// Reads a message of lists. One that ends too soon, after a fault of its sender, changes nothing.
class ChangesReader {
 public:
  explicit ChangesReader(std::span<const Place> message) : rest_(message) {}
  /// The next list of changes.
  /// @return whether there is one
  bool next();
  /// The same, and the list that they lead to.
  /// @return whether there are any
  bool read(std::vector<Place>& told);
  std::span<const Place> gone() const { return gone_; }
  std::span<const Place> come() const { return come_; }
  std::span<const Place> rest() const { return rest_; }

 private:
  std::span<const Place> rest_, gone_, come_;
};

}  // namespace velmar_2d
