// What the page calls. Texts go in through page_input() and come out of page_output(), both with a
// 0 at their end; numbers and pictures as they are.
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "page/drawing.hpp"
#include "page/stage.hpp"

#define PAGE_EXPORT extern "C" __attribute__((visibility("default"), used))

namespace {

using namespace velmar_2d;
using namespace velmar_2d::page;

std::string input, output;
Stage stage;
Look look;
View view;
Canvas canvas;
const Cell* touched = nullptr;

std::string quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
  }
  return quoted + "\"";
}

std::string number(double value) {
  if (!std::isfinite(value)) return "null";
  std::array<char, 32> text;
  std::snprintf(text.data(), text.size(), "%.17g", value);
  return text.data();
}

const char* report() {
  const Report& now = stage.report;
  const auto size = stage.mesh ? stage.mesh->size() : 0;
  output = "{\"message\":" + quoted(now.message) + ",\"nodes\":" + std::to_string(size) +
           ",\"inserted\":" + std::to_string(now.statistics.inserted) +
           ",\"removed\":" + std::to_string(now.statistics.removed) +
           ",\"refused\":" + std::to_string(now.statistics.refused) +
           ",\"coarse\":" + std::to_string(now.too_coarse) +
           ",\"at_limit\":" + std::to_string(now.at_limit) +
           ",\"level\":" + std::to_string(now.highest_level) +
           ",\"frame\":" + std::to_string(stage.scene.frame) +
           ",\"width\":" + number(stage.scene.width()) +
           ",\"height\":" + number(stage.scene.height()) +
           ",\"milliseconds\":" + number(now.milliseconds) + "}";
  return output.c_str();
}

std::size_t number_of(const Cell* node) {
  std::size_t i = 0;
  for (const Cell& c : stage.mesh->nodes()) {
    if (&c == node) break;
    ++i;
  }
  return i;
}

}  // namespace

/// Room for a text of so many bytes.
PAGE_EXPORT char* page_input(int bytes) {
  input.assign(static_cast<std::size_t>(bytes), '\0');
  return input.data();
}

/// Shows the scene of the address that was put in. @return a report, as JSON
PAGE_EXPORT const char* page_show(int anew) {
  touched = nullptr;
  Scene scene;
  std::string error = read_scene(input.c_str(), scene);
  if (error.empty()) {
    show(stage, scene, anew != 0);
  } else {
    Scene grid;
    grid.field = Field::curve;  // without one
    if (!stage.mesh) show(stage, grid, true);
    stage.report = {};
    stage.report.message = error;
  }
  return report();
}

PAGE_EXPORT void page_look(int links, int cells, int by_value, int dark, int mark_coarse,
                           double sharpness) {
  look = {links != 0, cells != 0, by_value != 0, dark != 0, mark_coarse != 0, sharpness};
}

PAGE_EXPORT void page_view(int width, int height, double x, double y, double scale) {
  view = {width, height, x, y, scale};
}

/// @return the pixels of the view
PAGE_EXPORT const std::uint32_t* page_draw() {
  draw(stage, look, view, canvas);
  if (touched != nullptr) draw_node(stage, *touched, look, view, canvas);
  return canvas.pixels.data();
}

/// Chooses the node whose control cell holds a point. @return what is to be said of it, as JSON;
/// an empty text outside of the domain
PAGE_EXPORT const char* page_touch(double x, double y) {
  output.clear();
  touched = stage.mesh ? stage.mesh->locate(x, y, touched) : nullptr;
  if (touched == nullptr) return output.c_str();
  Cell& node = *stage.mesh->locate(x, y, touched);
  const std::size_t i = number_of(touched);
  output = "{\"x\":" + number(node.x) + ",\"y\":" + number(node.y) +
           ",\"level\":" + std::to_string(node.level) +
           ",\"spacing\":" + number(stage.mesh->spacing_of_level(node.level)) +
           ",\"wanted\":" + number(std::abs(static_cast<double>(stage.wanted[i]))) +
           ",\"value\":" + number(static_cast<double>(stage.values[i])) +
           ",\"area\":" + number(stage.mesh->area(node)) +
           ",\"corners\":" + std::to_string(stage.mesh->polygon(node).n) + ",\"links\":[";
  for (const Direction direction : directions) {
    const NeighbourLink to = link(node, direction);
    output += direction == Direction::north ? "" : ",";
    output += to.cell() != nullptr
                  ? number(std::hypot(to.cell()->x - node.x, to.cell()->y - node.y))
              : to.empty() ? "null"
                           : "\"side\"";
  }
  output += "]}";
  return output.c_str();
}

PAGE_EXPORT void page_leave() { touched = nullptr; }

/// The view as an SVG file.
PAGE_EXPORT const char* page_svg() {
  output = draw_svg(stage, look, view);
  return output.c_str();
}

/// Number of nodes and a hash of the mesh.
PAGE_EXPORT const char* page_fingerprint() {
  output = fingerprint(*stage.mesh);
  return output.c_str();
}
