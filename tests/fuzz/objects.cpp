// Calls of a Mesh beside the default one.
#include <cmath>
#include <thread>

#include "fuzz/run.hpp"

namespace velmar_2d::tests::fuzz {

namespace {

void try_to(const auto& read) {
  try {
    read();
  } catch (const std::runtime_error&) {  // a warning or an error of one node: on with the next
    return;
  }
}

double measure(const Mesh& mesh, Cell& c) {
  double sum = mesh.shape(c).type + 64.0 * mesh.polygon(c).n;
  for (const double length : mesh.faces(c).length) sum += length;
  sum += mesh.area(c);
  return std::isfinite(sum) ? sum : 1.0;
}

}  // namespace

void Run::call_object(Object& object) {
  current_ = &object;
  const std::int32_t byte = bytes_.next();
  const std::int32_t kind = byte >= first_of_object_resolves ? 10 + byte % 2 : byte % 10;
  if (kind == 0 || !object.mesh) return make_object(object);
  Mesh& mesh = *object.mesh;
  switch (kind) {
    case 1: mesh.update(size(mesh)); break;
    case 2: mesh.update(size(mesh), data()); break;
    case 3: mesh.update_batched(in_batches(size(mesh))); break;
    case 4: mesh.update_batched(in_batches(size(mesh)), data()); break;
    case 5: mesh.set_limit(small_limit()); break;
    case 6: change_node(mesh); break;
    case 7: read_in_threads(mesh); break;
    case 8: bytes_.below(2) == 0 ? mesh.split_sublists() : mesh.join_sublists(); break;
    case 10: resolve_object(mesh); break;
    case 11: resolve_object_in_batches(mesh); break;
    default: end_or_move(object);
  }
}

void Run::resolve_object(Mesh& mesh) {
  const size_function wanted = size(mesh);
  const Resolution how = resolution();
  bytes_.below(2) == 0 ? mesh.resolve(wanted, how) : mesh.resolve(wanted, data(), how);
  check_wants(mesh, wanted);
}

void Run::resolve_object_in_batches(Mesh& mesh) {
  const size_function wanted = size(mesh);
  const Resolution how = resolution();
  const batch_size_function sizes = in_batches(wanted);
  bytes_.below(2) == 0 ? mesh.resolve_batched(sizes, how)
                       : mesh.resolve_batched(sizes, data(), how);
  check_wants(mesh, wanted);
}

void Run::make_object(Object& object) {
  constexpr std::array<double, 4> starts = {0.0, -1.0, 0.3, 1000.0};
  const double west = bytes_.one_of(starts), south = bytes_.one_of(starts);
  const std::int32_t nx = bytes_.below(8) + 1, ny = bytes_.below(8) + 1;
  const std::int32_t subdiv_max = small_limit(), nb_values = bytes_.below(3);
  const double spacing = std::exp2(bytes_.below(8) - 4);
  const std::int32_t kind = bytes_.below(5);
  const bc_type_function sides = kind == 3 ? kind_by_side(0, 1, 2, 0) : same_kind(kind % 3);
  Mesh made({west, west + (nx - 1) * spacing, south, south + (ny - 1) * spacing},
            {nx, ny, subdiv_max, nb_values, [this, kind, sides](double x, double y, auto side) {
               if (kind == 4) count_down();
               return sides(x, y, side);
             }});
  object.mesh = std::move(made);
  object.big_enough = nx > 2 && ny > 2;
}

void Run::change_node(Mesh& mesh) {
  auto at = mesh.nodes().begin();
  for (auto i = (bytes_.next() * 256 + bytes_.next()) % mesh.size(); i > 0; --i) ++at;
  Cell& c = *at;
  if (bytes_.below(2) == 0) {
    if (c.ipos == 0) return;
    c.level % 2 != 0 ? mesh.remove_node_odd_level(c) : mesh.remove_node_even_level(c);
    return;
  }
  const Proposals proposals = mesh.build_vertex(c);
  if (proposals.n == 0) return;
  const Vertex& v = proposals.vertices[static_cast<std::size_t>(bytes_.below(proposals.n))];
  v.level % 2 != 0 ? mesh.insert_node_odd_level(v) : mesh.insert_node_even_level(v);
}

void Run::end_or_move(Object& object) {
  Object& other = objects_[&object == objects_.data() ? 1 : 0];
  if (bytes_.below(2) == 0) {
    object = {};
  } else {
    std::swap(object, other);
  }
}

void Run::read_in_threads(Mesh& mesh) {
  constexpr std::size_t nb_readers = 3;
  const bool derive = bytes_.below(2) == 0;
  std::vector<Cell*> nodes;
  for (Cell& c : mesh.nodes()) nodes.push_back(&c);
  std::array<double, nb_readers> sums{};
  {
    std::vector<std::jthread> readers;
    for (std::size_t k = 0; k < nb_readers; ++k) {
      readers.emplace_back([&, k] {
        for (std::size_t i = k; derive && i < nodes.size(); i += nb_readers) {
          try_to([&] { mesh.compute_derivatives(*nodes[i]); });
        }
        for (Cell* c : nodes) try_to([&] { sums[k] += measure(mesh, *c); });
        mesh.check();
      });
    }
  }
  if (sums[1] != sums[0] || sums[2] != sums[0]) fault_ = "readers find different things\n";
}

}  // namespace velmar_2d::tests::fuzz
