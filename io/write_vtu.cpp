// The file is an XML text with one element for each array. The numbers stand in the elements, or
// after the text: each array behind its length in bytes.
#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <new>
#include <pugixml.hpp>
#include <sstream>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "io/output_file.hpp"
#include "io/vtu_part.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d::io {
namespace {

// ---------------------------------------------------------------------------------------------
// Elements. pugixml itself says nothing where memory is exhausted, and the element is missing.
// ---------------------------------------------------------------------------------------------

pugi::xml_node child(pugi::xml_node parent, const char* name) {
  const pugi::xml_node node = parent.append_child(name);
  if (!node) throw std::bad_alloc();
  return node;
}

template <typename Value>
void set(pugi::xml_node node, const char* name, Value value) {
  pugi::xml_attribute attribute = node.append_attribute(name);
  if (!attribute.set_value(value)) throw std::bad_alloc();
}

void set_text(pugi::xml_node node, const char* text) {
  if (!node.text().set(text)) throw std::bad_alloc();
}

// ---------------------------------------------------------------------------------------------
// Arrays
// ---------------------------------------------------------------------------------------------

template <typename Number>
constexpr const char* vtk_type() {
  if constexpr (std::is_same_v<Number, double>) return "Float64";
  if constexpr (std::is_same_v<Number, std::int64_t>) return "Int64";
  if constexpr (std::is_same_v<Number, std::int32_t>) return "Int32";
  if constexpr (std::is_same_v<Number, std::uint8_t>) return "UInt8";
}

template <typename Number>
std::string as_text(const std::vector<Number>& numbers) {
  constexpr std::size_t numbers_per_line = 12;
  std::string text;
  std::array<char, 32> digits;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), numbers[i]).ptr;
    text += i % numbers_per_line == 0 ? '\n' : ' ';
    text.append(digits.data(), end);
  }
  return text + '\n';
}

/// The elements of a file, and the bytes that follow them.
class ArrayWriter {
 public:
  explicit ArrayWriter(bool ascii) : ascii_(ascii) {}

  template <typename Number>
  pugi::xml_node add(pugi::xml_node parent, const std::string& name,
                     const std::vector<Number>& numbers, int components = 1) {
    pugi::xml_node element = child(parent, "DataArray");
    set(element, "type", vtk_type<Number>());
    set(element, "Name", name.c_str());
    if (components > 1) set(element, "NumberOfComponents", components);
    if (ascii_) {
      set(element, "format", "ascii");
      set_text(element, as_text(numbers).c_str());
      return element;
    }
    set(element, "format", "appended");
    const std::size_t length = numbers.size() * sizeof(Number);
    const std::uint64_t head = length;
    std::string bytes(sizeof head + length, '\0');
    std::memcpy(bytes.data(), &head, sizeof head);
    if (length > 0) std::memcpy(bytes.data() + sizeof head, numbers.data(), length);
    appended_.push_back({element, std::move(bytes)});
    return element;
  }

  /// Tells the elements where their numbers lie. The last array comes first in the bytes: meshio
  /// looks arrays up by offset while it is replacing the offsets, from the first byte on, and so
  /// always meets the one that it has not replaced yet.
  void set_offsets() {
    unsigned long long offset = 0;
    std::reverse(appended_.begin(), appended_.end());
    for (auto& [element, bytes] : appended_) {
      set(element, "offset", offset);
      offset += bytes.size();
    }
  }

  void write_bytes(OutputFile& file) const {
    for (const Appended& array : appended_) file.write(array.bytes);
  }

 private:
  struct Appended {
    pugi::xml_node element;
    std::string bytes;  ///< length, numbers
  };

  bool ascii_;
  std::vector<Appended> appended_;
};

// ---------------------------------------------------------------------------------------------
// Points and cells
// ---------------------------------------------------------------------------------------------

