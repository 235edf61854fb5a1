// Read before every file where the compiler's standard library has not all of C++20 yet, as that of
// emscripten 3.1.
#pragma once

#include <bit>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__EMSCRIPTEN__) && !defined(__cpp_lib_bit_cast)
namespace std {  // NOLINT(cert-dcl58-cpp)

template <typename To, typename From>
constexpr To bit_cast(const From& from) noexcept {
  return __builtin_bit_cast(To, from);
}

/// The shortest text that reads as the same number.
inline to_chars_result to_chars(char* first, char* last, double value) {
  char text[32];
  int n = 0;
  for (int digits = 1; digits <= 17; ++digits) {
    n = snprintf(text, sizeof text, "%.*g", digits, value);
    if (strtod(text, nullptr) == value) break;
  }
  if (n > last - first) return {last, errc::value_too_large};
  memcpy(first, text, static_cast<size_t>(n));
  return {first + n, errc{}};
}

}  // namespace std
#endif
