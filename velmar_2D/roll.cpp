// The nodes of each stretch, called up and kept from one update to the next.
#include "velmar_2D/roll.hpp"

#include <new>

namespace velmar_2d::detail {

Roll roll;

void Roll::open() {
  const bool is_known = revision_ == mesh_revision;
  revision_ = 0;
  is_open_ = has_room_ = true;
  try {
    stretches_.resize(level_beg.size());
  } catch (const std::bad_alloc&) {
    allocation_failed(level_beg.size() * sizeof(std::vector<const Cell*>));
  }
  if (is_known) return;
  Scout scout = Scout::backwards().in_haste();
  for (std::size_t stretch = level_end.size(); stretch-- > 0;) {
    stretches_[stretch].clear();
    call_up(stretch, level_end[stretch].next, scout);
  }
}

void Roll::enter(const Cell& c) {
  if (!has_room_) return;
  try {
    stretches_[static_cast<std::size_t>(c.ipos)].push_back(&c);
  } catch (const std::bad_alloc&) {
    has_room_ = false;  // this one and those to come will be searched for
  }
}

std::span<const Cell*> Roll::of_stretch(std::size_t stretch) {
  const std::vector<const Cell*>& nodes = stretches_[stretch];
  Scout scout = Scout::backwards().in_haste();  // newcomers are not on the trail: it will guess
  call_up(stretch, nodes.empty() ? level_end[stretch].next : nodes.back()->prev, scout);
  return stretches_[stretch];
}

void Roll::call_up(std::size_t stretch, Cell* first, Scout& scout) {
  std::vector<const Cell*>& nodes = stretches_[stretch];
  scout.begin_stretch(first);
  try {
    for (const Cell* c = first; c != nullptr; c = scout.after(*c)) {
      scout.advance(false);
      nodes.push_back(c);
    }
  } catch (const std::bad_alloc&) {
    allocation_failed((nodes.size() + 1) * sizeof(void*));
  }
}

void Roll::close() {
  for (std::vector<const Cell*>& nodes : stretches_) std::erase(nodes, nullptr);
  revision_ = mesh_revision;
  is_open_ = false;
}

void Roll::forget() {
  std::vector<std::vector<const Cell*>>().swap(stretches_);
  revision_ = 0;
  is_open_ = false;
}

}  // namespace velmar_2d::detail
