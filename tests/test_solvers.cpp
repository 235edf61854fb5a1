// A front whose wave is known, followed for a third of its way through all that a solver needs of
// the library: adaptation by data, transfer, arrays, fluxes, steps.
#include <gtest/gtest.h>

#include "benchmarks/solvers/follow.hpp"

namespace {

using namespace velmar_2d::solvers;

Case case_of(int cells, double step) {
  Case run;
  run.front = front_of_parts(50);
  run.cells = cells;
  run.step = step;
  run.every = 2.5;
  run.reach = 6.5;
  return run;
}

// On the spacings of uniform grids of nine times as many nodes, whose largest errors are 0.0087 and
// 0.0010.
TEST(Solvers, AFrontIsFollowedAsExactlyAsOnAUniformGrid) {
  const Outcome coarse = follow(case_of(256, 0.7)), fine = follow(case_of(384, 0.7));
  EXPECT_LT(coarse.cells, 257 * 65 / 7);
  EXPECT_LT(fine.cells, 385 * 97 / 8);
  EXPECT_LT(coarse.errors.largest, 0.01);
  EXPECT_LT(fine.errors.largest, 0.0015);
}

TEST(Solvers, TheImplicitMethodIsOfSecondOrder) {
  const Outcome coarse = follow_implicitly(case_of(256, 1.0));
  const Outcome fine = follow_implicitly(case_of(384, 1.0));
  EXPECT_LT(fine.errors.squares, coarse.errors.squares / std::pow(1.5, 2.0 * 1.8));
  EXPECT_LT(fine.errors.largest, 0.08);
}

}  // namespace
