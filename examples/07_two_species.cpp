// Two species in a closed dish: v lives on u and grows into a flower, and nothing is lost.
//
//     du/dt = D_u div grad u - r        r = u v^2 / (1 + s v^2) - v
//     dv/dt = D_v div grad v + r
//
// Two v turn a u into a third one, and v decays back to u. The reaction only exchanges, no side
// lets anything through: the sum of u + v over the dish cannot change. In the program it does not
// either. What flows through a face of a control cell leaves one cell and enters the other, and
// where nodes come and go the mesh hands on what their cells hold (Transfer::conservative).
//
// The petals grow because u comes to them first. Their rim is thin: the mesh follows it through 500
// updates, with some thousand nodes instead of the sixteen thousand of a grid as fine.
//
//     07_two_species                    pictures go to the folder pictures/
//     07_two_species my/folder          pictures go to my/folder/
//     07_two_species my/folder run.h5   keeps the run in a file; whenever it is killed, the same
//                                       command goes on from there, with the same bits
//
// It prints a table and ends with the lines
//
//     the sum of u + v changed by less than 1e-12 of itself in 500 updates
//     fingerprint of all values: (16 digits, the same however often the run was killed)
//
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "pictures.hpp"
#include "velmar_2D/velmar_2D_hdf5.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace {

using velmar_2d::Cell, velmar_2d::Mesh;

constexpr double diffusion_u = 2.0, diffusion_v = 0.05, saturation = 0.03;
constexpr double half_width = 20.0;  // of the dish
constexpr double food = 2.5;         // u in the whole dish, at first
constexpr int nb_updates = 500, updates_per_row = 50, updates_per_save = 20;
constexpr double time_between_updates = 0.2;

constexpr std::size_t v = 0, u = 1;  // the mesh looks at the derivatives of the first value

// ---------------------------------------------------------------------------------------------
// The mesh
// ---------------------------------------------------------------------------------------------

Mesh make_mesh() {
  return Mesh({-half_width, half_width, -half_width, half_width},
              {.nx = 17,
               .subdiv_max = 6,
               .n_cell_data = 2,
               .bc_type = velmar_2d::same_kind(velmar_2d::bc_type_neu)});
}

/// How far a point lies outside the first drop of v, about.
double outside_drop(double x, double y) {
  constexpr double radius = 3.0, wave = 0.3;
  constexpr int petals = 7;
  return std::hypot(x, y) / (1.0 + wave * std::cos(petals * std::atan2(y, x) + 0.3)) - radius;
}

void put_drop(Mesh& mesh) {
  mesh.resolve(
      [](double x, double y, auto...) { return 0.2 + 0.2 * std::abs(outside_drop(x, y)); });
  for (Cell& c : mesh.nodes()) {
    c.data[u] = food;
    c.data[v] = 2.5 * (1.0 - std::tanh(outside_drop(c.x, c.y)));
  }
}

/// The spacing at which linear interpolation of v errs by about 0.1.
double spacing(double /*x*/, double /*y*/, std::span<const double> /*data*/, double /*gradient*/,
               double second_derivative) {
  return std::sqrt(8.0 * 0.1 / std::max(second_derivative, 1e-9));
}

/// What of both species together is in the dish.
double total(Mesh& mesh) {
  double sum = 0.0;
  for (Cell& c : mesh.nodes()) sum += mesh.area(c) * (c.data[u] + c.data[v]);
  return sum;
}

// ---------------------------------------------------------------------------------------------
// Explicit finite volumes on the control cells
// ---------------------------------------------------------------------------------------------

class Solver {
 public:
  /// Reads the mesh as it stands. Numbers the nodes by their `used`.
  explicit Solver(Mesh& mesh) {
    for (Cell& c : mesh.nodes()) {
      c.used = static_cast<std::int32_t>(nodes_.size());
      nodes_.push_back({&c, mesh.area(c)});
    }
    for (const Node& node : nodes_) {
      const velmar_2d::CellFaces faces = mesh.faces(*node.cell);
      double leaving = 0.0;
      for (std::size_t d = 0; d < 8; ++d) {
        const Cell* there = faces.neighbour[d];
        if (there == nullptr) continue;
        const double weight = faces.length[d] / faces.distance[d];
        leaving += weight;
        // A face that leads into one of the first four directions leads back into the others.
        if (d < 4) faces_.push_back({index(*node.cell), index(*there), weight});
      }
      fastest_ = std::max(fastest_, leaving / node.area);
    }
  }

  /// Advances by a time, in as many steps as stability wants.
  void advance(double time) {
    constexpr double margin = 0.9;  // no step takes more out of a cell than it holds
    const double steps = std::ceil(time * diffusion_u * fastest_ / margin);
    for (double done = 0.0; done < steps; ++done) make_step(time / steps);
  }

 private:
  struct Node {
    Cell* cell;
    double area, flow_u = 0.0, flow_v = 0.0;
  };
  struct Face {
    std::size_t a, b;
    double weight;  // length / distance
  };

