// The tables of a mesh.
//
// One walk through the list numbers the nodes. Then their records are read in that order, by any
// number of threads: a link tells the address of a node and with it its number, so that no node
// but the current one is read.
#include <string>

#include "velmar_2D/arrays/arrays.hpp"

namespace velmar_2d::detail {

namespace {

using Numbers = std::array<std::int32_t, 13>;

/// Links to anything but nodes, where they are looked up: none, and the codes of the sides.
constexpr Numbers codes = [] {
  Numbers all{};
  for (std::int32_t i = 0; i < 13; ++i) all[static_cast<std::size_t>(i)] = -1 - i;
  return all;
}();

/// Links of a whole mesh lead to sides in straight directions only, and there to their records.
const std::int32_t* place_of_side(const State& state, const Boundary* record, int direction) {
  if (direction % 2 != 0) return codes.data();
  const auto& records = state.side_records[static_cast<std::size_t>(direction / 2)];
  std::int32_t kind = bc_type_dir;
  while (kind <= bc_type_oth && records[static_cast<std::size_t>(kind)] != record) ++kind;
  if (kind > bc_type_oth) kind = std::clamp(record->bc_type, bc_type_dir, bc_type_oth);
  return &codes[static_cast<std::size_t>(-1 - code_of_side(direction, kind))];
}

// ---------------------------------------------------------------------------------------------
// Numbering
// ---------------------------------------------------------------------------------------------

/// Takes the nodes as they come. Their numbers are written a little later than places for them are
/// found, which lie anywhere.
class Numbering {
 public:
  Numbering(const State& state, MeshTables& tables) : state_(state), tables_(tables) {
    tables_.numbers.forget();
    tables_.nodes.resize(static_cast<std::size_t>(state.nb_nodes));
  }
  void add(Cell& c) {
    if (n_ == tables_.nodes.size()) list_was_changed(state_, "MeshArrays");
    tables_.nodes[n_] = &c;
    if (n_ >= later) write(n_ - later);
    std::int32_t* place = tables_.numbers.place_for(&c);
    prefetch_to_write(place);
    places_[n_ % later] = place;
    ++n_;
  }
  void end() {
    if (n_ != tables_.nodes.size()) list_was_changed(state_, "MeshArrays");
    for (std::size_t i = n_ > later ? n_ - later : 0; i < n_; ++i) write(i);
  }

 private:
  static constexpr std::size_t later = 16;
  void write(std::size_t i) { *places_[i % later] = static_cast<std::int32_t>(i); }

  const State& state_;
  MeshTables& tables_;
  std::size_t n_ = 0;
  std::array<std::int32_t*, later> places_{};
};

void number_nodes(const State& state, MeshTables& tables) {
  static_assert(std::is_same_v<decltype(state.nb_nodes), std::int32_t>,
                "numbers are as wide as the count of nodes");
  Numbering numbering(state, tables);
  Walk walk = Walk::to_share(state.history);
  if (!state.lists_are_split()) {
    for (Cell& c : walk(state.mesh_beg)) numbering.add(c);
  } else {
    for (const Handle& stretch : state.level_beg) {
      for (Cell& c : walk(stretch.next)) numbering.add(c);
    }
  }
  numbering.end();
}

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

class Reading {
 public:
  Reading(const State& state, MeshTables& tables) : state_(state), tables_(tables) {
    const std::size_t n = tables.nodes.size();
    tables.position.resize(2 * n);
    tables.area.resize(n);
    for (Table<std::int32_t>* table : {&tables.level, &tables.shape}) table->resize(n);
    tables.links.resize(n * nb_directions);
    tables.known.resize(n);
  }

  void read(std::size_t begin, std::size_t end) {
    for (; begin < end; begin += nodes_of_batch) {
      read_batch(begin, std::min(begin + nodes_of_batch, end));
    }
  }

  bool some_have_no_known_shape() const { return unknown_shapes_.load(); }
  bool some_link_leads_astray() const { return stray_links_.load(); }

 private:
  static constexpr std::size_t nodes_of_batch = 32, nodes_ahead = 8;

  void prefetch_record(std::size_t i) const {
    if (i >= tables_.nodes.size()) return;
    const auto* record = reinterpret_cast<const char*>(tables_.nodes[i]);
    for (std::size_t line = 0; line < sizeof(Cell); line += cache_line) prefetch(record + line);
  }

