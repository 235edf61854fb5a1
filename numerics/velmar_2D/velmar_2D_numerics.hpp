// velmar_2d::numerics: parts of which solvers on control cells are made.
//
//     MeshArrays arrays(mesh);
//     numerics::FluxMatrix diffusion;
//     numerics::update(diffusion, arrays, 1e-3);            // K, kept while the mesh stands
//     const numerics::Balance cells{diffusion.matrix, arrays.areas(), arrays.known()};
//     numerics::implicit_step(numerics::Scheme::tr_bdf2, cells, time, step, {}, u, solve, work);
//
// What there is
// -------------
//   SparseMatrix, FluxMatrix     two-point fluxes as a matrix in compressed rows
//   Faces, SidePieces            what bounds the control cells, each face once
//   gradient(), divergence()     at nodes, and of fluxes through faces
//   advection_fluxes()           upwind, limited: conservative, no value below 0
//   explicit and implicit steps  in time; the sparse solver is a function of yours
//
// All are plain records and free procedures: arrays go in and come out, one value for each node of
// a MeshArrays or for each face. Nothing refers to the mesh, so that what was made stays when the
// mesh changes, for the old nodes.
//
// A balance of a control cell reads
//
//     area_i du_i/dt = source_i - sum over j of K_ij u_j,
//
// K_ij = -coefficient * length / distance of the face between both, and rows of K sum to 0. This is
// the matrix of linear elements on the triangles between the nodes, too.
//
// Arrays of a wrong size throw an Error. One thread at a time may write a record; any number of
// them may read it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "velmar_2D/arrays.hpp"

#if !defined(VELMAR_2D_NUMERICS_SHARED)
#define VELMAR_2D_NUMERICS_API
#elif defined(_WIN32) && defined(velmar_2d_numerics_EXPORTS)
#define VELMAR_2D_NUMERICS_API __declspec(dllexport)
#elif defined(_WIN32)
#define VELMAR_2D_NUMERICS_API __declspec(dllimport)
#else
#define VELMAR_2D_NUMERICS_API __attribute__((visibility("default")))
#endif

namespace velmar_2d::numerics {

// ---------------------------------------------------------------------------------------------
// Matrices
// ---------------------------------------------------------------------------------------------

/// A square matrix in compressed rows, columns ascending in each. Libraries for matrices take the
/// three arrays as they are.
struct SparseMatrix {
  std::vector<std::int32_t> row_begin;  ///< one more than there are rows
  std::vector<std::int32_t> columns;
  std::vector<double> values;
  std::vector<std::int32_t> diagonal;  ///< where in `values` that of each row is
  /// Change with the places of the entries, and with those or their values. No two states of
  /// matrices in a process share one, so that factors of a matrix are good while its `version` is.
  std::uint64_t pattern = 0, version = 0;

  std::int32_t size() const { return static_cast<std::int32_t>(diagonal.size()); }
};

/// To be called where values of a matrix were changed by hand.
VELMAR_2D_NUMERICS_API void touch(SparseMatrix& matrix);

/// result = matrix * x
VELMAR_2D_NUMERICS_API void multiply(const SparseMatrix& matrix, std::span<const double> x,
                                     std::span<double> result);

/// The two-point fluxes of one mesh: (K u)_i is what flows out of the control cell of node i.
/// Symmetric, no negative eigenvalue; nothing flows through the sides.
struct FluxMatrix {
  SparseMatrix matrix;
  std::uint64_t revision = 0;  ///< of the mesh
  double coefficient = 0.0;    ///< of the values; not-a-number where nodes or faces had their own
};

/// Assembles the matrix where nodes have come or gone since, or the coefficient is another.
/// Nothing otherwise.
/// @return whether it is another
VELMAR_2D_NUMERICS_API bool update(FluxMatrix& flux, const MeshArrays& arrays, double coefficient);
/// The same with one coefficient for each node; faces take the harmonic mean, which is right where
/// the coefficient jumps. Keeps the places of the entries while the mesh stands.
VELMAR_2D_NUMERICS_API void update(FluxMatrix& flux, const MeshArrays& arrays,
                                   std::span<const double> of_nodes);

struct Faces;
/// The same with one coefficient for each face.
VELMAR_2D_NUMERICS_API void update(FluxMatrix& flux, const MeshArrays& arrays, const Faces& faces,
                                   std::span<const double> of_faces);

// ---------------------------------------------------------------------------------------------
// Faces
// ---------------------------------------------------------------------------------------------

/// The faces between control cells, each once. `from` has the lower number; the direction leads
/// from there to the other node.
struct Faces {
  std::vector<std::int32_t> from, to;
  std::vector<Direction> direction;
  std::vector<double> length, weight;      ///< weight: length / distance of the nodes
  std::vector<double> middle_x, middle_y;  ///< of the face
  std::uint64_t revision = 0;              ///< of the mesh