constexpr std::uint8_t vtk_triangle = 5, vtk_polygon = 7;
constexpr std::uint8_t owned = 0, double_point = 1;  ///< in vtkGhostType

struct VtkGrid {
  std::vector<const Cell*> nodes;  ///< whose values are written, in the order of points or cells
  std::vector<double> points;      ///< x, y, z of each
  std::vector<std::int64_t> connectivity, offsets;
  std::uint8_t cell_kind = vtk_triangle;

  void add_point(double x, double y) { points.insert(points.end(), {x, y, 0.0}); }
  void close_cell() { offsets.push_back(static_cast<std::int64_t>(connectivity.size())); }
};

VtkGrid grid_of_triangles(const Mesh& mesh) {
  Triangulation triangulation = mesh.triangulation();
  VtkGrid grid;
  grid.nodes = std::move(triangulation.nodes);
  grid.points.reserve(3 * grid.nodes.size());
  for (const Cell* node : grid.nodes) grid.add_point(node->x, node->y);
  grid.connectivity.reserve(3 * triangulation.triangles.size());
  grid.offsets.reserve(triangulation.triangles.size());
  for (const auto& triangle : triangulation.triangles) {
    grid.connectivity.insert(grid.connectivity.end(), triangle.begin(), triangle.end());
    grid.close_cell();
  }
  return grid;
}

/// Points are the nodes of the part, then those of others that its triangles need.
VtkGrid grid_of_triangles(const Mesh& mesh, const VtuPart& part) {
  const Triangulation triangulation = mesh.triangulation();
  VtkGrid grid;
  std::vector<std::int64_t> point_of(triangulation.nodes.size(), -1);
  const auto add_node = [&](std::size_t i) {
    point_of[i] = static_cast<std::int64_t>(grid.nodes.size());
    grid.nodes.push_back(triangulation.nodes[i]);
    grid.add_point(triangulation.nodes[i]->x, triangulation.nodes[i]->y);
  };
  for (std::size_t i = 0; i < point_of.size(); ++i) {
    if (part.owns(*triangulation.nodes[i])) add_node(i);
  }
  for (const auto& triangle : triangulation.triangles) {
    const Cell* lowest = nullptr;
    for (const std::int32_t corner : triangle) {
      const Cell* c = triangulation.nodes[static_cast<std::size_t>(corner)];
      if (lowest == nullptr || c->y < lowest->y || (c->y == lowest->y && c->x < lowest->x)) {
        lowest = c;
      }
    }
    if (!part.owns(*lowest)) continue;
    for (const std::int32_t corner : triangle) {
      const auto i = static_cast<std::size_t>(corner);
      if (point_of[i] < 0) add_node(i);
      grid.connectivity.push_back(point_of[i]);
    }
    grid.close_cell();
  }
  return grid;
}

/// Tells corners apart: cells that meet in a corner compute it each for itself, up to rounding.
/// Corners lie on a lattice a good deal finer than the shortest link.
class CornerIndex {
 public:
  explicit CornerIndex(const Mesh& mesh) : west_(mesh.x_min()), south_(mesh.y_min()) {
    std::int32_t finest_level = 0;
    for (const Cell& node : mesh.nodes()) finest_level = std::max(finest_level, node.level);
    pitch_ = std::ldexp(mesh.dist_0(), -finest_level / 2 - corner_halvings);
  }

  /// Index of a corner, and whether it is a new one.
  std::pair<std::int64_t, bool> find(const Point& corner) {
    const Place place{std::llround((corner.x - west_) / pitch_),
                      std::llround((corner.y - south_) / pitch_)};
    const auto [entry, is_new] =
        index_of_.try_emplace(place, static_cast<std::int64_t>(index_of_.size()));
    return {entry->second, is_new};
  }

