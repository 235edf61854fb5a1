// What compilers spell differently.
#pragma once

namespace velmar_2d::python {

/// Brings a cache line closer that will be read soon. Any address will do.
#if defined(__GNUC__)
[[gnu::always_inline]] inline void prefetch(const void* address) { __builtin_prefetch(address); }
#else
inline void prefetch(const void*) {}
#endif

}  // namespace velmar_2d::python
