// The memory that nodes live in. Never installed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velmar_2d::detail {

/// Memory for one node of a stretch, near that of the last one. Ends the process where there is
/// none.
void* take_slot(std::int32_t stretch);
/// Takes back the memory of a node that is no more.
void give_slot(void* slot);
/// Returns all memory to the system. Needs: every slot has been given back.
void return_slots();

}  // namespace velmar_2d::detail