 private:
  static constexpr int corner_halvings = 6;
  struct Place {
    long long column, row;
    bool operator==(const Place&) const = default;
  };
  struct Hash {
    std::size_t operator()(const Place& place) const {
      const auto mixed = static_cast<std::uint64_t>(place.column) * 0x9e3779b97f4a7c15 ^
                         std::rotl(static_cast<std::uint64_t>(place.row) * 0xc2b2ae3d27d4eb4f, 31);
      return static_cast<std::size_t>(mixed ^ mixed >> 29);
    }
  };

  double west_, south_, pitch_;
  std::unordered_map<Place, std::int64_t, Hash> index_of_;  // looked up only: no matter its order
};

/// Of all nodes, or those of a part.
VtkGrid grid_of_control_cells(const Mesh& mesh, const VtuPart* part) {
  VtkGrid grid;
  grid.cell_kind = vtk_polygon;
  grid.nodes.reserve(static_cast<std::size_t>(mesh.size()));
  CornerIndex corner_index(mesh);
  for (const Cell& node : mesh.nodes()) {
    if (part != nullptr && !part->owns(node)) continue;
    for (const Point& corner : mesh.polygon(node)) {
      const auto [index, is_new] = corner_index.find(corner);
      if (is_new) grid.add_point(corner.x, corner.y);
      grid.connectivity.push_back(index);
    }
    grid.close_cell();
    grid.nodes.push_back(&node);
  }
  return grid;
}

// ---------------------------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------------------------

/// What several threads may find out and note in a node at the same time; all note the same.
double shared(const double& value) {
  return std::atomic_ref<double>(const_cast<double&>(value)).load(std::memory_order_relaxed);
}

constexpr std::array<const char*, 7> own_names = {"id",   "level",     "ipos",      "on_boundary",
                                                  "area", "grad_data", "grad2_data"};

std::size_t most_data(const Mesh& mesh) {
  std::size_t most = 0;
  for (const Cell& node : mesh.nodes()) most = std::max(most, node.data.size());
  return most;
}

std::string name_of(std::size_t value) { return "data_" + std::to_string(value + 1); }

/// What is wrong with the names of the data values; empty: nothing.
std::string fault_of(const std::vector<std::string>& names, std::size_t nb_data) {
  if (names.size() > nb_data) {
    return "there are " + std::to_string(names.size()) + " data_names for " +
           std::to_string(nb_data) + " data values";
  }
  for (auto name = names.begin(); name != names.end(); ++name) {
    if (name->empty()) return "one of the data_names is empty";
    if (std::find(names.begin(), name, *name) != name) return *name + " is twice among data_names";
    if (std::find(own_names.begin(), own_names.end(), *name) != own_names.end()) {
      return *name + " among data_names is what the file calls a field of the nodes";
    }
    for (std::size_t i = names.size(); i < nb_data; ++i) {
      if (*name == name_of(i)) return *name + " among data_names is what another value is called";
    }
  }
  return {};
}

void add_values(ArrayWriter& arrays, pugi::xml_node parent, const Mesh& mesh,
                const std::vector<const Cell*>& nodes, const VtuOptions& options,
                const VtuPart* part) {
  const auto add = [&](const std::string& name, auto&& value_of) {
    std::vector<std::decay_t<decltype(value_of(*nodes[0]))>> values;
    values.reserve(nodes.size());
    for (const Cell* node : nodes) values.push_back(value_of(*node));
    arrays.add(parent, name, values);
  };
  add("id", [&](const Cell& node) { return part == nullptr ? node.id : part->number(node); });
  const auto is_there = [&](const Cell& node) { return part != nullptr && !part->owns(node); };
  add("level",
      [&](const Cell& node) { return is_there(node) ? part->level_there(node) : node.level; });
  add("ipos", [](const Cell& node) { return node.ipos; });
  add("on_boundary", [](const Cell& node) { return node.on_boundary; });
  add("area", [&](const Cell& node) {
    return is_there(node) ? part->area_there(node) : area_of(mesh, node);
  });
  add("grad_data", [](const Cell& node) { return shared(node.grad_data); });
  add("grad2_data", [](const Cell& node) { return shared(node.grad2_data); });

  const std::vector<std::string>& data_names = options.data_names;
  for (std::size_t i = 0, n = most_data(mesh); i < n; ++i) {
    add(i < data_names.size() ? data_names[i] : name_of(i),
        [i](const Cell& node) { return i < node.data.size() ? node.data[i] : 0.0; });
  }
  if (part != nullptr && options.cells == VtuCells::triangles) {
    add("vtkGhostType", [&](const Cell& node) { return part->owns(node) ? owned : double_point; });
  }
}