  std::size_t size() const { return from.size(); }
};

/// The pieces of the sides that bound control cells: two at corners of the domain.
struct SidePieces {
  std::vector<std::int32_t> node;
  std::vector<Direction> side;
  std::vector<std::int32_t> kind;  ///< bc_type_dir, bc_type_neu or bc_type_oth
  std::vector<double> length;
  std::vector<double> x, y;  ///< of the node
  std::uint64_t revision = 0;

  std::size_t size() const { return node.size(); }
};

/// The unit vector of a direction.
VELMAR_2D_NUMERICS_API Point unit_vector(Direction direction);

VELMAR_2D_NUMERICS_API Faces faces_of(const MeshArrays& arrays);
VELMAR_2D_NUMERICS_API SidePieces side_pieces_of(const MeshArrays& arrays);

// ---------------------------------------------------------------------------------------------
// Conditions at the sides
//
//     Dirichlet  values at known() nodes are given: write them into u before a step or a solve,
//                which leave them and eliminate their rows and columns symmetrically.
//     Neumann    coefficient * du/dn is given: what comes in adds to the source. Without, 0.
//     mixed      coefficient * du/dn = rate * (outside - u): adds to diagonal and source.
//
// All are of second order in the spacing.
// ---------------------------------------------------------------------------------------------

using side_function = std::function<double(double x, double y, Direction side)>;

/// Adds what comes in through the sides of one kind: flux is coefficient * du/dn, outwards n, at
/// nodes of those sides.
VELMAR_2D_NUMERICS_API void add_inflow(const SidePieces& pieces, std::int32_t kind,
                                       const side_function& flux, std::span<double> source);
/// Adds the mixed condition for the sides of one kind. Belongs after each update() of the matrix
/// that made it anew; one that returns false leaves in it what was added.
VELMAR_2D_NUMERICS_API void add_exchange(const SidePieces& pieces, std::int32_t kind,
                                         const side_function& rate, const side_function& outside,
                                         SparseMatrix& matrix, std::span<double> source);

// ---------------------------------------------------------------------------------------------
// Gradient and divergence
// ---------------------------------------------------------------------------------------------

/// The gradient at nodes, by least squares over all linked nodes, nearer ones weighing more. Exact
/// for linear values, second order where the nodes around lie symmetrically, first order
/// elsewhere.
VELMAR_2D_NUMERICS_API void gradient(const MeshArrays& arrays, std::span<const double> u,
                                     std::span<double> du_dx, std::span<double> du_dy);

/// The derivative across faces, from the node `from` to the other one: of second order at the
/// middle between both.
VELMAR_2D_NUMERICS_API void face_derivative(const Faces& faces, std::span<const double> u,
                                            std::span<double> derivative);

/// What leaves each cell through its faces and sides, by area. Fluxes are those of whole faces, in
/// their direction, and of pieces of the sides, outwards; without the latter nothing leaves there.
/// The sum of area x divergence is what leaves through the sides, to rounding.
VELMAR_2D_NUMERICS_API void divergence(const Faces& faces, std::span<const double> face_fluxes,
                                       const SidePieces& pieces,
                                       std::span<const double> side_fluxes,
                                       std::span<const double> areas, std::span<double> result);

/// Fluxes of a vector field that is given at the nodes: the mean of both, by the length of the
/// face. Sides take what the node has.
VELMAR_2D_NUMERICS_API void fluxes_of(const Faces& faces, const SidePieces& pieces,
                                      std::span<const double> field_x,
                                      std::span<const double> field_y,
                                      std::span<double> face_fluxes, std::span<double> side_fluxes);

// ---------------------------------------------------------------------------------------------
// Advection
// ---------------------------------------------------------------------------------------------

/// The values that the wind carries through faces.
enum class Upwind : std::int32_t {
  first_order,  ///< those of the node it comes from
  bounded,      ///< by its gradient, so far as no new extremes can come. Flattens smooth ones
  positive      ///< by its gradient, so far as no value can become negative. Smooth extremes stay
};

/// What `wind` carries: wind is velocity times length of faces, in their direction, and of pieces
/// of the sides, outwards. `inflow` is the value outside of pieces where it comes in.
///
/// With Heun's steps of up to stable_step() no new extremes come where the wind has no divergence
/// (bounded), or nothing negative does (positive), whatever the wind.
VELMAR_2D_NUMERICS_API void advection_fluxes(
    Upwind upwind, const MeshArrays& arrays, const Faces& faces, const SidePieces& pieces,
    std::span<const double> face_wind, std::span<const double> side_wind, std::span<const double> u,
    std::span<const double> inflow, std::span<double> face_fluxes, std::span<double> side_fluxes);

/// The longest time step of Euler's and Heun's methods for an advection and for a diffusion, alone.
/// Together: 1 / (1 / a + 1 / b).
VELMAR_2D_NUMERICS_API double stable_step(Upwind upwind, const Faces& faces,
                                          const SidePieces& pieces,
                                          std::span<const double> face_wind,
                                          std::span<const double> side_wind,
                                          std::span<const double> areas);
VELMAR_2D_NUMERICS_API double stable_step(const SparseMatrix& flux, std::span<const double> areas);

// ---------------------------------------------------------------------------------------------
// Steps in time
// ---------------------------------------------------------------------------------------------

/// Writes du/dt of every node at a time.
using rate_function =
    std::function<void(double time, std::span<const double> u, std::span<double> rate)>;
/// Writes the sources of the control cells at a time: source times area, what comes in through
/// sides included. All are 0.0 before.
using source_function = std::function<void(double time, std::span<double> source)>;
/// Writes a reaction f(u) of every node, by area, and its derivative by u. Both are 0.0 before;
/// where the derivative is left so the reaction is treated explicitly, and the matrix stays the
/// same from step to step.
using reaction_function = std::function<void(double time, std::span<const double> u,
                                             std::span<double> reaction, std::span<double> slope)>;
/// Solves matrix * solution = right. The matrix is symmetric; it is positive definite unless a
/// reaction that grows outweighs it. `solution` holds 0.0 or a guess before. While matrix.version
/// is what it was, factors of it are good; while matrix.pattern is, so is the order of elimination.
using solve_function = std::function<void(const SparseMatrix& matrix, std::span<const double> right,
                                          std::span<double> solution)>;

/// What steps need meanwhile, kept from one to the next. Belongs to one unknown of one mesh.
struct Work {
  SparseMatrix matrix;          ///< of the implicit steps
  std::uint64_t made_from = 0;  ///< version of the flux matrix that it was made from
  double factor = 0.0;          ///< of the areas in it
  std::vector<double> areas, slope;
  std::vector<std::uint8_t> known;
  std::array<std::vector<double>, 6> values;
};

/// Heun's method: second order, with the stability and positivity of Euler's steps.
VELMAR_2D_NUMERICS_API void heun_step(double time, double step, const rate_function& rate,
                                      std::span<double> u, Work& work);
/// Three stages, third order, with the stability and positivity of Euler's steps.
VELMAR_2D_NUMERICS_API void runge_kutta_step(double time, double step, const rate_function& rate,
                                             std::span<double> u, Work& work);
/// Second order in `stages` stages, 3 at least, for diffusion and what is slow beside it: steps may
/// be (stages^2 + stages - 2) / 4 times as long as `euler`, the stable step of Euler's method (a
/// Runge-Kutta-Legendre method). No solver is needed.
VELMAR_2D_NUMERICS_API void stabilised_step(double time, double step, std::int32_t stages,
                                            const rate_function& rate, std::span<double> u,
                                            Work& work);
/// The stages that stabilised_step() needs, an odd number.
VELMAR_2D_NUMERICS_API std::int32_t stages_for(double step, double euler);

/// The fluxes, areas and given values of control cells: area du/dt = source - K u.
struct Balance {
  const SparseMatrix& flux;
  std::span<const double> areas;
  std::span<const std::uint8_t> known = {};  ///< empty: none
};

/// The rate of a balance without sources: -K u / area; 0 at known nodes. For explicit steps.
VELMAR_2D_NUMERICS_API void balance_rate(const Balance& balance, std::span<const double> u,
                                         std::span<double> rate);

enum class Scheme : std::int32_t {
  backward_euler,  ///< first order, damps whatever is faster than a step
  crank_nicolson,  ///< second order, does not damp it
  tr_bdf2          ///< second order, damps it; two solves with one matrix
};

/// One implicit step. u of known nodes stays; where `known_after` is given, one value for each
/// node, known nodes have that afterwards. No source: an empty function.
VELMAR_2D_NUMERICS_API void implicit_step(Scheme scheme, const Balance& balance, double time,
                                          double step, const source_function& source,
                                          std::span<double> u, const solve_function& solve,
                                          Work& work, std::span<const double> known_after = {});

/// One step of area du/dt = area f(t, u) - K u with the Rosenbrock method of two stages: second
/// order whether the slope of the reaction is given or not, damps what is faster than a step; two
/// solves with one matrix. Known nodes as in implicit_step().
VELMAR_2D_NUMERICS_API void rosenbrock_step(const Balance& balance, double time, double step,
                                            const reaction_function& reaction, std::span<double> u,
                                            const solve_function& solve, Work& work,
                                            std::span<const double> known_after = {});

/// The steady state: K u = source, u of known nodes as it is, that of others a guess before. Where
/// no node is known and nothing leaves through sides the matrix is singular.
VELMAR_2D_NUMERICS_API void steady_state(const Balance& balance, std::span<const double> source,
                                         std::span<double> u, const solve_function& solve,
                                         Work& work);

/// Conjugate gradients with the diagonal as preconditioner, until the residual is below `tolerance`
/// times that of zero: a solver that is always there. For a steady state its iterations grow as the
/// square root of the nodes; a step in time takes few.
/// @return iterations; -1 where `most` were not enough
VELMAR_2D_NUMERICS_API std::int32_t conjugate_gradients(const SparseMatrix& matrix,
                                                        std::span<const double> right,
                                                        std::span<double> solution,
                                                        double tolerance = 1e-10,
                                                        std::int32_t most = 10000);

}  // namespace velmar_2d::numerics
