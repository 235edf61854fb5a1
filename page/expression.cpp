#include "page/expression.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <numbers>
#include <utility>

namespace velmar_2d::page {
namespace {

using Kind = Step::Kind;

struct WrongAt {
  std::string reason;
  std::size_t place;
};

struct OneArgument {
  std::string_view name;
  double (*function)(double);
};
constexpr std::array<OneArgument, 21> one_argument = {
    {{"sin", [](double a) { return std::sin(a); }},
     {"cos", [](double a) { return std::cos(a); }},
     {"tan", [](double a) { return std::tan(a); }},
     {"asin", [](double a) { return std::asin(a); }},
     {"acos", [](double a) { return std::acos(a); }},
     {"atan", [](double a) { return std::atan(a); }},
     {"sinh", [](double a) { return std::sinh(a); }},
     {"cosh", [](double a) { return std::cosh(a); }},
     {"tanh", [](double a) { return std::tanh(a); }},
     {"asinh", [](double a) { return std::asinh(a); }},
     {"acosh", [](double a) { return std::acosh(a); }},
     {"atanh", [](double a) { return std::atanh(a); }},
     {"log2", [](double a) { return std::log2(a); }},
     {"log10", [](double a) { return std::log10(a); }},
     {"log", [](double a) { return std::log(a); }},
     {"ln", [](double a) { return std::log(a); }},
     {"exp", [](double a) { return std::exp(a); }},
     {"sqrt", [](double a) { return std::sqrt(a); }},
     {"sign", [](double a) { return a < 0.0   ? -1.0
                                    : a > 0.0 ? 1.0
                                              : 0.0; }},
     {"rint", [](double a) { return std::floor(a + 0.5); }},
     {"abs", [](double a) { return std::abs(a); }}}};

struct TwoArguments {
  std::string_view name;
  double (*function)(double, double);
};
constexpr std::array<TwoArguments, 2> two_arguments = {
    {{"atan2", [](double a, double b) { return std::atan2(a, b); }},
     {"hypot", [](double a, double b) { return std::hypot(a, b); }}}};

/// What takes any number of arguments does so two by two.
constexpr std::array<TwoArguments, 4> many_arguments = {
    {{"min", [](double a, double b) { return std::min(a, b); }},
     {"max", [](double a, double b) { return std::max(a, b); }},
     {"sum", [](double a, double b) { return a + b; }},
     {"avg", [](double a, double b) { return a + b; }}}};

struct Operator {
  std::string_view sign;
  int rank;
  Kind kind;
};
/// Longer signs first.
constexpr std::array<Operator, 12> operators = {{{"||", 1, Kind::either},
                                                 {"&&", 2, Kind::both},
                                                 {"<=", 4, Kind::less_equal},
                                                 {">=", 4, Kind::greater_equal},
                                                 {"!=", 4, Kind::not_equal},
                                                 {"==", 4, Kind::equal},
                                                 {"<", 4, Kind::less},
                                                 {">", 4, Kind::greater},
                                                 {"+", 5, Kind::add},
                                                 {"-", 5, Kind::subtract},
                                                 {"*", 6, Kind::multiply},
                                                 {"/", 6, Kind::divide}}};
constexpr int lowest_rank = 1, highest_rank = 6;

/// One procedure for each rank, from the loosest to the tightest:
///     choice: ranks ? choice : choice      sign: + sign | - sign | power
///     rank:   the next one, again and again    power: value ^ sign-or-power, from the right
class Reader {
 public:
  Reader(std::string_view text, Expression& expression) : text_(text), expression_(expression) {}

  void read() {
    choice();
    if (skip_blanks(); place_ < text_.size()) {
      throw WrongAt{"unexpected \"" + std::string(text_.substr(place_, 1)) + "\"", place_};
    }
  }

 private:
  void choice() {
    const Nesting nesting(*this);
    ranked(lowest_rank);
    if (!take("?")) return;
    choice();
    need(":");
    choice();
    push({.kind = Kind::choose}, 3);
  }