  static std::size_t index(const Cell& c) { return static_cast<std::size_t>(c.used); }

  void make_step(double step) {
    for (Node& node : nodes_) node.flow_u = node.flow_v = 0.0;
    for (const Face& face : faces_) {
      Node &a = nodes_[face.a], &b = nodes_[face.b];
      const auto flow = [&](std::size_t species) {
        return face.weight * (a.cell->data[species] - b.cell->data[species]);
      };
      const double flow_u = diffusion_u * flow(u), flow_v = diffusion_v * flow(v);
      a.flow_u -= flow_u;
      b.flow_u += flow_u;
      a.flow_v -= flow_v;
      b.flow_v += flow_v;
    }
    for (const Node& node : nodes_) {
      double &u_here = node.cell->data[u], &v_here = node.cell->data[v];
      const double square = v_here * v_here;
      const double exchange = u_here * square / (1.0 + saturation * square) - v_here;
      u_here += step * (node.flow_u / node.area - exchange);
      v_here += step * (node.flow_v / node.area + exchange);
    }
  }

  std::vector<Node> nodes_;
  std::vector<Face> faces_;
  double fastest_ = 0.0;  // largest sum of weights per area
};

// ---------------------------------------------------------------------------------------------
// The run
// ---------------------------------------------------------------------------------------------

/// What has to be known, beside the mesh, to go on.
struct Run {
  int update = 0;
  double total_at_first = 0.0, largest_change = 0.0;
};

Mesh begin(Run& run) {
  Mesh mesh = make_mesh();
  put_drop(mesh);
  run.total_at_first = total(mesh);
  return mesh;
}

void save(const Mesh& mesh, const Run& run, const std::string& path) {
  const std::vector<double> numbers{static_cast<double>(run.update), run.total_at_first,
                                    run.largest_change};
  velmar_2d::save(mesh, path,
                  {.time = run.update * time_between_updates,
                   .arrays = {{"run", numbers}},
                   .data_names = {"v", "u"}});
}

Mesh go_on(Run& run, const std::string& path) {
  const std::vector<double> numbers = velmar_2d::load_arrays(path).front().values;
  run = {static_cast<int>(numbers[0]), numbers[1], numbers[2]};
  std::printf("going on after update %d\n", run.update);
  return velmar_2d::load(path);
}

/// Differs where any bit of any place or value does.
std::uint64_t fingerprint(const Mesh& mesh) {
  std::uint64_t hash = 0;
  for (const Cell& c : mesh.nodes()) {
    for (const double number : {c.x, c.y, c.data[u], c.data[v]}) {
      constexpr std::uint64_t odd = 0x9e3779b97f4a7c15;
      hash = std::rotl((hash ^ std::bit_cast<std::uint64_t>(number)) * odd, 29);
    }
  }
  return hash;
}

void draw(const Mesh& mesh, int update, const std::filesystem::path& folder) {
  velmar_2d::io::PictureOptions options;
  options.title = "Two species in a closed dish, update " + std::to_string(update);
  options.cells = velmar_2d::io::CellColour::value;
  options.component = v;
  options.links = options.nodes = false;
  char name[40];
  std::snprintf(name, sizeof name, "07_two_species_%03d.png", update);
  require(velmar_2d::io::draw_mesh(mesh, (folder / name).string(), options));
}

}  // namespace

int main(int argc, char** argv) try {
  const std::filesystem::path folder = picture_folder(argc, argv);
  const std::string kept = argc > 2 ? argv[2] : "";
  Run run;
  Mesh mesh = !kept.empty() && std::filesystem::exists(kept) ? go_on(run, kept) : begin(run);
  mesh.set_transfer(velmar_2d::Transfer::conservative);

  std::printf("update   nodes   mean of u + v   change of the sum\n");
  while (run.update < nb_updates) {
    mesh.resolve(spacing, {.margin = 0.5});
    Solver(mesh).advance(time_between_updates);
    const int update = ++run.update;
    const double change = std::abs(total(mesh) / run.total_at_first - 1.0);
    run.largest_change = std::max(run.largest_change, change);
    if (!kept.empty() && update % updates_per_save == 0) save(mesh, run, kept);
    if (update % updates_per_row != 0) continue;
    std::printf("%6d %7lld %15.12f %19.1e\n", update, static_cast<long long>(mesh.size()),
                total(mesh) / (4.0 * half_width * half_width), change);
    if (update == 100 || update == nb_updates) draw(mesh, update, folder);
  }
  std::printf("the sum of u + v changed by %s than 1e-12 of itself in %d updates\n",
              run.largest_change < 1e-12 ? "less" : "more", nb_updates);
  std::printf("fingerprint of all values: %016llx\n",
              static_cast<unsigned long long>(fingerprint(mesh)));
} catch (const velmar_2d::Error& error) {
  require(error.what());
}
