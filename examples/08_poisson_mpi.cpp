// Poisson's equation by PETSc, on one mesh over as many processes as there are.
//
//     -div grad u = f in the unit square, u = g in the south, west and north, du/dn = q in the east
//
// with a known solution: a peak on a saddle. Finite volumes on the control cells give one row of a
// symmetric matrix for each node, by its global number; each process fills in those of the nodes it
// owns, and hands the solution back to them.
//
//     mpirun -n 4 08_poisson_mpi                          files go to the folder pictures/
//     mpirun -n 4 08_poisson_mpi my/folder -meshes 5      more than 3, each twice as fine
//     mpirun -n 4 08_poisson_mpi my/folder -pc_type hypre and other options of PETSc
//
// Process 0 prints a table and ends with the line
//
//     order of convergence: 2.0
//
#include <petscksp.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "pictures.hpp"
#include "velmar_2D/velmar_2D_mpi_io.hpp"

namespace {

using velmar_2d::Cell, velmar_2d::Partition;

// ---------------------------------------------------------------------------------------------
// The problem
// ---------------------------------------------------------------------------------------------

constexpr double peak_x = 0.4, peak_y = 0.55, peak_width = 0.05;

double square_of_radius(double x, double y) {
  return ((x - peak_x) * (x - peak_x) + (y - peak_y) * (y - peak_y)) / (peak_width * peak_width);
}
double solution(double x, double y) { return std::exp(-square_of_radius(x, y)) + x * y; }
double source(double x, double y) {
  const double r2 = square_of_radius(x, y);
  return 4.0 * (1.0 - r2) * std::exp(-r2) / (peak_width * peak_width);
}
/// du/dx.
double inflow(double x, double y) {
  return y - 2.0 * (x - peak_x) * std::exp(-square_of_radius(x, y)) / (peak_width * peak_width);
}

std::int32_t kind_of_side(double /*x*/, double /*y*/, std::string_view side) {
  return side == "East" ? velmar_2d::bc_type_neu : velmar_2d::bc_type_dir;
}

// ---------------------------------------------------------------------------------------------
// The matrix
// ---------------------------------------------------------------------------------------------

/// What PETSc refuses, it has explained by then.
void require(PetscErrorCode code) {
  if (code != 0) PETSCABORT(PETSC_COMM_WORLD, code);
}

class PoissonSolver {
 public:
  explicit PoissonSolver(Partition& part) : part_(part) {
    const auto n = static_cast<PetscInt>(part.owned().size());
    const auto all = static_cast<PetscInt>(part.size());
    constexpr PetscInt most_own = 9, most_of_others = 8;  // entries of a row
    require(MatCreateAIJ(part.communicator(), n, n, all, all, most_own, nullptr, most_of_others,
                         nullptr, &matrix_));
    require(MatCreateVecs(matrix_, &u_, &right_));
    for (Cell* c : part.owned()) add_row(*c);
    require(MatAssemblyBegin(matrix_, MAT_FINAL_ASSEMBLY));
    require(MatAssemblyEnd(matrix_, MAT_FINAL_ASSEMBLY));
    require(VecAssemblyBegin(right_));
    require(VecAssemblyEnd(right_));
  }
  PoissonSolver(const PoissonSolver&) = delete;
  PoissonSolver& operator=(const PoissonSolver&) = delete;
  ~PoissonSolver() {
    MatDestroy(&matrix_);
    VecDestroy(&u_);
    VecDestroy(&right_);
  }

  /// Puts the solution into the nodes, ghosts included.
  /// @return iterations
  PetscInt solve() {
    KSP solver = nullptr;
    PC preconditioner = nullptr;
    require(KSPCreate(part_.communicator(), &solver));
    require(KSPSetOperators(solver, matrix_, matrix_));
    require(KSPSetType(solver, KSPCG));
    require(KSPGetPC(solver, &preconditioner));
    require(PCSetType(preconditioner, PCGAMG));
    constexpr double tolerance = 1e-14;
    require(KSPSetTolerances(solver, tolerance, PETSC_DEFAULT, PETSC_DEFAULT, PETSC_DEFAULT));
    require(KSPSetErrorIfNotConverged(solver, PETSC_TRUE));
    require(KSPSetFromOptions(solver));
    require(KSPSolve(solver, right_, u_));
    PetscInt iterations = 0;
    require(KSPGetIterationNumber(solver, &iterations));
    require(KSPDestroy(&solver));

    const PetscScalar* values = nullptr;
    require(VecGetArrayRead(u_, &values));
    for (std::size_t i = 0; i < part_.owned().size(); ++i) part_.owned()[i]->data[0] = values[i];
    require(VecRestoreArrayRead(u_, &values));
    part_.exchange();
    return iterations;
  }

