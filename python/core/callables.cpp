// Between arrays of numbers and what Python callables take and return.
#include <algorithm>

#include "python/core/core.hpp"

namespace velmar_2d::python {

namespace {

std::string shape_of(const py::array& array) { return py::str(array.attr("shape")); }

[[noreturn]] void wrong_shape(const py::array& array, std::string_view callable, std::size_t n) {
  throw py::value_error(std::string(callable) + " returned an array of shape " + shape_of(array) +
                        " for " + std::to_string(n) + " places; it must return shape (" +
                        std::to_string(n) + ",) or one number");
}

/// The result as an array of a kind that can hold numbers.
py::array numbers_of(const py::object& result, std::string_view callable,
                     std::string_view kinds_of_numbers) {
  const py::array array = py::array::ensure(result);
  if (!array || kinds_of_numbers.find(array.dtype().kind()) == kinds_of_numbers.npos) {
    PyErr_Clear();
    const std::string type = py::str(py::type::of(result).attr("__name__"));
    throw py::type_error(
        std::string(callable) + " returned " +
        (array ? "an array of dtype " + std::string(py::str(array.dtype())) : type) +
        ", which are no numbers of the kind that it must return");
  }
  return array;
}

}  // namespace

py::array_t<double> to_array(std::span<const double> values) {
  py::array_t<double> array(static_cast<py::ssize_t>(values.size()));
  std::copy(values.begin(), values.end(), array.mutable_data());
  return array;
}

void copy_values(const py::object& result, std::string_view callable, std::span<double> values) {
  const Doubles array = Doubles::ensure(numbers_of(result, callable, "fiub"));
  if (!array) throw py::error_already_set();
  if (array.ndim() == 0) {
    std::fill(values.begin(), values.end(), *array.data());
  } else if (array.ndim() == 1 && static_cast<std::size_t>(array.size()) == values.size()) {
    std::copy_n(array.data(), values.size(), values.begin());
  } else {
    wrong_shape(array, callable, values.size());
  }
}

void copy_kinds(const py::object& result, std::string_view callable, std::span<double> kinds) {
  copy_values(numbers_of(result, callable, "iu"), callable, kinds);
  for (const double kind : kinds) {
    if (kind >= 0.0 && kind <= 2.0) continue;
    throw py::value_error(std::string(callable) + " returned the kind " +
                          std::to_string(static_cast<long long>(kind)) +
                          "; it must be DIRICHLET (0), NEUMANN (1) or OTHER (2)");
  }
}

}  // namespace velmar_2d::python
