#include "fuzz/calls.hpp"

#include <cmath>
#include <limits>
#include <optional>
#include <stdexcept>
#include <thread>

#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/mesh.hpp"
#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::tests {

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double no_number = std::numeric_limits<double>::quiet_NaN();

/// What a fatal error, a callback or a message handler leaves by.
struct Thrown : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The bytes, one after the other; 0 for ever after the last one.
class Bytes {
 public:
  explicit Bytes(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
  bool empty() const { return at_ >= bytes_.size(); }
  std::uint8_t next() { return empty() ? std::uint8_t{0} : bytes_[at_++]; }
  std::int32_t below(std::int32_t n) { return next() % n; }
  auto one_of(const auto& values) { return values[next() % values.size()]; }

 private:
  std::span<const std::uint8_t> bytes_;
  std::size_t at_ = 0;
};

/// A Mesh beside the default one. The caller never breaks its geometry.
struct Object {
  std::optional<Mesh> mesh;
  std::uint64_t hash = 0;   ///< state_hash() after its last call
  bool big_enough = false;  ///< for derivatives
};

/// One run: the calls, and what is known of the meshes that they made.
class Run {
 public:
  explicit Run(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::string run() {
    prepare();
    constexpr int most_calls = 48;
    for (int i = 0; i < most_calls && !bytes_.empty() && fault_.empty(); ++i) {
      call_ = bytes_.next();
      const std::string others = call_ >= first_of_objects ? fingerprint() : "";
      try {
        call();
        constexpr std::int32_t deepest_told = 30;  // positions tell ipos for all tame domains
        if (level_max > deepest_told) regular_ = false;
      } catch (const Thrown& thrown) {
        call_ >= first_of_objects ? judge_end_of_object(thrown.what()) : judge_end(thrown.what());
      } catch (const Error& error) {
        judge_end_of_object(error.what());
      }
      if (!others.empty() && fingerprint() != others) fault_ = "the default mesh has changed\n";
      message_handler = pause_handler = [](std::string_view) {};
      if (fault_.empty()) check();
    }
    clear();
    return fault_;
  }

 private:
  // The library without a mesh, as if the process had just begun.
  void prepare() {
    for (std::size_t i = 0; i < records_.size(); ++i) records_[i] = {0.0, static_cast<int>(i) % 3};
    fatal_handler = [](std::string_view text) { throw Thrown(std::string(text)); };
    message_handler = pause_handler = [](std::string_view) {};
    next_id = 1;
    level_max = -1;
    n_cell_data = 0;
    data_interpolation = true;
    init_data_ptr = nullptr;
    bc_type_ptr = nullptr;
  }
  void clear() {
    std::string text;
    message_handler = [&](std::string_view block) { text = block; };
    try {
      const std::string expected = " nb of deallocated nodes: " + std::to_string(nb_nodes);
      if (!level_beg.empty()) {
        delete_mesh();
        if (text != expected) fault_ += "delete_mesh:" + text + " instead of" + expected + "\n";
      }
    } catch (const Thrown& thrown) {
      fault_ += std::string("delete_mesh: ") + thrown.what() + "\n";
    }
    if (nb_nodes != 0 || mesh_beg != nullptr) fault_ += "delete_mesh left nodes\n";
    fatal_handler = message_handler = pause_handler = nullptr;
  }

  void call() {
    if (call_ >= first_of_objects) {
      call_object(objects_[static_cast<std::size_t>(call_ % 2)]);
    } else if (call_ >= first_of_resolves && call_ < end_of_resolves) {
      resolve_default_mesh();
    } else if (call_ >= first_of_readers) {
      read_in_threads(default_mesh());
    } else if (call_ >= first_of_batches) {
      const batch_size_function sizes = in_batches(size(default_mesh()));
      call_ % 2 == 0 ? update_mesh_no_init_batched(sizes) : update_mesh_init_batched(sizes, data());
    } else {
      call_default_mesh();
    }
  }

  void call_default_mesh() {
    switch (call_ % 16) {
      case 0: set_records(); break;
      case 1: make_mesh(); break;
      case 2: set_number_of_values(); break;
      case 3:
      case 4:
      case 5: update_mesh_no_init(size(default_mesh())); break;
      case 6:
      case 7: update_mesh_init(size(default_mesh()), data()); break;
      case 8: set_subdiv_max(limit()); break;
      case 9: bytes_.below(2) == 0 ? split_sublists() : join_sublists(); break;
      case 10: insert_proposal(); break;
      case 11: insert_anything(); break;
      case 12:
      case 13: remove(); break;
      case 14: read(); break;
      default: end_or_hinder();
    }
  }

  void resolve_default_mesh() {
    const size_function wanted = size(default_mesh());
    const Resolution how = resolution();
    switch (call_ % 4) {
      case 0: resolve_mesh_no_init(wanted, how); break;
      case 1: resolve_mesh_init(wanted, data(), how); break;
      case 2: resolve_mesh_no_init_batched(in_batches(wanted), how); break;
      default: resolve_mesh_init_batched(in_batches(wanted), data(), how);
    }
    constexpr std::int32_t deepest_told = 30;
    if (regular_ && tame_ && level_max <= deepest_told) check_wants(default_mesh(), wanted);
  }

  Resolution resolution() {
    constexpr std::array<double, 8> margins = {0.0, 0.0, 0.0, 0.5, 1.5, 1e9, -1.0, no_number};
    constexpr std::array<double, 8> slopes = {0.0, 0.0, 0.0, 0.0, 0.2, 1.0, infinity, -0.5};
    constexpr std::array<std::int64_t, 8> numbers = {0, 0, 0, 0, 1, 60, 5000, -3};
    return {bytes_.one_of(margins), bytes_.one_of(numbers), bytes_.one_of(slopes)};
  }

  /// No node is coarser than wanted. Sizes that follow data are left out: derivatives change with
  /// the mesh.
  void check_wants(const Mesh& mesh, const size_function& wanted) {
    if (size_kind_ == 5 || !batches_are_written_) return;
    countdown_ = 0;
    for (const Cell& c : mesh.nodes()) {
      const double h = wanted(c.x, c.y, {}, 0.0, 0.0);
      if (!(h >= 0.0)) continue;
      const double level = 2.0 * std::log2(mesh.dist_0() / h) - 1e-6;
      if (c.level < std::min<double>(level, std::min(mesh.limit(), 62))) {
        fault_ = "a node is coarser than wanted\n";
      }
    }
  }

  void set_records() {
    const std::array<Boundary**, 12> places = {
        &north_boundary_dir, &north_boundary_neu, &north_boundary_oth, &east_boundary_dir,
        &east_boundary_neu,  &east_boundary_oth,  &south_boundary_dir, &south_boundary_neu,
        &south_boundary_oth, &west_boundary_dir,  &west_boundary_neu,  &west_boundary_oth};
    const bool one_is_missing = bytes_.below(4) == 0;
    for (std::size_t i = 0; i < places.size(); ++i) *places[i] = &records_[i];
    if (one_is_missing) *places[bytes_.next() % places.size()] = nullptr;
    if (nb_nodes > 0) {  // records may go only while no node is linked to them
      regular_ = regular_ && !one_is_missing;
      return;
    }
    const double west = bytes_.one_of(origins), south = bytes_.one_of(origins);
    const double width = bytes_.one_of(widths), height = bytes_.one_of(widths);
    records_[9].c = west;
    records_[3].c = west + width;
    records_[6].c = south;
    records_[0].c = south + height;
    const double far = std::max(std::abs(west), std::abs(south));
    tame_ = width >= 1e-3 && width <= 1e3 && far <= 1e3 * width;
  }

  void set_number_of_values() {
    n_cell_data = bytes_.below(5) - 1;
    values_differ_ = nb_nodes > 0;
  }

  void make_mesh() {
    const std::int32_t nx = bytes_.below(10) - 1, ny = bytes_.below(10) - 1;
    double y_max = 0.0;
    const std::int32_t subdiv_max = limit();
    const bc_type_function kinds = sides();
    if (nb_nodes == 0) {  // otherwise it is refused
      regular_ = tame_;
      values_differ_ = false;
    }
    init_mesh(kinds, nx, ny, subdiv_max, y_max);
    big_enough_ = nx >= 3 && ny >= 3;
  }

  std::int32_t limit() {
    constexpr std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
    constexpr std::array<std::int32_t, 16> limits = {0, 1,    2,  3,  4,  5,  6,       7,
                                                     8, 1000, 12, 30, 63, -1, 2000000, lowest};
    return bytes_.one_of(limits);
  }

  /// Callbacks throw when the countdown that they share ends; updates must end some time.
  void count_down() {
    if (--countdown_ == 0) throw Thrown("callback");
    if (countdown_ == 3 && std::exchange(intrude_, false) && nb_nodes > 0 &&
        call_ < first_of_objects) {
      call_ % 2 == 0 ? delete_mesh() : set_subdiv_max(level_max > 2 ? 1 : 9);
    }
  }
  void set_countdown() {
    constexpr std::array<int, 8> counts = {1, 2, 3, 7, 20, 100, 2000, 2000};
    countdown_ = bytes_.one_of(counts);
  }

  bc_type_function sides() {
    const std::int32_t byte = bytes_.next(), kind = byte % 8;
    if (kind == 7) return nullptr;
    return [this, byte, kind](double x, double y, std::string_view side) {
      constexpr std::int32_t hostile_from = 240;
      if (byte >= hostile_from && x > 0.5) {
        regular_ = false;
        return byte % 2 == 0 ? byte : std::numeric_limits<std::int32_t>::min();
      }
      if (kind < 3) return kind;
      if (kind == 3) return side.size() % 3 == 0 ? 1 : 0;
      if (kind == 4) return x > 0.5 ? 2 : 1;
      if (kind == 5 && nb_nodes > 4) count_down();
      const double steps = (x - x_min + y - y_min) / dist_0;
      const bool on_first_grid = !(std::abs(steps - std::round(steps)) > 1e-3);
      if (kind < 6 || on_first_grid) return 0;
      regular_ = false;
      return -5;
    };
  }

  init_data_function data() {
    const std::int32_t kind = bytes_.below(6);
    if (kind == 5) return nullptr;
    return [this, kind](double x, double y) {
      count_down();
      return kind == 0 ? 0.0 : kind == 1 ? x * y : kind == 2 ? no_number : kind == 3 ? infinity : x;
    };
  }

  size_function size(const Mesh& mesh) {
    set_countdown();
    const std::int32_t kind = size_kind_ = bytes_.below(12);
    batches_are_written_ = true;
    const double a = bytes_.next() / 255.0, b = bytes_.next() / 255.0;
    const double finest = std::exp2(-bytes_.below(24) / 2.0), radius = bytes_.next() / 255.0;
    if (kind == 11) return nullptr;
    const double x_min = mesh.x_min(), y_min = mesh.y_min(), dist_0 = mesh.dist_0();
    return [=, this](double x, double y, std::span<const double> values, double g, double g2) {
      count_down();
      const double u = (x - x_min) / dist_0 / 5.0, v = (y - y_min) / dist_0 / 5.0;
      switch (kind) {
        case 0: return dist_0 * finest;
        case 1: return 0.0;
        case 2: return infinity;
        case 3: return u < a ? no_number : dist_0;
        case 4: return -finest;
        case 5: return values.empty() ? g : dist_0 / (1.0 + std::abs(values[0]) + g + g2);
        case 6: return dist_0 * (u < a ? finest : 1.0) * (v < b ? 0.5 : 1.0);
        default: {
          const double distance = std::abs(std::hypot(u - a, v - b) - radius);
          return dist_0 * std::max(finest, 4.0 * distance);
        }
      }
    };
  }

  /// Sometimes some are not written.
  batch_size_function in_batches(const size_function& size) {
    if (!size) return nullptr;
    batches_are_written_ = bytes_.below(4) != 0;
    const std::size_t written = batches_are_written_ ? std::numeric_limits<std::size_t>::max() : 10;
    return [size, written](std::span<const Cell* const> nodes, std::span<double> sizes) {
      for (std::size_t i = 0; i < std::min(nodes.size(), written); ++i) {
        const Cell& c = *nodes[i];
        sizes[i] = size(c.x, c.y, {c.data.data(), c.data.size()}, c.grad_data, c.grad2_data);
      }
    };
  }

  /// A node of the mesh, or nullptr where there is none.
  Cell* node() {
    if (nb_nodes == 0) return nullptr;
    std::int32_t i = (bytes_.next() * 256 + bytes_.next()) % nb_nodes;
    for (const Handle& first : level_beg) {
      Cell* last = nullptr;
      for (Cell* c = first.next; c != nullptr && (last == nullptr || c->ipos == last->ipos);
           last = c, c = c->next) {
        if (i-- == 0) return c;
      }
    }
    fault_ = "a node cannot be reached through the stretches\n";
    return nullptr;
  }

  void insert_proposal() {
    Cell* c = node();
    if (c == nullptr) return;
    std::array<Vertex, 4> proposals;
    std::int32_t n = 0;
    build_vertex(c, proposals, n);
    if (n < 0 || n > 4) fault_ = "build_vertex proposes more than four\n";
    if (n <= 0) return;
    const Vertex& v = proposals[static_cast<std::size_t>(bytes_.below(n))];
    (v.level % 2 != 0 ? insert_node_odd_level : insert_node_even_level)(v);
  }

  void insert_anything() {
    Vertex v;
    Cell* const somewhere = node();
    if (somewhere == nullptr) return;
    regular_ = false;
    const std::int32_t missing = bytes_.below(8);
    v.p1 = missing == 1 ? nullptr : somewhere;
    v.p2 = missing == 2 ? nullptr : node();
    v.p3 = missing == 3 ? nullptr : node();
    v.p4 = missing >= 4 ? nullptr : node();
    const double off = bytes_.below(4) == 0 ? bytes_.one_of(widths) : 0.0;
    v.x = somewhere->x + dist_0 * std::exp2(-bytes_.below(8)) + off;
    v.y = somewhere->y + (bytes_.below(2) == 0 ? 0.0 : dist_0 / 4.0);
    constexpr std::array<std::int32_t, 8> levels = {0, 1, 2, 3, 4, 5, -1, -2147483647 - 1};
    v.level = bytes_.one_of(levels);
    (bytes_.below(2) == 0 ? insert_node_odd_level : insert_node_even_level)(v);
  }

  void remove() {
    const std::int32_t kind = bytes_.below(8);
    Cell* c = kind == 7 ? nullptr : node();
    const bool by_level = kind < 5;
    const bool odd = by_level && c != nullptr ? c->level % 2 == 1 : kind == 5;
    const bool first_grid = c != nullptr && c->ipos == 0;
    odd ? remove_node_odd_level(c) : remove_node_even_level(c);
    if (c == nullptr && (first_grid || !by_level)) regular_ = false;
  }

  void read() {
    Cell* c = node();
    if (c == nullptr) return;
    std::int32_t type = 0, shift = 0;
    CellFaces faces;
    std::array<Point, max_cell_corners> corners;
    double dx = 0.0, dy = 0.0;
    switch (bytes_.below(5)) {
      case 0: cell_type(c, type, shift); break;
      case 1: cell_area(c); break;
      case 2: cell_faces(c, faces); break;
      case 3: cell_polygon(c, corners, type); break;
      default: compute_data_at_node(c, &dx, &dy);
    }
    known_value(*c);
  }

  void call_object(Object& object) {
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

  void resolve_object(Mesh& mesh) {
    const size_function wanted = size(mesh);
    const Resolution how = resolution();
    bytes_.below(2) == 0 ? mesh.resolve(wanted, how) : mesh.resolve(wanted, data(), how);
    check_wants(mesh, wanted);
  }
  void resolve_object_in_batches(Mesh& mesh) {
    const size_function wanted = size(mesh);
    const Resolution how = resolution();
    const batch_size_function sizes = in_batches(wanted);
    bytes_.below(2) == 0 ? mesh.resolve_batched(sizes, how)
                         : mesh.resolve_batched(sizes, data(), how);
    check_wants(mesh, wanted);
  }

  std::int32_t small_limit() { return bytes_.below(14) - 1; }

  void make_object(Object& object) {
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

  void change_node(Mesh& mesh) {
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

  void end_or_move(Object& object) {
    Object& other = objects_[&object == objects_.data() ? 1 : 0];
    if (bytes_.below(2) == 0) {
      object = {};
    } else {
      std::swap(object, other);
    }
  }

  /// Several threads read all nodes and must find the same.
  void read_in_threads(Mesh& mesh) {
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
  static void try_to(const auto& read) {
    try {
      read();
    } catch (const std::runtime_error&) {  // a warning or an error of one node: on with the next
      return;
    }
  }
  static double measure(const Mesh& mesh, Cell& c) {
    double sum = mesh.shape(c).type + 64.0 * mesh.polygon(c).n;
    for (const double length : mesh.faces(c).length) sum += length;
    sum += mesh.area(c);
    return std::isfinite(sum) ? sum : 1.0;
  }

  void end_or_hinder() {
    const std::int32_t byte = bytes_.next();
    if (byte >= 248) {
      intrude_ = byte < 252;
      if (!intrude_) write_limit();
      return;
    }
    switch (byte % 4) {
      case 0: delete_mesh(); break;
      case 1:
        message_handler = pause_handler = [](std::string_view) { throw Thrown("message"); };
        nb_nodes > 0 ? delete_mesh() : make_mesh();
        break;
      case 2: bc_type_ptr = nullptr; break;
      default: data_interpolation = !data_interpolation;
    }
  }

  /// Found out by the next call, unless it fits the level arrays.
  void write_limit() {
    const std::int32_t before = std::exchange(level_max, limit());
    try {
      update_mesh_no_init(size(default_mesh()));
    } catch (const Thrown& thrown) {
      if (std::string_view(thrown.what()).find("'level_max' is") != std::string_view::npos) {
        level_max = before;
      }
      throw;
    }
  }

  /// Some ends must not come about while the caller did everything right.
  void judge_end(std::string_view text) {
    if (!regular_ || !tame_ || !big_enough_) return;
    for (const std::string_view bad : bad_ends) {
      if (text.find(bad) != std::string_view::npos) fault_ = std::string(text) + "\n";
    }
  }

  void judge_end_of_object(std::string_view text) {
    if (text.find("is not whole") != std::string_view::npos) fault_ = std::string(text) + "\n";
    if (current_ == nullptr || !current_->big_enough) return;
    for (const std::string_view bad : bad_ends) {
      if (text.find(bad) != std::string_view::npos) fault_ = std::string(text) + "\n";
    }
  }

  /// Only the one that was called may have changed.
  void check_objects() {
    for (Object& object : objects_) {
      const std::uint64_t hash = object.mesh ? state_hash(*object.mesh) : 0;
      const bool was_called = call_ >= first_of_objects;
      if (!was_called && hash != object.hash) fault_ += "a mesh has changed that was not called\n";
      if (object.mesh && hash != object.hash) {
        for (const Finding& finding : object.mesh->check()) {
          fault_ +=
              "object: " + std::string(finding.rule) + ": " + std::string(finding.text) + "\n";
        }
      }
      object.hash = hash;
    }
  }

  void check() {
    countdown_ = 0;
    check_objects();
    std::vector<Finding> findings;
    check_mesh(findings);
    for (const Finding& finding : findings) {
      constexpr std::array<std::string_view, 6> always = {"arrays", "list", "stretch",
                                                          "count",  "id",   "link"};
      if (!regular_ && std::find(always.begin(), always.end(), finding.rule) == always.end()) {
        continue;
      }
      fault_ += std::string(finding.rule) + ": " + std::string(finding.text) + "\n";
    }
    if (regular_ && !values_differ_ && n_cell_data >= 0 && bc_type_ptr) {
      for (const std::string& text : find_faults()) fault_ += "independently: " + text + "\n";
    }
    if (!fault_.empty()) fault_ = "after call " + std::to_string(call_) + "\n" + fault_;
  }

  /// Calls from these bytes on; those before are of the default mesh, by their lowest four bits.
  static constexpr int first_of_resolves = 208, end_of_resolves = 224, first_of_batches = 224,
                       first_of_readers = 230, first_of_objects = 232,
                       first_of_object_resolves = 230;
  static constexpr std::array<std::string_view, 4> bad_ends = {
      "internal error", "cannot be removed", "belongs to level", "insert_node_odd on_boundary"};
  static constexpr std::array<double, 8> origins = {0.0,  -1.0, 10.0,      1000.0,
                                                    -0.1, 1e9,  no_number, infinity};
  static constexpr std::array<double, 8> widths = {1.0,  2.0,    4.0, 0.3,
                                                   1e-3, 1e-300, 0.0, no_number};

  Bytes bytes_;
  std::array<Boundary, 12> records_;
  std::array<Object, 2> objects_;
  const Object* current_ = nullptr;  ///< that was called last
  std::string fault_;
  int call_ = 0, countdown_ = 0;
  int size_kind_ = 0;                ///< of the last size function
  bool batches_are_written_ = true;  ///< by the last one in batches, or there is none
  bool intrude_ = false;             ///< a callback changes the default mesh
  bool regular_ = true;              ///< the caller did nothing that breaks the geometry
  bool tame_ = false;                ///< positions can be told apart well
  bool big_enough_ = false;          ///< for derivatives
  bool values_differ_ = false;       ///< in number: n_cell_data is the caller's to change
};

}  // namespace

std::string run_calls(std::span<const std::uint8_t> bytes) { return Run(bytes).run(); }

}  // namespace velmar_2d::tests
