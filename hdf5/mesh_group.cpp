#include "hdf5/mesh_group.hpp"

#include <algorithm>
#include <limits>

namespace velmar_2d::hdf5 {

namespace {

using detail::Snapshot;

constexpr const char* own_arrays = "arrays";
constexpr std::int32_t most_values_of_a_node = 1'000'000'000;

/// The numbers of a mesh, as attributes, in either direction: use(name, first value, count).
template <typename S, typename Use>
void each_attribute(S& s, const Use& use) {
  use("x_min", &s.x_min, 1);
  use("x_max", &s.x_max, 1);
  use("y_min", &s.y_min, 1);
  use("y_max", &s.y_max, 1);
  use("dist_0", &s.dist_0, 1);
  use("limit", &s.limit, 1);
  use("n_cell_data", &s.n_cell_data, 1);
  use("next_id", &s.next_id, 1);
  use("revision", &s.revision, 1);
  use("resolved_revision", &s.resolved_revision, 1);
  use("transfer", &s.transfer, 1);
  use("level_range", s.level_range.data(), s.level_range.size());
  use("visited", &s.statistics.visited, 1);
  use("inserted", &s.statistics.inserted, 1);
  use("removed", &s.statistics.removed, 1);
  use("refused", &s.statistics.refused, 1);
}

/// What is yes or no.
template <typename S, typename Use>
void each_flag(S& s, const Use& use) {
  use("surplus_has_gone", s.surplus_has_gone);
  use("list_is_split", s.list_is_split);
  use("links_may_be_one_way", s.links_may_be_one_way);
  use("lattice_is_whole", s.lattice_is_whole);
  use("first_grid_is_whole", s.first_grid_is_whole);
}

/// The fields of the nodes, in either direction: use(name, array, columns, unit, what it is).
template <typename S, typename Use>
void each_field(S& s, const Use& use) {
  const char *length = "length", *area = "area", *none = "";
  use("id", s.id, 1, none, "ids, unique among all nodes that the mesh has had");
  use("x", s.x, 1, length, "positions");
  use("y", s.y, 1, length, "positions");
  use("level", s.level, 1, none, "levels: l stands for the spacing dist_0 / 2^(l/2)");
  use("links", s.links, 8, none,
      "rows of the linked nodes n, ne, e, se, s, sw, w, nw; -1: none; below: the record of a side, "
      "-2 - 3 * side - kind with sides n, e, s, w and kinds Dirichlet, Neumann, other");
  use("link_levels", s.link_levels, 1, none, "a bit for each link of level 2, n is bit 0");
  use("reserve", s.reserve, 1, none, "finer neighbours awaited before the level rises");
  use("on_boundary", s.on_boundary, 1, none, "number of sides that the node lies on");
  use("wanted_level", s.wanted_level, 1, none, "level up to which finer neighbours are kept");
  use("signature_set", s.signature_set, 1, none, "whether the signature is current");
  use("signature", s.signature, 2, none, "shape of the control cell");
  use("area", s.area, 1, area, "area of the control cell; negative: not computed yet");
  use("used", s.used, 1, none, "mark of the caller's");
  use("grad_data", s.grad_data, 1, none, "gradient norm of the first value");
  use("grad2_data", s.grad2_data, 1, none, "Frobenius norm of the Hessian of the first value");
}

struct Sides {
  std::array<double, 12> values{};
  std::array<std::int32_t, 12> kinds{};
  std::array<std::uint8_t, 12> present{};
};

void write_sides(hid_t group, const Snapshot& s) {
  Sides sides;
  for (std::size_t i = 0; i < sides.values.size(); ++i) {
    sides.values[i] = s.side_records[i / 3][i % 3].c;
    sides.kinds[i] = s.side_records[i / 3][i % 3].bc_type;
    sides.present[i] = s.has_side_record[i / 3][i % 3] ? 1 : 0;
  }
  write_attribute(group, "side_values", type_in_file<double>(), sides.values.data(), 12);
  write_attribute(group, "side_kinds", type_in_file<std::int32_t>(), sides.kinds.data(), 12);
  write_attribute(group, "side_has_record", type_in_file<std::uint8_t>(), sides.present.data(), 12);
}

void read_sides(hid_t group, Snapshot& s) {
  Sides sides;
  read_attribute(group, "side_values", type_in_file<double>(), sides.values.data(), 12);
  read_attribute(group, "side_kinds", type_in_file<std::int32_t>(), sides.kinds.data(), 12);
  read_attribute(group, "side_has_record", type_in_file<std::uint8_t>(), sides.present.data(), 12);
  for (std::size_t i = 0; i < sides.values.size(); ++i) {
    s.side_records[i / 3][i % 3] = {sides.values[i], sides.kinds[i]};
    s.has_side_record[i / 3][i % 3] = sides.present[i] != 0;
  }
}

template <typename T>
ArrayToWrite array_of(const std::string& name, const std::vector<T>& values, std::size_t columns,
                      bool is_matrix) {
  const std::size_t rows = columns == 0 ? 0 : values.size() / columns;
  return {name,
          type_in_file<T>,
          shape_to_write(sizeof(T), rows, columns, false, is_matrix),
          values.data(),
          {},
          {}};
}

/// The array of a mesh with this many rows and columns, into memory of its own.
template <typename T>
void read_array(hid_t group, const char* name, std::vector<T>& values, std::size_t rows,
                std::size_t columns, bool is_matrix, std::size_t bytes_of_file,
                std::vector<ArrayToRead>& arrays) {
  ArrayToRead array;
  array.shape = shape_in_file(group, name, type_in_file<T>(), false, bytes_of_file);
  if (array.shape.rows != rows || array.shape.columns != columns ||
      array.shape.is_matrix != is_matrix) {
    throw Error("the array '" + std::string(name) + "' has another size than the mesh");
  }
  read_chunks(group, name, array);
  values.resize(rows * columns);
  array.values = values.data();
  arrays.push_back(std::move(array));
}

std::size_t rows_of(hid_t group, const char* name, hid_t type, std::size_t bytes_of_file) {
  return shape_in_file(group, name, type, false, bytes_of_file).rows;
}

void check_options(const SaveOptions& options) {
  check_name(options.name);
  if (options.data_names.size() > most_values_of_a_node) throw Error("too many names of values");
  for (const NamedArray& array : options.arrays) {
    check_name(array.name);
    if (array.columns == 0 || array.values.size() % array.columns != 0) {
      throw Error("the values of the array '" + array.name + "' do not fill its " +
                  std::to_string(array.columns) + " columns");
    }
    const auto same_name = [&](const NamedArray& other) { return other.name == array.name; };
    if (std::count_if(options.arrays.begin(), options.arrays.end(), same_name) > 1) {
      throw Error("two arrays have the name '" + array.name + "'");
    }
  }
}

}  // namespace

void check_name(const std::string& name) {
  constexpr std::size_t longest = 255;
  if (name.empty() || name.size() > longest || name == "." || name == ".." ||
      name.find('/') != std::string::npos || name.find('\0') != std::string::npos) {
    throw Error("'" + name.substr(0, longest) +
                "' cannot be a name: it must have 1 to 255 bytes, none of them '/'");
  }
}

MeshToWrite::MeshToWrite(const Mesh& mesh, const SaveOptions& options) : options_(options) {
  check_options(options);
  snapshot_ = detail::take_snapshot(mesh);
  const auto nb_values = static_cast<std::size_t>(snapshot_.n_cell_data);
  if (std::max(options.data_names.size(), options.data_units.size()) > nb_values) {
    throw Error("there are more names or units than the " + std::to_string(nb_values) +
                " values of a node");
  }
  arrays_.push_back(array_of("stretches", snapshot_.stretch_sizes, 1, false));
  arrays_.back().description = "nodes of each level of position; rows are in their order";
  each_field(snapshot_, [&](const char* name, const auto& values, std::size_t columns,
                            std::string_view unit, const char* description) {
    ArrayToWrite array = array_of(name, values, columns, columns > 1);
    array.description = description;
    if (unit == "length") array.units = options_.length_unit;
    if (unit == "area" && !options_.length_unit.empty()) {
      array.units = "(" + options_.length_unit + ")^2";
    }
    arrays_.push_back(std::move(array));
  });
  if (snapshot_.data_sizes.empty()) {
    // A mesh without values has none to show.
    if (nb_values > 0) arrays_.push_back(array_of("data", snapshot_.data, nb_values, true));
  } else {
    arrays_.push_back(array_of("data_sizes", snapshot_.data_sizes, 1, false));
    arrays_.push_back(array_of("data", snapshot_.data, 1, false));
    arrays_.back().description = "values, node after node";
  }
  for (const NamedArray& own : options.arrays) {
    const std::size_t rows = own.values.size() / own.columns;
    own_arrays_.push_back({own.name,
                           type_in_file<double>,
                           shape_to_write(sizeof(double), rows, own.columns, true, own.columns > 1),
                           own.values.data(),
                           own.units,
                           {}});
  }
  compress(arrays_);
  compress(own_arrays_);
}

std::size_t MeshToWrite::compressed_bytes() const {
  std::size_t bytes = 0;
  for (const auto* arrays : {&arrays_, &own_arrays_}) {
    for (const ArrayToWrite& array : *arrays) {
      for (const Bytes& chunk : array.chunks) bytes += chunk.size;
    }
  }
  return bytes;
}

void MeshToWrite::write(hid_t parent, const std::string& name,
                        std::optional<std::int64_t> step) const {
  const Object group = make_group(parent, name);
  write_number(group, "nodes", static_cast<std::int64_t>(snapshot_.size()));
  if (step) write_number(group, "step", *step);
  if (options_.time) write_number(group, "time", *options_.time);
  each_attribute(snapshot_, [&](const char* attribute, const auto* values, std::size_t count) {
    using T = std::remove_cvref_t<decltype(*values)>;
    write_attribute(group, attribute, type_in_file<T>(), values, count);
  });
  each_flag(snapshot_, [&](const char* attribute, bool value) {
    write_number(group, attribute, static_cast<std::uint8_t>(value));
  });
  write_sides(group, snapshot_);
  for (const ArrayToWrite& array : arrays_) {
    const Object dataset = write_array(group, array);
    if (array.name != "data") continue;
    if (!options_.data_names.empty()) write_texts(dataset, "names", options_.data_names);
    if (!options_.data_units.empty()) write_texts(dataset, "units", options_.data_units);
  }
  if (own_arrays_.empty()) return;
  const Object own = make_group(group, own_arrays);
  for (const ArrayToWrite& array : own_arrays_) write_array(own, array);
}

std::int64_t nodes_in(hid_t group) { return read_number<std::int64_t>(group, "nodes"); }

void MeshToRead::read(hid_t group, std::size_t bytes_of_file) {
  Snapshot& s = snapshot_;
  const std::int64_t nodes = nodes_in(group);
  if (nodes < 1 || nodes > std::numeric_limits<std::int32_t>::max()) {
    throw Error("the number of nodes is none");
  }
  const auto n = static_cast<std::size_t>(nodes);
  each_attribute(s, [&](const char* attribute, auto* values, std::size_t count) {
    using T = std::remove_reference_t<decltype(*values)>;
    read_attribute(group, attribute, type_in_file<T>(), values, count);
  });
  each_flag(s, [&](const char* attribute, bool& value) {
    value = read_number<std::uint8_t>(group, attribute) != 0;
  });
  read_sides(group, s);
  if (s.n_cell_data < 0 || s.n_cell_data > most_values_of_a_node) {
    throw Error("the number of values of a node is none");
  }

  const std::size_t nb_stretches =
      rows_of(group, "stretches", type_in_file<std::int32_t>(), bytes_of_file);
  if (nb_stretches > static_cast<std::size_t>(detail::most_stretches)) {
    throw Error("there are too many stretches");
  }
  read_array(group, "stretches", s.stretch_sizes, nb_stretches, 1, false, bytes_of_file, arrays_);
  each_field(
      s, [&](const char* name, auto& values, std::size_t columns, std::string_view, const char*) {
        read_array(group, name, values, n, columns, columns > 1, bytes_of_file, arrays_);
      });
  const auto nb_values = static_cast<std::size_t>(s.n_cell_data);
  if (has_link(group, "data_sizes")) {
    const std::size_t rows = rows_of(group, "data", type_in_file<double>(), bytes_of_file);
    read_array(group, "data_sizes", s.data_sizes, n, 1, false, bytes_of_file, arrays_);
    read_array(group, "data", s.data, rows, 1, false, bytes_of_file, arrays_);
  } else if (nb_values > 0) {
    read_array(group, "data", s.data, n, nb_values, true, bytes_of_file, arrays_);
  }
}

const detail::Snapshot& MeshToRead::complete() {
  decompress(arrays_);
  std::vector<ArrayToRead>().swap(arrays_);
  return snapshot_;
}

Mesh MeshToRead::restore(const bc_type_function& bc_type, bool check) {
  return detail::restore(complete(), bc_type, check);
}

void MeshToRead::restore_default(const bc_type_function& bc_type, bool check) {
  detail::restore_default(complete(), bc_type, check);
}

void ArraysToRead::read(hid_t group, std::size_t bytes_of_file) {
  if (!has_link(group, own_arrays)) return;
  const Object own = open_group(group, own_arrays);
  const std::vector<std::string> names = names_in(own);
  loaded_.reserve(names.size());  // so that the values stay where they are
  for (const std::string& name : names) {
    ArrayToRead array;
    array.shape = shape_in_file(own, name, type_in_file<double>(), true, bytes_of_file);
    read_chunks(own, name, array);
    LoadedArray& loaded = loaded_.emplace_back();
    loaded.name = name;
    loaded.columns = array.shape.columns;
    loaded.values.resize(array.shape.rows * array.shape.columns);
    array.values = loaded.values.data();
    arrays_.push_back(std::move(array));
  }
}

std::vector<LoadedArray> ArraysToRead::take() {
  decompress(arrays_);
  return std::move(loaded_);
}

}  // namespace velmar_2d::hdf5
