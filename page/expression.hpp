// Expressions of x and y, as the program velmar_2d reads them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmar_2d::page {

/// A step of a small machine with a stack of numbers.
struct Step {
  enum class Kind : std::uint8_t {
    number,
    x,
    y,
    add,
    subtract,
    multiply,
    divide,
    power,
    negate,
    less,
    less_equal,
    greater,
    greater_equal,
    equal,
    not_equal,
    both,
    either,
    choose,  ///< of three numbers: if the first is not 0 the second, else the third
    one_argument,
    two_arguments,
  };
  Kind kind = Kind::number;
  double value = 0.0;
  double (*of_one)(double) = nullptr;
  double (*of_two)(double, double) = nullptr;
};

/// An expression that can be evaluated.
struct Expression {
  std::vector<Step> steps;
  std::size_t depth = 0;  ///< numbers that the stack holds at most
};

/// Reads numbers, x, y, pi, + - * / ^, comparisons, && ||, ? :, brackets and functions.
/// @return nothing on success; otherwise one line with the place
std::string read_expression(std::string_view text, Expression& expression);

/// @param stack  room for `depth` numbers
double evaluate(const Expression& expression, double x, double y, std::vector<double>& stack);

}  // namespace velmar_2d::page
