// Values by what lay under a cell, where others own a part of that.
//
// Each piece knows the cells of its own nodes, as they were and as they are. What lies under one
// that reaches over the box is asked of the others: they get the cell and tell the parts of theirs.
// So all parts of a cell come together with its owner, who sums them in the order of their places.
#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d::detail {

namespace {

/// MessageNumbers, one after the other. A message that ends too soon is one of a piece that has
/// failed.
class MessageNumbers {
 public:
  explicit MessageNumbers(std::span<const double> all) : rest_(all) {}
  std::span<const double> next(std::size_t n) {
    if (n > rest_.size()) throw Error("(velmar_2D/Piece:) ERROR: a message ends too soon");
    const std::span<const double> numbers = rest_.first(n);
    rest_ = rest_.subspan(n);
    return numbers;
  }
  std::size_t next_count() { return static_cast<std::size_t>(next(1)[0]); }
  bool empty() const { return rest_.empty(); }

 private:
  std::span<const double> rest_;
};

void write(const PlacedCell& cell, std::vector<double>& message) {
  message.insert(message.end(), {static_cast<double>(cell.polygon.n), cell.at.x, cell.at.y});
  for (std::size_t i = 0; i < cell.polygon.n; ++i) {
    message.insert(message.end(), {cell.polygon.corners[i].x, cell.polygon.corners[i].y});
  }
}

PlacedCell read_cell(MessageNumbers& message) {
  const std::size_t n = message.next_count();
  const std::span<const double> at = message.next(2), corners = message.next(2 * n);
  PlacedCell cell{{at[0], at[1]}, {}};
  for (std::size_t i = 0; i < n; ++i) {
    cell.polygon.add({corners[2 * i], corners[2 * i + 1], 0});
  }
  return cell;
}

}  // namespace

void PieceUpdate::begin_remapping() {
  if (remapping_ && remapping_->has_all()) {
    if (init_data_) remapping_->keep_first_values();
    return;
  }
  forget_cells();
  if (state_.transfer == Transfer::remap && state_.n_cell_data > 0) {
    remapping_ = std::make_unique<Remapping>(state_);
  }
}

void PieceUpdate::forget_cells() {
  if (remapping_) remapping_->end();
  remapping_.reset();
}

void PieceUpdate::keep_cells() {
  forget_cells();
  begin_remapping();
  if (remapping_) remapping_->note_all(own_nodes());
}

void PieceUpdate::take_cells(PieceUpdate& from) {
  if (!from.remapping_ || !from.remapping_->has_all()) return;
  remapping_ = std::move(from.remapping_);
  remapping_->move_to(state_, own_nodes());
}

Bounds PieceUpdate::begin_remap() {
  asked_.clear();
  if (!remapping_) return {};
  remapping_->compare([this](const Point& p) {
    return p.x >= west_ && p.x < east_ && p.y >= south_ && p.y < north_;
  });
  return remapping_->bounds_before();
}

std::vector<double> PieceUpdate::cells_over(const Bounds& there) {
  std::vector<double> question;
  std::vector<std::size_t>& asked = asked_.emplace_back();
  if (!remapping_) return question;
  const std::span<Cell* const> changed = remapping_->changed();
  for (std::size_t i = 0; i < changed.size(); ++i) {
    const PlacedCell cell = remapping_->cell_of(*changed[i]);
    if (!cell.bounds().meets(there)) continue;
    asked.push_back(i);
    write(cell, question);
  }
  return question;
}

std::vector<double> PieceUpdate::parts_under(std::span<const double> cells) const {
  std::vector<double> answer;
  std::vector<CellPart> parts;
  for (MessageNumbers asked(cells); !asked.empty();) {
    const PlacedCell cell = read_cell(asked);
    parts.clear();
    if (remapping_) remapping_->find_parts(cell, parts);
    answer.push_back(static_cast<double>(parts.size()));
    for (const CellPart& part : parts) {
      answer.insert(answer.end(), {part.at.x, part.at.y, part.area});
      answer.insert(answer.end(), part.values, part.values + state_.n_cell_data);
    }
  }
  return answer;
}

void PieceUpdate::end_remap(std::span<const std::vector<double>> told) {
  if (!remapping_) return;
  const std::span<Cell* const> changed = remapping_->changed();
  std::vector<std::vector<CellPart>> of_others(changed.size());
  for (std::size_t i = 0; i < asked_.size(); ++i) {
    MessageNumbers numbers(told[i]);
    for (const std::size_t number : asked_[i]) {
      for (std::size_t n = numbers.next_count(); n > 0; --n) {
        const std::span<const double> part = numbers.next(3);
        of_others[number].push_back(
            {{part[0], part[1]}, part[2], numbers.next(remapping_->nb_values()).data()});
      }
    }
  }
  for (std::size_t i = 0; i < changed.size(); ++i) {
    remapping_->find_parts(remapping_->cell_of(*changed[i]), of_others[i]);
    remapping_->write_mean(of_others[i], *changed[i]);
  }
  forget_cells();
}

}  // namespace velmar_2d::detail
