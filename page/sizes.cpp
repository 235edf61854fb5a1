// How fine the mesh is to be, for each kind of scene. All but expressions and pictures use nothing
// but + - * / and roots, which give the same bits on every machine.
#include <algorithm>
#include <cmath>
#include <utility>

#include "page/expression.hpp"
#include "page/stage.hpp"
#include "page/waves.hpp"
#include "tools/lines.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d::page {
namespace {

/// Around the pointer the mesh is fine up to here.
constexpr double pointer_radius = 0.06;
/// What moves by itself comes back after so many frames.
constexpr int frames_of_a_round = 480;

template <typename Spacing>
batch_size_function for_each_node(Spacing spacing) {
  return [spacing = std::move(spacing)](std::span<const Cell* const> nodes,
                                        std::span<double> sizes) mutable {
    for (std::size_t i = 0; i < nodes.size(); ++i) sizes[i] = spacing(nodes[i]->x, nodes[i]->y);
  };
}

/// `finest` at a distance of 0, growing by `slope`.
template <typename Distance>
batch_size_function by_distance(const Scene& scene, Distance distance) {
  return for_each_node([distance, finest = scene.finest, slope = scene.slope](double x, double y) {
    return std::max(finest, slope * distance(x, y));
  });
}

double length(double dx, double dy) { return std::sqrt(dx * dx + dy * dy); }

/// From -1 to 1 and back in one round, like a sine, made of two parabolas.
double swing(int frame, double start) {
  double place = static_cast<double>(frame) / frames_of_a_round + start;
  place -= std::floor(place);
  return place < 0.5 ? 16.0 * place * (0.5 - place) : -16.0 * (place - 0.5) * (1.0 - place);
}

batch_size_function ring_sizes(const Scene& scene) {
  const double least = std::min(scene.width(), scene.height());
  const double radius = least * (0.27 + 0.06 * swing(3 * scene.frame, 0.0));
  const double x =
      0.5 * scene.width() + (0.5 * scene.width() - 0.36 * least) * swing(scene.frame, 0.0);
  const double y =
      0.5 * scene.height() + (0.5 * scene.height() - 0.4 * least) * swing(scene.frame, 0.25);
  return by_distance(
      scene, [=](double px, double py) { return std::abs(length(px - x, py - y) - radius); });
}

/// A bow that sweeps across the domain.
batch_size_function front_sizes(const Scene& scene) {
  const double half = 0.5 * scene.height();
  const double middle = scene.width() * (0.5 + 0.42 * swing(scene.frame, 0.0));
  const double bend = 0.35 * swing(2 * scene.frame, 0.125) / half;
  return by_distance(scene, [=](double x, double y) {
    const double along = y - half;
    const double slope = 2.0 * bend * along;
    // First order: the way along x, foreshortened by the slope of the bow.
    return std::abs(x - middle - bend * along * along) / std::sqrt(1.0 + slope * slope);
  });
}

batch_size_function curve_sizes(const Scene& scene) {
  if (scene.points.empty()) return for_each_node([](double, double) { return HUGE_VAL; });
  tools::Lines lines;
  std::size_t i = 0;
  for (const std::size_t end : scene.stroke_ends) {
    for (; i < end; ++i) lines.add(scene.points[i]);
    lines.end_line();
  }
  const auto tree = std::make_shared<tools::DistanceTree>(std::move(lines));
  return by_distance(scene, [tree](double x, double y) { return tree->distance({x, y}); });
}

std::string expression_sizes(const Scene& scene, batch_size_function& sizes) {
  Expression expression;
  if (std::string error = read_expression(scene.expression, expression); !error.empty()) {
    return "expression: " + error;
  }
  sizes =
      for_each_node([expression = std::move(expression), stack = std::vector<double>()](
                        double x, double y) mutable { return evaluate(expression, x, y, stack); });
  return {};
}

std::string picture_sizes(const Scene& scene, batch_size_function& sizes) {
  const Picture& picture = scene.picture;
  if (picture.grey.empty()) return "picture: drop one on the mesh, or choose one";
  io::Image image{picture.width, picture.height, {}};
  for (const std::uint8_t grey : picture.grey) {
    image.pixels.push_back(grey * std::uint32_t{0x010101});
  }
  const double pixel = std::max(scene.width() / picture.width, scene.height() / picture.height);
  constexpr double contrast = 40.0;
  std::vector<double> spacing = io::spacing_of_pixels(image, scene.finest / pixel, contrast);
  sizes = for_each_node([=, spacing = std::move(spacing), columns = picture.width,
                         rows = picture.height, width = scene.width(),
                         height = scene.height()](double x, double y) {
    const auto place = [](double share, int count) {
      return static_cast<std::size_t>(std::clamp(share * count, 0.0, count - 1.0));
    };
    return pixel * spacing[place((height - y) / height, rows) * static_cast<std::size_t>(columns) +
                           place(x / width, columns)];
  });
  return {};
}

}  // namespace

std::string make_sizes(const Scene& scene, batch_size_function& sizes) {
  switch (scene.field) {
    case Field::pointer:
      sizes = by_distance(scene, [x = scene.x, y = scene.y](double px, double py) {
        return std::max(0.0, length(px - x, py - y) - pointer_radius);
      });
      return {};
    case Field::ring: sizes = ring_sizes(scene); return {};
    case Field::front: sizes = front_sizes(scene); return {};
    case Field::curve: sizes = curve_sizes(scene); return {};
    case Field::expression: return expression_sizes(scene, sizes);
    case Field::picture: return picture_sizes(scene, sizes);
    case Field::waves: sizes = wave_sizes(scene); return {};
  }
  return {};
}

}  // namespace velmar_2d::page
