#include "problem.hpp"

#include <sys/resource.h>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>

namespace velmar_2d::solvers {

namespace {

[[noreturn]] void usage(const char* program) {
  std::fprintf(stderr,
               "usage: %s SIDE PARTS CELLS [step=X] [every=X] [reach=X] [sums=1] [patience=X] "
               "[picture=PATH]\n"
               "       the front is 1/PARTS (50, 200, 1000) wide, the finest cells 1/CELLS\n",
               program);
  std::exit(2);
}

/// Far ahead of the front values are too small for normal numbers, and slow for that.
void no_denormals() {
#if defined(__SSE2__)
  _mm_setcsr(_mm_getcsr() | 0x8040U);
#endif
}

double wall_seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Kilobytes.
long status(const std::string& name) {
  std::ifstream file("/proc/self/status");
  std::string word;
  long kilobytes = 0;
  while (file >> word) {
    if (word == name && file >> kilobytes) return kilobytes;
  }
  return 0;
}

const long resident_at_first = status("VmRSS:");

}  // namespace

Front front_of_parts(int parts) {
  Front front;
  front.parts = parts;
  front.height = parts <= 50 ? 0.25 : parts <= 200 ? 0.125 : 1.0 / 64.0;
  front.length = 0.25 / parts;
  const double slowness = 1.0 - 2.0 * front.a;  // speed = length k (1 - 2 a) / 2, and shall be 1
  front.k = 2.0 / (front.length * slowness);
  front.D = 0.5 * front.k * front.length * front.length;
  return front;
}

int Case::steps() const {
  return static_cast<int>(std::ceil(Front::duration / (step * finest()) - 1e-9));
}

int Case::steps_between() const {
  return std::max(1, static_cast<int>(std::lround(every * front.length / time_step())));
}

int Case::coarsest(int rows) const {
  const auto fits = [this, rows](int squares) {
    const double high = squares * front.height;
    return high >= rows && high == std::floor(high);
  };
  int squares = cells;
  while (squares % 2 == 0 && fits(squares / 2)) squares /= 2;
  return squares;
}

Case case_of_arguments(int argc, char** argv) {
  if (argc < 4) usage(argv[0]);
  no_denormals();
  Case run;
  run.side = argv[1];
  run.front = front_of_parts(std::atoi(argv[2]));
  run.cells = std::atoi(argv[3]);
  if (run.front.parts < 1 || run.cells < 64 || run.cells % 64 != 0) usage(argv[0]);
  for (int i = 4; i < argc; ++i) {
    const std::string text = argv[i];
    const auto value_of = [&text](const std::string& name) {
      return text.starts_with(name + "=") ? text.substr(name.size() + 1) : std::string();
    };
    if (const auto step = value_of("step"); !step.empty()) {
      run.step = std::atof(step.c_str());
    } else if (const auto every = value_of("every"); !every.empty()) {
      run.every = std::atof(every.c_str());
    } else if (const auto reach = value_of("reach"); !reach.empty()) {
      run.reach = std::atof(reach.c_str());
    } else if (const auto sums = value_of("sums"); !sums.empty()) {
      run.sums = std::atoi(sums.c_str());
    } else if (const auto patience = value_of("patience"); !patience.empty()) {
      run.patience = std::atof(patience.c_str());
    } else if (const auto picture = value_of("picture"); !picture.empty()) {
      run.picture = picture;
    } else {
      usage(argv[0]);
    }
  }
  if (!(run.step > 0.0) || !(run.every > 0.0)) usage(argv[0]);
  return run;
}

double processor_seconds() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
  };
  return seconds(used.ru_utime) + seconds(used.ru_stime);
}

void print(const Case& run, const Outcome& outcome) {
  std::printf("%s,%d,%d,%g,%g,%d,%lld,%.4f,%.4f,%.4f,%.3f,%.1f,%.4e,%.4e\n", run.side.c_str(),
              run.front.parts, run.cells, run.step, run.every, run.steps(),
              static_cast<long long>(outcome.cells), outcome.seconds, outcome.processor_seconds,
              outcome.adapting, outcome.share,
              static_cast<double>(status("VmHWM:") - resident_at_first) / 1024.0,
              outcome.errors.largest, std::sqrt(outcome.errors.squares));
}

Picture::Picture(const Case& run)
    : low_((Front::start + Front::duration) / Front::n_x - 1.25 * run.front.height),
      high_(low_ + 2.0 * run.front.height),
      file_(std::fopen(run.picture.c_str(), "w")) {
  if (file_ == nullptr) {
    std::perror(run.picture.c_str());
    std::exit(EXIT_FAILURE);
  }
  std::fprintf(file_, "%.7g %.7g\n", low_, high_);
}
Picture::~Picture() { std::fclose(file_); }

void Picture::add(double value, std::span<const std::array<double, 2>> corners) {
  const auto outside = [this](const auto& corner) { return corner[0] < low_ || corner[0] > high_; };
  if (std::all_of(corners.begin(), corners.end(), outside)) return;
  std::fprintf(file_, "%.4f", value);
  for (const auto& [x, y] : corners) std::fprintf(file_, " %.7g %.7g", x, y);
  std::fputc('\n', file_);
}

void Picture::add_square(double value, double x, double y, double side) {
  const double half = 0.5 * side;
  add(value, std::array<std::array<double, 2>, 4>{{{x - half, y - half},
                                                   {x + half, y - half},
                                                   {x + half, y + half},
                                                   {x - half, y + half}}});
}

Clock::Clock() : wall_(wall_seconds()), processor_(solvers::processor_seconds()) {}
double Clock::seconds() const { return wall_seconds() - wall_; }
double Clock::processor_seconds() const { return solvers::processor_seconds() - processor_; }

}  // namespace velmar_2d::solvers
