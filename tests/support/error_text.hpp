// What an operation is refused with.
#pragma once

#include <functional>
#include <string>

#include "velmar_2D/records.hpp"

namespace velmar_2d::tests {

/// The text of the Error that it throws, empty where it throws none.
inline std::string text_of_error(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const Error& error) {
    return error.what();
  }
  return "";
}

}  // namespace velmar_2d::tests