 private:
  PetscInt row_of(const Cell& c) const { return static_cast<PetscInt>(part_.global_number(c)); }

  // What flows out through the faces is what the source gives and what comes in through the side.
  // Values that are given go to the right side of the equation, so that the matrix is symmetric.
  void add_row(Cell& c) {
    const PetscInt row = row_of(c);
    if (known_value(c)) {
      require(MatSetValue(matrix_, row, row, 1.0, INSERT_VALUES));
      require(VecSetValue(right_, row, solution(c.x, c.y), INSERT_VALUES));
      return;
    }
    const velmar_2d::CellFaces faces = part_.mesh().faces(c);
    constexpr std::size_t east = 1;
    double leaving = 0.0;
    double right = part_.mesh().area(c) * source(c.x, c.y) + faces.side[east] * inflow(c.x, c.y);
    for (std::size_t d = 0; d < 8; ++d) {
      const Cell* there = faces.neighbour[d];
      if (there == nullptr || faces.length[d] == 0.0) continue;
      const double weight = faces.length[d] / faces.distance[d];
      leaving += weight;
      if (known_value(*there)) {
        right += weight * solution(there->x, there->y);
      } else {
        require(MatSetValue(matrix_, row, row_of(*there), -weight, INSERT_VALUES));
      }
    }
    require(MatSetValue(matrix_, row, row, leaving, INSERT_VALUES));
    require(VecSetValue(right_, row, right, INSERT_VALUES));
  }

  Partition& part_;
  Mat matrix_ = nullptr;
  Vec u_ = nullptr, right_ = nullptr;
};

/// Root of the mean square over the domain.
double error_of(const Partition& part) {
  double own = 0.0, all = 0.0;
  for (Cell* c : part.owned()) {
    const double error = c->data[0] - solution(c->x, c->y);
    own += part.mesh().area(*c) * error * error;
  }
  MPI_Allreduce(&own, &all, 1, MPI_DOUBLE, MPI_SUM, part.communicator());
  return std::sqrt(all);
}

void run(const std::filesystem::path& folder) {
  double first_error = 0.0, first_spacing = 0.0, error = 0.0, spacing = 0.0;
  PetscInt nb_meshes = 3;
  require(PetscOptionsGetInt(nullptr, nullptr, "-meshes", &nb_meshes, nullptr));
  for (PetscInt mesh = 0; mesh < nb_meshes; ++mesh) {
    const double finest = std::ldexp(1.2e-2, static_cast<int>(-mesh));
    Partition part(PETSC_COMM_WORLD, {0.0, 1.0, 0.0, 1.0},
                   {.nx = 33, .subdiv_max = 12, .n_cell_data = 1, .bc_type = kind_of_side});
    part.resolve([=](double x, double y, auto...) {
      return finest * std::max(1.0, 0.5 * std::sqrt(square_of_radius(x, y)));
    });
    part.rebalance();
    const PetscInt iterations = PoissonSolver(part).solve();
    error = error_of(part);
    spacing = 1.0 / std::sqrt(static_cast<double>(part.size()));
    if (first_error == 0.0) {
      first_error = error;
      first_spacing = spacing;
      if (part.rank() == 0) std::printf("  nodes  iterations  error\n");
    }
    if (part.rank() == 0) {
      std::printf("%7lld %11d  %.2e\n", static_cast<long long>(part.size()),
                  static_cast<int>(iterations), error);
    }
    ::require(
        velmar_2d::io::write_pvtu(part, (folder / "poisson.pvtu").string(), {.data_names = {"u"}}));
  }
  int rank = 0;
  MPI_Comm_rank(PETSC_COMM_WORLD, &rank);
  if (rank == 0) {
    std::printf("order of convergence: %.1f\n",
                std::log(first_error / error) / std::log(first_spacing / spacing));
  }
}

}  // namespace

int main(int argc, char** argv) {
  require(PetscInitialize(&argc, &argv, nullptr, nullptr));
  int status = 0;
  try {
    run(picture_folder(argc, argv));
  } catch (const velmar_2d::Error& error) {  // the same on all processes
    int rank = 0;
    MPI_Comm_rank(PETSC_COMM_WORLD, &rank);
    if (rank == 0) std::fprintf(stderr, "%s\n", error.what());
    status = 2;
  }
  require(PetscFinalize());
  return status;
}