  /// First where the numbers are to be looked up, then the numbers: they are on their way to the
  /// cache meanwhile.
  void read_batch(std::size_t begin, std::size_t end) {
    const NodeNumbers::Lookup numbers = tables_.numbers.lookup();
    std::array<const std::int32_t*, nodes_of_batch * nb_directions> places;
    const std::int32_t** place = places.data();
    for (std::size_t i = begin; i < end; ++i) {
      prefetch_record(i + nodes_ahead);
      Cell& c = *tables_.nodes[i];
      read_fields(c, i);
      for (int d = 0; d < nb_directions; ++d) {
        const NeighbourLink there = link(std::as_const(c), d);
        const Boundary* record = there.boundary();
        *place =
            record == nullptr ? numbers.place_of(there.cell()) : place_of_side(state_, record, d);
        prefetch(*place++);
      }
    }
    std::int32_t* links = &tables_.links[begin * nb_directions];
    bool stray = false;
    for (const std::int32_t** next = places.data(); next != place; ++next) {
      *links = **next;
      stray = stray || *links++ == NodeNumbers::unknown;
    }
    if (stray) stray_links_ = true;
  }

  void read_fields(Cell& c, std::size_t i) {
    tables_.position[i] = c.x;
    tables_.position[tables_.nodes.size() + i] = c.y;
    tables_.level[i] = c.level;
    tables_.known[i] = static_cast<std::uint8_t>(known_value(c));
    const KnownShape* shape = look_at(state_.domain, c).shape;
    if (shape == nullptr) {
      tables_.shape[i] = -1;
      unknown_shapes_ = true;
      return;
    }
    tables_.shape[i] = shape->index;
    const double area = load_shared(c.area);
    tables_.area[i] = is_known_area(area) ? area : area_of(state_.domain, *shape, c.level);
  }

  const State& state_;
  MeshTables& tables_;
  std::atomic<bool> unknown_shapes_ = false, stray_links_ = false;
};

std::array<double, nb_directions> weights_of(const std::array<double, nb_directions>& length,
                                             const std::array<double, nb_directions>& distance) {
  std::array<double, nb_directions> weights{};
  for (std::size_t d = 0; d < nb_directions; ++d) {
    if (length[d] > 0.0) weights[d] = length[d] / distance[d];
  }
  return weights;
}

/// Their areas come with warnings, one after the other.
void measure_other_shapes(const State& state, MeshTables& tables) {
  for (std::size_t i = 0; i < tables.nodes.size(); ++i) {
    if (tables.shape[i] >= 0) continue;
    tables.shape[i] = static_cast<std::int32_t>(tables.weights.size());
    tables.area[i] = cell_area(state, *tables.nodes[i]);
    CellFaces faces;
    cell_faces(state, *tables.nodes[i], faces);
    tables.weights.push_back(weights_of(faces.length, faces.distance));
    tables.others.push_back(faces);
  }
}

}  // namespace

void make_tables(const State& state, MeshTables& tables, std::int32_t threads) {
  number_nodes(state, tables);
  tables.domain = state.domain;
  tables.weights.clear();
  tables.others.clear();
  for (const KnownShape& shape : known_shapes()) {
    tables.weights.push_back(weights_of(shape.length, shape.distance));
  }
  Reading reading(state, tables);
  in_parts(tables.nodes.size(), threads,
           [&](std::size_t begin, std::size_t end) { reading.read(begin, end); });
  if (reading.some_link_leads_astray()) {
    fatal(state.handlers,
          "(velmar_2D/MeshArrays:) ERROR: a link leads to what is no node of the mesh\n"
          "        (Links must not be changed by hand.)");
  }
  if (reading.some_have_no_known_shape()) measure_other_shapes(state, tables);
}

CellFaces faces_of(const MeshTables& tables, std::size_t number) {
  const auto shape = static_cast<std::size_t>(tables.shape[number]);
  if (shape >= nb_known_shapes) return tables.others[shape - nb_known_shapes];
  CellFaces faces;
  scale_known_shape(tables.domain, known_shapes()[shape], tables.level[number], faces);
  for (std::size_t d = 0; d < nb_directions; ++d) {
    const std::int32_t there = tables.links[number * nb_directions + d];
    if (there >= 0) faces.neighbour[d] = tables.nodes[static_cast<std::size_t>(there)];
  }
  return faces;
}

}  // namespace velmar_2d::detail
