// Values of a function of position that is cheap in bulk and dear one at a time.
//
// The library asks for the values of new nodes one by one, at the moment of their insertion. A
// vectorised callable is therefore asked ahead, for all places where a walk is about to insert, and
// the walk finds the answers here. Places that were not foreseen are asked for on the spot; so what
// is foreseen decides the speed and never the mesh.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace velmar_2d::python {

class BulkValues {
 public:
  using Function = std::function<void(std::span<const double> x, std::span<const double> y,
                                      std::span<double> values)>;

  explicit BulkValues(Function function) : function_(std::move(function)) {}

  /// Forgets places and values. The next places will mostly be some `unit` apart; they are found
  /// soon as long as there are not many within one.
  void clear(double unit);
  /// Notes a place whose value may be asked for.
  void expect(double x, double y);
  /// Asks the function for all places noted since it was last asked.
  void evaluate();
  /// The value at a place, to the bit; asks the function where it was not expected.
  double at(double x, double y);

 private:
  std::size_t index_of(double x, double y);
  std::size_t slot_of(double x, double y) const;
  void resize_slots(std::size_t places);

  Function function_;
  double per_unit_ = 1.0;
  std::vector<double> noted_;  // places with repetitions, x and y in turn
  std::vector<double> x_, y_, values_;
  std::vector<std::uint32_t> slots_;  // open addressing: 0 or index + 1
};

}  // namespace velmar_2d::python
