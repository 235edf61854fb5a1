// Completing the rings around a node.
#include <new>
#include <string>

#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

namespace {

bool is_outside(const Cell& p, int straight_direction) {
  return link(p, straight_direction).boundary() != nullptr;
}
bool is_straight(int direction) { return direction % 2 == 0; }

/// A position can lie beyond a hand's breadth of the domain only where p lies on a side.
bool points_outside(const Cell& p, int direction) {
  if (is_straight(direction)) return is_outside(p, direction);
  return is_outside(p, direction - 1) || is_outside(p, direction + 1);
}

}  // namespace

void too_many_nodes(const State& state, std::int64_t most_nodes) {
  fatal(state.handlers, "(velmar_2D/resolve_mesh:) ERROR: more than " + std::to_string(most_nodes) +
                            " nodes would be needed\n"
                            "        ('most_nodes' of the resolution forbids that)");
}

// Needs: the ring below is complete, and level > p.ipos.
//
// Where a link to a member was cut, members of the next ring lie on both hands of it, or on the one
// hand that the domain has.
bool RingMaker::is_missing(const Cell& p, int direction, std::int32_t level) {
  if (!link(p, direction).empty()) return false;
  if (p.on_boundary != 0 && points_outside(p, direction)) return false;
  for (const int hand : {direction - 1, direction + 1}) {
    const Cell* beside = link(p, hand).cell();
    if (beside != nullptr && beside->ipos <= level) return true;
  }
  return false;
}

void RingMaker::raise(Cell& p, std::int32_t level) {
  while (p.level < level) {
    const std::int32_t next = p.level + 1;
    for (int d = next % 2; d < nb_directions; d += 2) {
      if (is_missing(p, d, next) && !make(p, d, next)) return;
    }
    if (p.level != next) return;  // the sides of the mesh have no records, or links were broken
  }
}

/// False where the nodes around do not make a figure, which does not happen in a mesh in order.
bool RingMaker::make(Cell& p, int direction, std::int32_t level) {
  deferred_[0] = {&p, direction, level};
  nb_deferred_ = 1;
  while (nb_deferred_ > 0) {
    if (make_or_defer(Member(deferred_[nb_deferred_ - 1]))) continue;
    has_failed_ = true;
    return false;
  }
  return true;
}

// Only at the first ring beyond the parents can a far corner be missing. Then one of the two next
// to it is a parent of the ring below, and the far corner a member of the first ring around that
// one: the same task, a level lower.
bool RingMaker::make_or_defer(const Member& member) {
  Cell& p = *member.of;
  const int d = member.direction;
  Cell* left = link(p, d - 1).cell();
  Cell* right = link(p, d + 1).cell();
  Cell* far = nullptr;
  if (is_straight(d) && (left == nullptr || right == nullptr)) {  // p and the member lie on a side
    Cell* apex = left != nullptr ? left : right;
    if (apex == nullptr) return false;
    far = link(*apex, left != nullptr ? d + 1 : d - 1).cell();
    if (far == nullptr) return false;
  } else if (left == nullptr || right == nullptr) {
    return false;
  } else if (!is_straight(d) || !is_outside(*left, d)) {  // beyond a side there is no far corner
    const bool from_left = left->ipos >= right->ipos;
    Cell& beside = from_left ? *left : *right;
    const int to_far = from_left ? d + 1 : d - 1;
    far = link(beside, to_far).cell();
    if (far == nullptr) {
      if (member.level <= 1) return false;
      deferred_[nb_deferred_++] = {&beside, to_far, member.level - 1};
      return true;
    }
  }
  --nb_deferred_;
  insert(member, left, far, right);
  return true;
}

void RingMaker::insert(const Member& member, Cell* left, Cell* far, Cell* right) {
  std::array<Cell*, nb_directions> around{};
  const int d = member.direction;
  around[static_cast<std::size_t>((d + 4) & 7)] = member.of;
  around[static_cast<std::size_t>((d + 6) & 7)] = left;
  around[static_cast<std::size_t>(d & 7)] = far;
  around[static_cast<std::size_t>((d + 2) & 7)] = right;
  make_between(around, member.level);
}

// The parents have their own order, whichever of them the node was found from.
void RingMaker::make_between(const std::array<Cell*, nb_directions>& around, std::int32_t ipos) {
  if (most_nodes_ > 0 && state_.nb_nodes >= most_nodes_) too_many_nodes(state_, most_nodes_);
  state_.progress.step();
  Site site{};
  site.level = site.ipos = ipos;
  std::size_t n = 0;
  const auto first = static_cast<std::size_t>(ipos % 2);
  for (int direction = ipos % 2; direction < nb_directions; direction += 2) {
    Cell* parent = around[static_cast<std::size_t>(direction)];
    if (parent == nullptr) continue;
    site.parents[n] = parent;
    site.directions[n++] = direction;
  }
  const bool has_pair = around[first] != nullptr && around[first + 4] != nullptr;
  const Cell& a = *around[has_pair ? first : first + 2];
  const Cell& b = *around[has_pair ? first + 4 : first + 6];
  site.x = (a.x + b.x) / 2.0;
  site.y = (a.y + b.y) / 2.0;

  try {
    newcomers_.push_back(nullptr);
  } catch (const std::bad_alloc&) {
    allocation_failed(state_, 2 * newcomers_.size() * sizeof(void*));
  }
  try {
    if (ipos % 2 == 0) {
      insert_midpoint(state_, site);
    } else {
      insert_centre(state_, site);
    }
  } catch (...) {
    newcomers_.pop_back();
    throw;
  }
  newcomers_.back() = state_.level_beg[static_cast<std::size_t>(site.ipos)].next;
}

}  // namespace velmar_2d::detail