// ---------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------

constexpr const char* no_time = "a time is infinite or not a number";

pugi::xml_node add_root(pugi::xml_node document, const char* type) {
  pugi::xml_node root = child(document, "VTKFile");
  set(root, "type", type);
  set(root, "version", "1.0");
  set(root, "byte_order",
      std::endian::native == std::endian::little ? "LittleEndian" : "BigEndian");
  set(root, "header_type", "UInt64");
  return root;
}

std::string as_text(const pugi::xml_document& document) {
  std::ostringstream text;
  text.exceptions(std::ios::badbit);  // it would swallow that memory is exhausted
  document.save(text, "  ");
  return text.str();
}

/// What is wrong before a file is begun; empty: nothing.
std::string fault_of(const Mesh& mesh, const std::string& path, const VtuOptions& options) {
  if (mesh.size() == 0) return path + ": there is no mesh to write";
  if (const std::string fault = fault_of(options.data_names, most_data(mesh)); !fault.empty()) {
    return path + ": " + fault;
  }
  if (options.time && !std::isfinite(*options.time)) return path + ": " + no_time;
  return {};
}

/// The mesh, or a part of it.
std::string write_grid(const Mesh& mesh, const std::string& path, const VtuOptions& options,
                       const VtuPart* part) try {
  if (std::string fault = fault_of(mesh, path, options); !fault.empty()) return fault;
  OutputFile file(path);
  if (!file.error().empty()) return file.error();

  const bool by_points = options.cells == VtuCells::triangles;
  const VtkGrid grid = !by_points        ? grid_of_control_cells(mesh, part)
                       : part == nullptr ? grid_of_triangles(mesh)
                                         : grid_of_triangles(mesh, *part);

  pugi::xml_document document;
  pugi::xml_node root = add_root(document, "UnstructuredGrid");
  pugi::xml_node whole = child(root, "UnstructuredGrid");
  ArrayWriter arrays(options.ascii);
  if (options.time) {
    const pugi::xml_node about = child(whole, "FieldData");
    set(arrays.add(about, "TimeValue", std::vector<double>{*options.time}), "NumberOfTuples", 1);
  }
  pugi::xml_node piece = child(whole, "Piece");
  set(piece, "NumberOfPoints", static_cast<unsigned long long>(grid.points.size() / 3));
  set(piece, "NumberOfCells", static_cast<unsigned long long>(grid.offsets.size()));

  pugi::xml_node values = child(piece, by_points ? "PointData" : "CellData");
  set(values, "Scalars", "level");
  add_values(arrays, values, mesh, grid.nodes, options, part);
  arrays.add(child(piece, "Points"), "Points", grid.points, 3);
  pugi::xml_node cells = child(piece, "Cells");
  arrays.add(cells, "connectivity", grid.connectivity);
  arrays.add(cells, "offsets", grid.offsets);
  arrays.add(cells, "types", std::vector<std::uint8_t>(grid.offsets.size(), grid.cell_kind));

  if (options.ascii) {
    file.write(as_text(document));
    return file.finish();
  }
  arrays.set_offsets();
  // The bytes begin after an underscore; no XML library may touch them.
  pugi::xml_node appended = child(root, "AppendedData");
  set(appended, "encoding", "raw");
  set_text(appended, "_");
  const std::string text = as_text(document);
  const std::size_t place = text.find("_</AppendedData>") + 1;
  file.write(text.data(), place);
  arrays.write_bytes(file);
  file.write("\n" + text.substr(place));
  return file.finish();
} catch (const std::bad_alloc&) {
  return path + ": memory is exhausted";
}

}  // namespace

