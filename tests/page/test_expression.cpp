// The page reads expressions itself, and as the program does, which leaves it to muParser: here
// both read the same ones.
#include <gtest/gtest.h>
#include <muParser.h>

#include <array>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "page/expression.hpp"
#include "scenarios/scenarios.hpp"

namespace {

using velmar_2d::page::Expression;
using velmar_2d::scenarios::Random;

double x = 0.0, y = 0.0;

mu::Parser parser_of_the_program() {
  mu::Parser parser;
  parser.DefineVar("x", &x);
  parser.DefineVar("y", &y);
  parser.DefineConst("pi", std::numbers::pi);
  parser.DefineFun("hypot", [](double a, double b) { return std::hypot(a, b); });
  return parser;
}

template <std::size_t n>
std::string one_of(Random& random, const std::array<const char*, n>& all) {
  return all[static_cast<std::size_t>(random.between(0, static_cast<int>(n) - 1))];
}

/// Without spaces between a sign and what it belongs to, and seldom with more brackets than needed.
std::string expression(Random& random, int depth) {
  const auto part = [&] { return expression(random, depth - 1); };
  if (depth == 0) return one_of<6>(random, {"x", "y", "0.5", "2", "pi", "1.25e-1"});
  switch (random.between(0, 7)) {
    case 0: return "(" + part() + ")";
    case 1:
      return one_of<17>(random,
                        {"sin", "cos", "tan", "asin", "acos", "atan", "sinh", "cosh", "tanh",
                         "log2", "log10", "ln", "exp", "sqrt", "sign", "rint", "abs"}) +
             "(" + part() + ")";
    case 2:
      return one_of<6>(random, {"atan2", "hypot", "min", "max", "sum", "avg"}) + "(" + part() +
             " , " + part() + ")";
    case 3: {
      const std::string text = part();
      return text[0] == '-' ? "(" + text + ")" : "-" + text;
    }
    case 4: return "(" + part() + " ? " + part() + " : " + part() + ")";
    case 5: {  // of truths only: muParser takes 0.5 for false where it is a constant
      const auto truth = [&] {
        return "(" + part() + ")" + one_of<4>(random, {"<", ">", "<=", "!="}) + "(" + part() + ")";
      };
      const auto sign = [&] { return one_of<2>(random, {"&&", "||"}); };
      return truth() + sign() + truth() + sign() + truth();
    }
    default:
      return part() +
             one_of<11>(random, {"+", "-", "*", "/", "^", "<", "<=", ">", ">=", "==", "!="}) +
             part();
  }
}

TEST(PageExpression, MeansWhatItMeansToTheProgram) {
  Random random{20};
  mu::Parser parser = parser_of_the_program();
  std::vector<double> stack;
  int nb_numbers = 0;
  for (int i = 0; i < 4000; ++i) {
    const std::string text = expression(random, random.between(1, 4));
    SCOPED_TRACE(text);
    Expression read;
    ASSERT_EQ(velmar_2d::page::read_expression(text, read), "");
    x = random.uniform();
    y = random.uniform() - 0.5;
    parser.SetExpr(text);
    const double want = parser.Eval(), got = evaluate(read, x, y, stack);
    // Powers may be multiplied out.
    if (std::isfinite(want)) {
      ++nb_numbers;
      ASSERT_NEAR(got, want, 1e-9 * std::max(1.0, std::abs(want)));
    } else {
      ASSERT_EQ(std::isnan(got), std::isnan(want));
    }
  }
  EXPECT_GT(nb_numbers, 2000);
}

TEST(PageExpression, RefusesWhatTheProgramRefuses) {
  mu::Parser parser = parser_of_the_program();
  for (const std::string text :
       {"",     " ",        "sin(",     "sin",   "x y",   "x+",    "*x", "(x",    "x)",  "z",
        "1..2", "sin(x,y)", "atan2(x)", "x ? y", "x @ y", "min()", ".",  "0.5.5", "--x", "2^-+x"}) {
    SCOPED_TRACE(text);
    Expression read;
    EXPECT_NE(velmar_2d::page::read_expression(text, read), "");
    EXPECT_THROW(parser.SetExpr(text); parser.Eval(), mu::Parser::exception_type);
  }
  Expression deep;
  EXPECT_NE(velmar_2d::page::read_expression(std::string(400, '('), deep), "");
}

}  // namespace
