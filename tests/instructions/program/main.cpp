// Fixed amounts of work whose instructions are counted: `instructions CASE`, or `instructions
// compiler`. Only what measured_work() does is counted.
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <string>

#include "scenarios/scenarios.hpp"

namespace {

using namespace velmar_2d;

constexpr std::int32_t nodes_along = 33, limit = 7;
constexpr double coarsest = 1.0 / (nodes_along - 1), finest = 0.004;

std::function<void()> work;

size_function size_at(double time) {
  return scenarios::ring_spacing(scenarios::travelling_ring(time), 0.1, finest, coarsest);
}

void start(std::int32_t values) {
  n_cell_data = values;
  scenarios::init_unit_square(nodes_along, nodes_along, limit);
  update_mesh_no_init(size_at(0.0));
  for (Cell* c = mesh_beg; values > 0 && c != nullptr; c = c->next) {
    c->data[0] = std::tanh(20.0 * scenarios::travelling_ring(0.0).distance(c->x, c->y));
  }
}

/// A mesh from nothing, without data.
void ring() {
  work = [] {
    start(0);
    update_mesh_no_init(size_at(0.0));
  };
}

/// Steps of a front, with a value per node and its derivatives.
void front() {
  start(1);
  work = [] {
    for (int step = 1; step <= 3; ++step) update_mesh_no_init(size_at(step / 50.0));
  };
}

/// The same steps, resolved.
void resolve() {
  start(1);
  resolve_mesh_no_init(size_at(0.0));
  work = [] {
    for (int step = 1; step <= 3; ++step) resolve_mesh_no_init(size_at(step / 50.0));
  };
}

void derivatives() {
  start(1);
  work = [] {
    for (Cell* c = mesh_beg; c != nullptr; c = c->next) compute_data_at_node(c);
  };
}

}  // namespace

/// The counting begins and ends with this procedure, which is found by its name.
extern "C" [[gnu::noipa]] void measured_work() { work(); }

int main(int argc, char** argv) {
  const std::string name = argc == 2 ? argv[1] : "";
  if (name == "compiler") {
    std::puts("g++ " __VERSION__);
    return 0;
  }
  const std::map<std::string, void (*)()> cases = {
      {"ring", ring}, {"front", front}, {"resolve", resolve}, {"derivatives", derivatives}};
  if (!cases.contains(name)) return 2;
  cases.at(name)();
  measured_work();
  delete_mesh();
  return 0;
}