std::string write_vtu(const Mesh& mesh, const std::string& path, const VtuOptions& options) {
  return write_grid(mesh, path, options, nullptr);
}

double area_of(const Mesh& mesh, const Cell& node) {
  const CellPolygon polygon = mesh.polygon(node);
  double doubled = 0.0;
  for (std::size_t i = 0, n = static_cast<std::size_t>(polygon.n); i < n; ++i) {
    const Point &a = polygon.corners[i], &b = polygon.corners[(i + 1) % n];
    doubled += (a.x - node.x) * (b.y - node.y) - (b.x - node.x) * (a.y - node.y);
  }
  return 0.5 * doubled;
}

std::string write_vtu_part(const Mesh& mesh, const std::string& path, const VtuPart& part,
                           const VtuOptions& options) {
  return write_grid(mesh, path, options, &part);
}

// The arrays are told by writing those of no nodes.
std::string write_pvtu_file(const Mesh& mesh, const std::string& path,
                            const std::vector<std::string>& files, const VtuOptions& options) try {
  if (std::string fault = fault_of(mesh, path, options); !fault.empty()) return fault;
  pugi::xml_document document, of_no_nodes;
  pugi::xml_node root = add_root(document, "PUnstructuredGrid");
  pugi::xml_node whole = child(root, "PUnstructuredGrid");
  set(whole, "GhostLevel", 0);
  const auto declare = [](pugi::xml_node parent, const char* type, const char* name) {
    pugi::xml_node array = child(parent, "PDataArray");
    set(array, "type", type);
    set(array, "Name", name);
    return array;
  };
  const bool by_points = options.cells == VtuCells::triangles;
  const pugi::xml_node values = child(whole, by_points ? "PPointData" : "PCellData");
  set(values, "Scalars", "level");
  ArrayWriter arrays(true);
  const pugi::xml_node written = child(of_no_nodes, "arrays");
  const VtuPart nothing;
  add_values(arrays, written, mesh, {}, options, &nothing);
  for (const pugi::xml_node array : written.children("DataArray")) {
    declare(values, array.attribute("type").value(), array.attribute("Name").value());
  }
  set(declare(child(whole, "PPoints"), "Float64", "Points"), "NumberOfComponents", 3);
  for (const std::string& file : files) set(child(whole, "Piece"), "Source", file.c_str());

  OutputFile file(path);
  if (!file.error().empty()) return file.error();
  file.write(as_text(document));
  return file.finish();
} catch (const std::bad_alloc&) {
  return path + ": memory is exhausted";
}

std::string write_pvd(const std::string& path, const std::vector<TimeStep>& steps) try {
  namespace fs = std::filesystem;
  pugi::xml_document document;
  pugi::xml_node collection = child(add_root(document, "Collection"), "Collection");
  fs::path folder = fs::path(path).parent_path();
  if (folder.empty()) folder = ".";
  for (const TimeStep& step : steps) {
    if (!std::isfinite(step.time)) return path + ": " + no_time;
    pugi::xml_node element = child(collection, "DataSet");
    std::array<char, 32> digits{};
    std::to_chars(digits.data(), digits.data() + digits.size() - 1, step.time);
    set(element, "timestep", digits.data());
    set(element, "part", 0);
    // ParaView looks for files from where the .pvd file lies.
    const fs::path from_there = fs::path(step.file).lexically_relative(folder);
    set(element, "file", from_there.empty() ? step.file.c_str() : from_there.c_str());
  }
  OutputFile file(path);
  file.write(as_text(document));
  return file.finish();
} catch (const std::bad_alloc&) {
  return path + ": memory is exhausted";
}

}  // namespace velmar_2d::io
