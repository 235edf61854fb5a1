// The sides `ours` and `ours_implicit`, from the command line.
#include "follow.hpp"

int main(int argc, char** argv) {
  const velmar_2d::solvers::Case run = velmar_2d::solvers::case_of_arguments(argc, argv);
  print(run, run.side == "ours_implicit" ? follow_implicitly(run) : follow(run));
  return 0;
}
