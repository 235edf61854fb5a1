// Draws lines over a plane of two logarithmic axes: velmar_2d_plot PICTURE.svg, with a title and
// the names of the axes on the first three lines of standard input and a line of the plot on each
// further one:
//
//     name;red green blue;dashed (0 or 1);x y x y ...
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "examples/log_log_plot.hpp"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: velmar_2d_plot PICTURE.svg < LINES\n");
    return 2;
  }
  std::string title, x_name, y_name, text;
  std::getline(std::cin, title);
  std::getline(std::cin, x_name);
  std::getline(std::cin, y_name);
  constexpr double decade = 150.0;
  LogLogPlot plot(title, x_name, y_name, decade);
  while (std::getline(std::cin, text)) {
    LogLogPlot::Line line{};
    std::istringstream words(text);
    std::getline(words, line.name, ';');
    char separator = 0;
    words >> line.colour.red >> line.colour.green >> line.colour.blue >> separator;
    words >> line.dashed >> separator;
    for (LogLogPlot::Point point{}; words >> point.x >> point.y;) line.points.push_back(point);
    if (line.points.empty() || !words.eof()) {
      std::fprintf(stderr, "not a line of a plot: %s\n", text.c_str());
      return 2;
    }
    plot.add(line);
  }
  if (const std::string fault = plot.draw(argv[1]); !fault.empty()) {
    std::fprintf(stderr, "%s\n", fault.c_str());
    return 2;
  }
  return 0;
}
