#include <array>
#include <cmath>
#include <cstdio>

#include "page/seen.hpp"

namespace velmar_2d::page {
namespace {

std::string hexadecimal(const Colour& colour) {
  std::array<char, 8> text;
  std::snprintf(text.data(), text.size(), "#%02lx%02lx%02lx",
                static_cast<unsigned long>(std::lround(colour[0])),
                static_cast<unsigned long>(std::lround(colour[1])),
                static_cast<unsigned long>(std::lround(colour[2])));
  return text.data();
}

/// Two digits after the point, without those that say nothing.
void append(std::string& text, double number) {
  std::array<char, 32> digits;
  int n = std::snprintf(digits.data(), digits.size(), "%.2f", number);
  while (digits[static_cast<std::size_t>(n - 1)] == '0') --n;
  if (digits[static_cast<std::size_t>(n - 1)] == '.') --n;
  text.append(digits.data(), static_cast<std::size_t>(n));
}

void append(std::string& text, char letter, Spot spot) {
  text += letter;
  append(text, spot.column);
  text += ' ';
  append(text, spot.row);
}

/// One path for each shade.
constexpr std::size_t nb_paths = 64;
std::size_t path_of(double shade) {
  return static_cast<std::size_t>(std::lround(std::clamp(shade, 0.0, 1.0) * (nb_paths - 1)));
}

/// What is seen, as the data of paths.
struct Paths {
  std::array<std::string, nb_paths> cells, links;
  std::string marks;
};

Paths paths_of(const Stage& stage, const Look& look, const View& view) {
  Paths paths;
  const Shade shade(stage, look);
  for_each_seen(stage, view, [&](const Cell& c, std::size_t i, Spot spot) {
    if (look.cells) {
      std::string& path = paths.cells[path_of(shade(c, i))];
      char letter = 'M';
      for (const Point& p : stage.mesh->polygon(c)) {
        append(path, letter, {view.column(p.x), view.row(p.y)});
        letter = 'L';
      }
      path += 'Z';
    }
    for (const Direction direction : half_of_directions) {
      const Cell* other = look.links ? link(c, direction).cell() : nullptr;
      if (other == nullptr) continue;
      std::string& path = paths.links[path_of(shade_of_link(shade, look, c, i, *other))];
      append(path, 'M', spot);
      append(path, 'L', {view.column(other->x), view.row(other->y)});
    }
    if (look.mark_coarse && std::signbit(stage.wanted[i])) {
      append(paths.marks, 'M', spot);
      paths.marks += "h0";
    }
  });
  return paths;
}

/// Where there is one.
std::string path_with(const std::string& attributes, const std::string& data) {
  return data.empty() ? "" : "<path " + attributes + R"( d=")" + data + "\"/>\n";
}

}  // namespace

std::string draw_svg(const Stage& stage, const Look& look, const View& view) {
  const Paths paths = paths_of(stage, look, view);
  const std::string width = std::to_string(view.width), height = std::to_string(view.height);
  const std::string ground = hexadecimal(paper(look.dark));
  std::string svg = R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" + width + R"(" height=")" +
                    height + R"(" viewBox="0 0 )" + width + " " + height + "\">\n<title>" +
                    std::to_string(stage.mesh->size()) + " nodes</title>\n";
  svg += R"(<rect width="100%" height="100%" fill=")" + ground + "\"/>\n";
  const auto shade_of = [&](std::size_t k) {
    return hexadecimal(colour_of(static_cast<double>(k) / (nb_paths - 1), look.dark));
  };
  for (std::size_t k = 0; k < nb_paths; ++k) {
    svg +=
        path_with(R"(fill=")" + shade_of(k) + R"(" stroke=")" + ground + R"(" stroke-width=".5")",
                  paths.cells[k]);
  }
  for (std::size_t k = 0; k < nb_paths; ++k) {
    svg += path_with(R"(fill="none" stroke=")" + (look.cells ? ground : shade_of(k)) +
                         R"(" stroke-width=")" + (look.cells ? ".5" : ".8") + R"(")",
                     paths.links[k]);
  }
  svg += path_with(R"(fill="none" stroke=")" + hexadecimal(coarse_mark) +
                       R"(" stroke-width="4" stroke-linecap="round")",
                   paths.marks);
  return svg + "</svg>\n";
}

}  // namespace velmar_2d::page
