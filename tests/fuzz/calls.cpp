#include "fuzz/calls.hpp"

#include <cmath>

#include "fuzz/run.hpp"
#include "support/mesh_checker.hpp"
#include "support/mesh_view.hpp"

namespace velmar_2d::tests {

namespace fuzz {

std::string Run::run() {
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

void Run::prepare() {
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

void Run::clear() {
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

void Run::call() {
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

void Run::call_default_mesh() {
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

void Run::resolve_default_mesh() {
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

void Run::check_wants(const Mesh& mesh, const size_function& wanted) {
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

void Run::set_records() {
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

void Run::set_number_of_values() {
  n_cell_data = bytes_.below(5) - 1;
  values_differ_ = nb_nodes > 0;
}

void Run::make_mesh() {
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

void Run::insert_proposal() {
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

void Run::insert_anything() {
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

void Run::remove() {
  const std::int32_t kind = bytes_.below(8);
  Cell* c = kind == 7 ? nullptr : node();
  const bool by_level = kind < 5;
  const bool odd = by_level && c != nullptr ? c->level % 2 == 1 : kind == 5;
  const bool first_grid = c != nullptr && c->ipos == 0;
  odd ? remove_node_odd_level(c) : remove_node_even_level(c);
  if (c == nullptr && (first_grid || !by_level)) regular_ = false;
}

void Run::read() {
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

void Run::end_or_hinder() {
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

void Run::write_limit() {
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

void Run::judge_end(std::string_view text) {
  if (!regular_ || !tame_ || !big_enough_) return;
  for (const std::string_view bad : bad_ends) {
    if (text.find(bad) != std::string_view::npos) fault_ = std::string(text) + "\n";
  }
}

void Run::judge_end_of_object(std::string_view text) {
  if (text.find("is not whole") != std::string_view::npos) fault_ = std::string(text) + "\n";
  if (current_ == nullptr || !current_->big_enough) return;
  for (const std::string_view bad : bad_ends) {
    if (text.find(bad) != std::string_view::npos) fault_ = std::string(text) + "\n";
  }
}

void Run::check_objects() {
  for (Object& object : objects_) {
    const std::uint64_t hash = object.mesh ? state_hash(*object.mesh) : 0;
    const bool was_called = call_ >= first_of_objects;
    if (!was_called && hash != object.hash) fault_ += "a mesh has changed that was not called\n";
    if (object.mesh && hash != object.hash) {
      for (const Finding& finding : object.mesh->check()) {
        fault_ += "object: " + std::string(finding.rule) + ": " + std::string(finding.text) + "\n";
      }
    }
    object.hash = hash;
  }
}

void Run::check() {
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

}  // namespace fuzz

std::string run_calls(std::span<const std::uint8_t> bytes) { return fuzz::Run(bytes).run(); }

}  // namespace velmar_2d::tests
