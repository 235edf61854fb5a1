// The candidates in the order of unique_in_list() and unique_in_lists(), without their repeated
// selections.
//
// That order comes from a selection by the smallest distance in which the rows behind the selected
// one move up, but their distances stay where they are. The smallest distance then selects all the
// rows behind it in turn; after them the smallest distance in front of it does the same, and so on.
// So each distance that is smaller than all before it opens a block of rows that reaches to the
// next such distance, and the blocks follow one another from the last to the first:
//
//     distances   5  7  4  6  2  9  3
//     blocks      A  A  B  B  C  C  C     order C C C B B A A, all rows of a block with its
//     distance
#include <algorithm>

#include "velmar_2D/derivatives/derivatives.hpp"

namespace velmar_2d::detail {

namespace {

void take_rows(Workspace& work, Candidates& list, int& n_list, std::span<const int> rows) {
  Candidates& sorted = work.sorted;
  n_list = 0;
  for (const int row : rows) copy_row(sorted, n_list++, list, row);
  for (int row = 0; row < n_list; ++row) copy_row(list, row, sorted, row);
}

/// unique_in_list() by an insertion sort.
void sort_by_place(Workspace& work, Candidates& list, int& n_list) {
  std::array<int, Candidates::capacity> rows;
  int n_unique = 0;
  for (int row = 0; row < n_list; ++row) {
    int* place = rows.data() + n_unique;
    while (place != rows.data() && comes_first(CandidateOrder::by_place, list, row, place[-1])) {
      --place;
    }
    if (place != rows.data() && !comes_first(CandidateOrder::by_place, list, place[-1], row)) {
      continue;
    }
    std::move_backward(place, rows.data() + n_unique, rows.data() + n_unique + 1);
    *place = row;
    ++n_unique;
  }
  take_rows(work, list, n_list, std::span(rows).first(static_cast<std::size_t>(n_unique)));
}

void sort_by_id(Workspace& work, Candidates& list, int& n_list) {
  // Insertion sort of the row numbers; an id that is there already is dropped, so that its first
  // row stays.
  std::array<std::int64_t, Candidates::capacity> ids;
  std::array<int, Candidates::capacity> rows;
  int n_unique = 0;
  for (int row = 0; row < n_list; ++row) {
    const std::int64_t id = id_of(list.id[row]);
    int place = n_unique;
    while (place > 0 && ids[static_cast<std::size_t>(place - 1)] > id) --place;
    if (place > 0 && ids[static_cast<std::size_t>(place - 1)] == id) continue;
    std::move_backward(ids.begin() + place, ids.begin() + n_unique, ids.begin() + n_unique + 1);
    std::move_backward(rows.begin() + place, rows.begin() + n_unique, rows.begin() + n_unique + 1);
    ids[static_cast<std::size_t>(place)] = id;
    rows[static_cast<std::size_t>(place)] = row;
    ++n_unique;
  }
  take_rows(work, list, n_list, std::span(rows).first(static_cast<std::size_t>(n_unique)));
}

/// unique_in_lists() by blocks.
void order_by_blocks(Workspace& work, const Stencil& list, int n_list, Candidates& candidates,
                     int& n_candidates) {
  Candidates& kept = work.sorted;
  int n_kept = 0;
  keep_unknown(list, n_list, candidates, n_candidates, kept, n_kept);

  std::array<int, Candidates::capacity> blocks;
  int n_blocks = 0;
  for (int row = 0; row < n_kept; ++row) {
    if (n_blocks == 0 ||
        kept.distance2[row] < kept.distance2[blocks[static_cast<std::size_t>(n_blocks - 1)]]) {
      blocks[static_cast<std::size_t>(n_blocks++)] = row;
    }
  }

  n_candidates = 0;
  int end = n_kept;
  for (int block = n_blocks - 1; block >= 0; --block) {
    const int first = blocks[static_cast<std::size_t>(block)];
    for (int row = first; row < end; ++row) {
      copy_row(candidates, n_candidates, kept, row);
      candidates.distance2[n_candidates] = kept.distance2[first];
      ++n_candidates;
    }
    end = first;
  }
}

}  // namespace

void order_candidates(Workspace& work, const Stencil& list, int n_list, Candidates& candidates,
                      int& n_candidates) {
  if (work.order == CandidateOrder::by_place) {
    sort_by_place(work, candidates, n_candidates);
  } else {
    sort_by_id(work, candidates, n_candidates);
  }
  order_by_blocks(work, list, n_list, candidates, n_candidates);
}

}  // namespace velmar_2d::detail
