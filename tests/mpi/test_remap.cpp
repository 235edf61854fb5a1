// Transfer::remap over several processes, held against one mesh of one process: run by mpirun with
// any number of processes. The exit status tells whether all is alike.
#include <cmath>

#include "compare.hpp"

using namespace velmar_2d;

namespace {

size_function front_at(double t, double finest) {
  return
      [=](double x, double y, auto...) { return finest + 0.3 * std::abs(x - 0.4 * y - 0.5 - t); };
}
/// And where data have a slope, that of new nodes among them.
size_function steep_front_at(double t, double finest) {
  return [=](double x, double y, auto data, double grad, double grad2) {
    return std::min(front_at(t, finest)(x, y, data, grad, grad2), 0.1 / (1.0 + 0.1 * grad));
  };
}
/// As steep as can be, so that plain updates leave nodes whose parents have gone.
size_function steep_at(double t) {
  return [=](double x, double y, auto...) {
    const double number = 43758.5453 * std::sin(12.9898 * x + 78.233 * y + t);
    return number - std::floor(number) < 0.3 && std::abs(x - 0.7) < 0.15 ? 0.01 : 0.08;
  };
}

void advance(Cell& c, int step) {
  c.data[0] = std::tanh(20.0 * (c.x - 0.4 * c.y - 0.5 - 0.05 * step));
  c.data[1] = c.data[1] + std::sin(40.0 * c.x) * c.y;
}

/// Of all own nodes of all processes: area times value, with sign and without.
std::array<double, 2> content_of(Partition& part) {
  std::array<double, 2> own{}, all{};
  for (Cell* c : part.owned()) {
    own[0] += part.mesh().area(*c) * c->data[1];
    own[1] += part.mesh().area(*c) * std::abs(c->data[1]);
  }
  MPI_Allreduce(own.data(), all.data(), 2, MPI_DOUBLE, MPI_SUM, part.communicator());
  return all;
}

constexpr std::int32_t high_limit = 8, low_limit = 3;
enum class Form { resolved, updated, limited };

class Run {
 public:
  explicit Run(std::int32_t overlap)
      : part_(MPI_COMM_WORLD, tested_whole, tested_grid(high_limit), {.overlap = overlap}),
        mesh_(tested_whole, tested_grid(high_limit)) {
    mesh_.set_transfer(Transfer::remap);
    part_.mesh().set_transfer(Transfer::remap);
  }

  /// @param size  where the form asks for one
  void adapt(Form form, const size_function& size = {}, const Resolution& resolution = {}) {
    for (Cell& c : mesh_.nodes()) advance(c, step_);
    for (Cell* c : part_.owned()) advance(*c, step_);
    part_.exchange();
    const std::array<double, 2> before = content_of(part_);
    const auto init_data = [](double x, double y) { return x - y; };
    const bool has_init = step_ % 3 == 2;
    if (form == Form::resolved) {
      has_init ? mesh_.resolve(size, init_data, resolution) : mesh_.resolve(size, resolution);
      has_init ? part_.resolve(size, init_data, resolution) : part_.resolve(size, resolution);
    } else if (form == Form::limited) {
      mesh_.set_limit(low_limit);
      part_.set_limit(low_limit);
    } else if (has_init) {
      mesh_.update(size, init_data);
      part_.update(size, init_data);
    } else {
      mesh_.update(size);
      part_.update(size);
    }
    expect(std::abs(content_of(part_)[0] - before[0]) < 1e-12 * before[1], "sum", step_);
    compare(part_, mesh_, step_);
    std::vector<double> rows;
    for (const auto& nodes : {part_.owned(), part_.ghosts()}) {
      for (const Cell* c : nodes) rows.push_back(c->data[1]);
    }
    const std::vector<double> held = rows;
    part_.exchange(rows);
    expect(rows == held, "ghosts hold what their owners do", step_);
    if (form == Form::limited) {
      mesh_.set_limit(high_limit);
      part_.set_limit(high_limit);
    }
    ++step_;
  }
  void rebalance() { nb_moves_ += part_.rebalance(1.02) ? 1 : 0; }
  /// As Mesh::update() takes the nodes of a mesh that was resolved here.
  void gather() {
    const Grid grid = tested_grid(high_limit);
    mesh_ = std::move(*Partition(MPI_COMM_SELF, &mesh_, grid.bc_type).gather());
  }
  void end(int nb_repairs) {
    const bool is_cut = part_.nb_processes() > 1;
    expect(part_.statistics().nb_repairs == (is_cut ? nb_repairs : 0), "repairs", step_);
    expect(!is_cut || nb_moves_ > 0, "the boxes moved", step_);
  }
  Partition& part() { return part_; }

 private:
  Partition part_;
  Mesh mesh_;
  int step_ = 0, nb_moves_ = 0;
};

/// The overlap of 1 is repaired, and so are ghosts that are spoilt: the update begins anew then.
void resolve() {
  Run run(1);
  for (int step = 0; step < 8; ++step) {
    const Resolution resolution{.margin = step % 4 == 0 ? 1.0 : 0.0,
                                .slope = step % 4 == 3 ? 0.4 : 0.0};
    if (step == 5 && run.part().rank() == 0) spoil_a_ghost(run.part());
    run.adapt(Form::resolved, steep_front_at(0.06 * step, 0.006), resolution);
    if (step % 2 == 0) run.rebalance();
  }
  run.adapt(Form::limited);
  run.adapt(Form::resolved, [](double, double, auto...) { return 0.1; });
  run.end(2);
}

void update() {
  Run run(6);
  for (int step = 0; step < 5; ++step) run.adapt(Form::updated, front_at(0.06 * step, 0.01));
  run.rebalance();
  run.adapt(Form::limited);
  run.adapt(Form::updated, front_at(0.3, 0.01));
  run.adapt(Form::updated, steep_at(5.0));
  run.adapt(Form::resolved, front_at(0.4, 0.01));  // after others have been restored
  run.gather();
  run.adapt(Form::updated, front_at(0.5, 0.01));
  run.end(0);
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  resolve();
  update();
  MPI_Finalize();
  return nb_wrong == 0 ? 0 : 1;
}