  void ranked(int rank) {
    if (rank > highest_rank) return sign();
    ranked(rank + 1);
    while (const Operator* found = operator_of(rank)) {
      place_ += found->sign.size();
      ranked(rank + 1);
      push({.kind = found->kind}, 2);
    }
  }

  const Operator* operator_of(int rank) {
    skip_blanks();
    for (const Operator& candidate : operators) {
      if (text_.substr(place_).starts_with(candidate.sign)) {
        return candidate.rank == rank ? &candidate : nullptr;
      }
    }
    return nullptr;
  }

  void sign(bool after_sign = false) {
    const Nesting nesting(*this);
    skip_blanks();
    const std::size_t begin = place_;
    const bool negative = take("-");
    if (negative || take("+")) {
      if (after_sign) throw WrongAt{"one sign after another", begin};
      sign(true);
      if (negative) push({.kind = Kind::negate}, 1);
      return;
    }
    value();
    if (!take("^")) return;
    sign();  // from the right: the exponent may be a power, and may have a sign
    push({.kind = Kind::power}, 2);
  }

  void value() {
    skip_blanks();
    if (place_ == text_.size()) throw WrongAt{"something is missing at the end", place_};
    if (take("(")) {
      choice();
      return need(")");
    }
    const char c = text_[place_];
    if (is_digit(c) || c == '.') return number();
    if (std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_') return name();
    throw WrongAt{"unexpected \"" + std::string(1, c) + "\"", place_};
  }

  void number() {
    std::size_t end = place_;
    const auto digits = [&] {
      const std::size_t begin = end;
      while (end < text_.size() && is_digit(text_[end])) ++end;
      return end > begin;
    };
    bool any = digits();
    if (end < text_.size() && text_[end] == '.') {
      ++end;
      any = digits() || any;
    }
    if (!any) throw WrongAt{"a point without digits", place_};
    if (end < text_.size() && (text_[end] == 'e' || text_[end] == 'E')) {
      const std::size_t before = end++;
      if (end < text_.size() && (text_[end] == '+' || text_[end] == '-')) ++end;
      if (!digits()) end = before;
    }
    const std::string written(text_.substr(place_, end - place_));
    place_ = end;
    push({.kind = Kind::number, .value = std::strtod(written.c_str(), nullptr)}, 0);
  }

  void name() {
    const std::size_t begin = place_;
    while (place_ < text_.size() &&
           (std::isalnum(static_cast<unsigned char>(text_[place_])) != 0 || text_[place_] == '_')) {
      ++place_;
    }
    const std::string_view word = text_.substr(begin, place_ - begin);
    if (word == "x") return push({.kind = Kind::x}, 0);
    if (word == "y") return push({.kind = Kind::y}, 0);
    if (word == "pi" || word == "_pi")
      return push({.kind = Kind::number, .value = std::numbers::pi}, 0);
    if (word == "_e") return push({.kind = Kind::number, .value = std::numbers::e}, 0);
    for (const OneArgument& known : one_argument) {
      if (known.name != word) continue;
      arguments(word, begin, 1, 1, nullptr);
      return push({.kind = Kind::one_argument, .of_one = known.function}, 1);
    }
    for (const TwoArguments& known : two_arguments) {
      if (known.name != word) continue;
      arguments(word, begin, 2, 2, nullptr);
      return push({.kind = Kind::two_arguments, .of_two = known.function}, 2);
    }
    for (const TwoArguments& known : many_arguments) {
      if (known.name != word) continue;
      const int count = arguments(word, begin, 1, std::numeric_limits<int>::max(), known.function);
      if (word != "avg") return;
      push({.kind = Kind::number, .value = static_cast<double>(count)}, 0);
      return push({.kind = Kind::divide}, 2);
    }
    throw WrongAt{"\"" + std::string(word) + "\" is not known", begin};
  }

  int arguments(std::string_view word, std::size_t begin, int fewest, int most,
                double (*of_two)(double, double)) {
    need("(");
    int count = 0;
    do {
      choice();
      ++count;
      if (count > 1 && of_two != nullptr) {
        push({.kind = Kind::two_arguments, .of_two = of_two}, 2);
      }
    } while (take(","));
    need(")");
    if (count < fewest || count > most) {
      throw WrongAt{std::string(word) + " takes " + std::to_string(fewest) +
                        (fewest == 1 ? " number" : " numbers"),
                    begin};
    }
    return count;
  }

  static bool is_digit(char c) { return c >= '0' && c <= '9'; }
  void skip_blanks() {
    while (place_ < text_.size() && (text_[place_] == ' ' || text_[place_] == '\t')) ++place_;
  }
  bool take(std::string_view sign) {
    skip_blanks();
    if (!text_.substr(place_).starts_with(sign)) return false;
    place_ += sign.size();
    return true;
  }
  void need(std::string_view sign) {
    if (take(sign)) return;
    if (place_ == text_.size()) throw WrongAt{"\"" + std::string(sign) + "\" is missing", place_};
    throw WrongAt{"\"" + std::string(sign) + "\" is missing before \"" +
                      std::string(text_.substr(place_, 1)) + "\"",
                  place_};
  }

  /// @param taken  numbers that the step takes off the stack
  void push(const Step& step, std::size_t taken) {
    expression_.steps.push_back(step);
    height_ += 1;
    height_ -= taken;
    expression_.depth = std::max(expression_.depth, height_);
  }

  /// Keeps the depth of calls within bounds.
  struct Nesting {
    explicit Nesting(Reader& owner) : reader(owner) {
      constexpr int deepest = 100;
      if (++reader.nesting_ > deepest) throw WrongAt{"too deeply nested", reader.place_};
    }
    ~Nesting() { --reader.nesting_; }
    Nesting(const Nesting&) = delete;
    Nesting& operator=(const Nesting&) = delete;
    Reader& reader;
  };

  std::string_view text_;
  Expression& expression_;
  std::size_t place_ = 0, height_ = 0;
  int nesting_ = 0;
};

double of_two_numbers(const Step& step, double a, double b) {
  switch (step.kind) {
    case Kind::add: return a + b;
    case Kind::subtract: return a - b;
    case Kind::multiply: return a * b;
    case Kind::divide: return a / b;
    case Kind::power: return b == 2.0 ? a * a : std::pow(a, b);
    case Kind::less: return a < b ? 1.0 : 0.0;
    case Kind::less_equal: return a <= b ? 1.0 : 0.0;
    case Kind::greater: return a > b ? 1.0 : 0.0;
    case Kind::greater_equal: return a >= b ? 1.0 : 0.0;
    case Kind::equal: return a == b ? 1.0 : 0.0;
    case Kind::not_equal: return a != b ? 1.0 : 0.0;
    case Kind::both: return a != 0.0 && b != 0.0 ? 1.0 : 0.0;
    case Kind::either: return a != 0.0 || b != 0.0 ? 1.0 : 0.0;
    default: return step.of_two(a, b);
  }
}

}  // namespace

std::string read_expression(std::string_view text, Expression& expression) {
  Expression read;
  try {
    Reader(text, read).read();
  } catch (const WrongAt& fault) {
    return fault.reason + ", at character " + std::to_string(fault.place + 1);
  }
  expression = std::move(read);
  return {};
}

double evaluate(const Expression& expression, double x, double y, std::vector<double>& stack) {
  stack.resize(expression.depth);
  double* top = stack.data();  // one beyond
  for (const Step& step : expression.steps) {
    switch (step.kind) {
      case Kind::number: *top++ = step.value; break;
      case Kind::x: *top++ = x; break;
      case Kind::y: *top++ = y; break;
      case Kind::negate: top[-1] = -top[-1]; break;
      case Kind::one_argument: top[-1] = step.of_one(top[-1]); break;
      case Kind::choose:
        top -= 2;
        top[-1] = top[-1] != 0.0 ? top[0] : top[1];
        break;
      default: --top; top[-1] = of_two_numbers(step, top[-1], top[0]);
    }
  }
  return stack.front();
}

}  // namespace velmar_2d::page
