// Pictures are drawn in layers, from the paper up: background, cells, links, nodes, sides, words.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <new>
#include <utility>

#include "io/picture.hpp"
#include "io/picture_file.hpp"

namespace velmar_2d::io {
namespace {

// ---------------------------------------------------------------------------------------------
// Reading the mesh
// ---------------------------------------------------------------------------------------------

/// Each link has one end from which it leads in one of these; the other ends see the opposite.
constexpr std::array<Direction, 4> half_of_directions = {Direction::north, Direction::north_east,
                                                         Direction::east, Direction::south_east};

/// The next node in a direction, if both agree that they are linked.
const Cell* neighbour(const Cell& node, Direction direction) {
  const Cell* other = link(node, direction).cell();
  if (other == nullptr) return nullptr;
  return link(*other, opposite(direction)).cell() == &node ? other : nullptr;
}

constexpr std::size_t nb_levels = 64, nb_lengths = 64;

std::size_t level_index(const Cell& node) {
  return static_cast<std::size_t>(std::clamp(node.level, 0, static_cast<int>(nb_levels) - 1));
}

/// Links are dist_0 / 2^(k/2) long: k is what this returns.
std::size_t length_index(double dist_0, const Cell& a, const Cell& b) {
  const double halvings = 2.0 * std::log2(dist_0 / std::hypot(a.x - b.x, a.y - b.y));
  return static_cast<std::size_t>(std::clamp(std::lround(halvings), 0L, long{nb_lengths} - 1));
}

double length_of_index(double dist_0, std::size_t length) {
  return dist_0 * std::exp2(-0.5 * static_cast<double>(length));
}

// ---------------------------------------------------------------------------------------------
// Lines and dots, gathered by colour and size so that each lot is one path
// ---------------------------------------------------------------------------------------------

constexpr std::size_t nb_lots = nb_levels * nb_lengths;

template <typename Shape>
using Lots = std::vector<std::vector<Shape>>;

/// Walks the lots from coarse to fine, so that the fine ones lie on top.
template <typename Shape, typename Draw>
void for_each_lot(double dist_0, const Lots<Shape>& lots, const Draw& draw) {
  for (std::size_t lot = 0; lot < nb_lots; ++lot) {
    if (lots[lot].empty()) continue;
    draw(lots[lot], static_cast<std::int32_t>(lot / nb_lengths),
         length_of_index(dist_0, lot % nb_lengths));
  }
}

struct Line {
  const Cell *from, *to;
};

std::size_t lot_of_link(double dist_0, const Cell& a, const Cell& b) {
  return std::max(level_index(a), level_index(b)) * nb_lengths + length_index(dist_0, a, b);
}

/// Links of one lot that follow one another become one line: several times fewer strokes.
Lots<Line> gather_lines(const Mesh& mesh) {
  Lots<Line> lots(nb_lots);
  const double dist_0 = mesh.dist_0();
  for (const Cell& node : mesh.nodes()) {
    for (const Direction direction : half_of_directions) {
      const Cell* ahead = neighbour(node, direction);
      if (ahead == nullptr) continue;
      const std::size_t lot = lot_of_link(dist_0, node, *ahead);
      const Cell* behind = neighbour(node, opposite(direction));
      if (behind != nullptr && lot_of_link(dist_0, *behind, node) == lot)
        continue;  // began earlier
      const Cell* end = ahead;
      for (const Cell* more = neighbour(*end, direction);
           more != nullptr && lot_of_link(dist_0, *end, *more) == lot;
           more = neighbour(*end, direction)) {
        end = more;
      }
      lots[lot].push_back({&node, end});
    }
  }
  return lots;
}

/// Dots are as large as the shortest link of their node allows.
Lots<const Cell*> gather_dots(const Mesh& mesh) {
  Lots<const Cell*> lots(nb_lots);
  const double dist_0 = mesh.dist_0();
  for (const Cell& node : mesh.nodes()) {
    std::size_t shortest = 0;
    for (const Direction direction : directions) {
      const Cell* other = neighbour(node, direction);
      if (other != nullptr) shortest = std::max(shortest, length_index(dist_0, node, *other));
    }
    lots[level_index(node) * nb_lengths + shortest].push_back(&node);
  }
  return lots;
}

// ---------------------------------------------------------------------------------------------
// Layers
// ---------------------------------------------------------------------------------------------

/// A long path costs more than its parts: strokes are cut into pieces of this many lines.
constexpr std::size_t lines_per_stroke = 1000;

bool is_whole(const Image* image) {
  return image == nullptr || (image->width >= 0 && image->height >= 0 &&
                              image->pixels.size() == static_cast<std::size_t>(image->width) *
                                                          static_cast<std::size_t>(image->height));
}

void draw_background(cairo_t* pen, const View& view, const Background& background) {
  const Image* image = background.image;
  if (image == nullptr || image->pixels.empty()) return;
  const int stride = cairo_format_stride_for_width(CAIRO_FORMAT_RGB24, image->width);
  cairo_surface_t* surface = cairo_image_surface_create_for_data(
      reinterpret_cast<unsigned char*>(const_cast<std::uint32_t*>(image->pixels.data())),
      CAIRO_FORMAT_RGB24, image->width, image->height, stride);

  cairo_save(pen);
  cairo_rectangle(pen, view.left, view.top, view.width, view.height);
  cairo_clip(pen);
  cairo_translate(pen, view.column(background.west), view.row(background.north));
  cairo_scale(pen, (background.east - background.west) * view.scale / image->width,
              (background.north - background.south) * view.scale / image->height);
  cairo_set_source_surface(pen, surface, 0.0, 0.0);
  cairo_pattern_set_extend(cairo_get_source(pen), CAIRO_EXTEND_PAD);  // no pale rim at the edge
  cairo_rectangle(pen, 0.0, 0.0, image->width, image->height);
  cairo_clip(pen);
  cairo_paint_with_alpha(pen, std::clamp(background.opacity, 0.0, 1.0));
  cairo_restore(pen);
  cairo_surface_destroy(surface);
}

void draw_links(cairo_t* pen, const Survey& survey, const View& view) {
  cairo_set_line_cap(pen, CAIRO_LINE_CAP_BUTT);
  for_each_lot(survey.mesh->dist_0(), gather_lines(*survey.mesh),
               [&](const std::vector<Line>& lines, std::int32_t level, double length) {
                 cairo_set_line_width(pen, std::clamp(0.2 + 0.1 * length * view.scale, 0.1, 1.0));
                 set_colour(pen, colour_of_level(survey, level), 0.8);
                 for (std::size_t i = 0; i < lines.size(); ++i) {
                   const Line& line = lines[i];
                   cairo_move_to(pen, view.column(line.from->x), view.row(line.from->y));
                   cairo_line_to(pen, view.column(line.to->x), view.row(line.to->y));
                   if ((i + 1) % lines_per_stroke == 0) cairo_stroke(pen);
                 }
                 cairo_stroke(pen);
               });
}

void draw_nodes(cairo_t* pen, const Survey& survey, const View& view) {
  cairo_set_line_cap(pen, CAIRO_LINE_CAP_ROUND);
  for_each_lot(survey.mesh->dist_0(), gather_dots(*survey.mesh),
               [&](const std::vector<const Cell*>& nodes, std::int32_t level, double length) {
                 cairo_set_line_width(pen, std::clamp(0.34 * length * view.scale, 0.3, 6.5));
                 set_colour(pen, colour_of_level(survey, level));
                 for (std::size_t i = 0; i < nodes.size(); ++i) {
                   const double column = view.column(nodes[i]->x), row = view.row(nodes[i]->y);
                   cairo_move_to(pen, column, row);
                   cairo_line_to(pen, column, row);  // a line of no length with round ends: a dot
                   if ((i + 1) % lines_per_stroke == 0) cairo_stroke(pen);
                 }
                 cairo_stroke(pen);
               });
}

/// Along a side every node stands for the way up to halfway to its neighbours; stretches of one
/// kind are drawn as one line, outside the domain.
void draw_side(cairo_t* pen, const Mesh& mesh, const View& view, Direction direction) {
  struct SideNode {
    double place;  // along the side, on paper
    std::int32_t bc_type;
  };
  std::vector<SideNode> nodes;
  const bool along_x = direction == Direction::north || direction == Direction::south;
  for (const Cell& node : mesh.nodes()) {
    const Boundary* side = link(node, direction).boundary();
    if (side == nullptr) continue;
    nodes.push_back({along_x ? view.column(node.x) : view.row(node.y), side->bc_type});
  }
  if (nodes.size() < 2) return;
  std::sort(nodes.begin(), nodes.end(),
            [](const SideNode& a, const SideNode& b) { return a.place < b.place; });

  const double offset = 0.5 * side_line_width + 1.0;
  const double across = direction == Direction::north   ? view.top - offset
                        : direction == Direction::east  ? view.left + view.width + offset
                        : direction == Direction::south ? view.top + view.height + offset
                                                        : view.left - offset;
  double begin = nodes.front().place;
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const bool last = i + 1 == nodes.size();
    if (!last && nodes[i + 1].bc_type == nodes[i].bc_type) continue;
    const double end = last ? nodes[i].place : 0.5 * (nodes[i].place + nodes[i + 1].place);
    cairo_save(pen);
    set_side_style(pen, nodes[i].bc_type);
    cairo_move_to(pen, along_x ? begin : across, along_x ? across : begin);
    cairo_line_to(pen, along_x ? end : across, along_x ? across : end);
    cairo_stroke(pen);
    cairo_restore(pen);
    begin = end;
  }
}

}  // namespace

Survey survey_of(const Mesh& mesh, const PictureOptions& options) {
  Survey survey;
  survey.mesh = &mesh;
  survey.palette = options.palette;
  survey.nb_nodes = mesh.size();
  survey.nodes_of_level.assign(nb_levels, 0);
  if (mesh.size() == 0) return survey;
  const Cell& first = *mesh.nodes().begin();
  survey.west = survey.east = first.x;
  survey.south = survey.north = first.y;
  survey.lowest_value = survey.highest_value = shown_value(first, options);
  for (const Cell& node : mesh.nodes()) {
    survey.west = std::min(survey.west, node.x);
    survey.east = std::max(survey.east, node.x);
    survey.south = std::min(survey.south, node.y);
    survey.north = std::max(survey.north, node.y);
    ++survey.nodes_of_level[level_index(node)];
    survey.lowest_value = std::min(survey.lowest_value, shown_value(node, options));
    survey.highest_value = std::max(survey.highest_value, shown_value(node, options));
    for (const Direction direction : directions) {
      const Boundary* side = link(node, direction).boundary();
      if (side == nullptr) continue;
      survey.side_kinds[static_cast<std::size_t>(std::clamp(side->bc_type, 0, 2))] = true;
    }
    for (const Direction direction : half_of_directions) {
      if (neighbour(node, direction) != nullptr) ++survey.nb_links;
    }
  }
  const auto occurs = [](std::int32_t count) { return count > 0; };
  const auto& levels = survey.nodes_of_level;
  survey.lowest_level = static_cast<std::int32_t>(
      std::find_if(levels.begin(), levels.end(), occurs) - levels.begin());
  survey.highest_level = static_cast<std::int32_t>(
      std::find_if(levels.rbegin(), levels.rend(), occurs).base() - levels.begin() - 1);
  return survey;
}

std::string draw_mesh(const Mesh& mesh, const std::string& path,
                      const PictureOptions& options) try {
  if (mesh.size() == 0) return path + ": there is no mesh to draw";
  if (!is_whole(options.background.image)) {
    return path + ": the background image lacks pixels";
  }
  PictureFile file(path, options.width, options.height);
  if (!file.error().empty()) return file.error();

  const Survey survey = survey_of(mesh, options);
  const View view = place_domain(survey, options);
  cairo_t* pen = file.pen();
  set_colour(pen, palette::paper);
  cairo_paint(pen);
  draw_background(pen, view, options.background);
  if (options.cells != CellColour::none) draw_cells(pen, survey, view, options);
  if (options.links) draw_links(pen, survey, view);
  if (options.nodes) draw_nodes(pen, survey, view);
  if (options.sides) {
    for (const Direction side :
         {Direction::north, Direction::east, Direction::south, Direction::west}) {
      draw_side(pen, mesh, view, side);
    }
  }
  if (options.frame) {
    draw_title(pen, survey, view, options);
    draw_legend(pen, survey, view, options);
  }
  return file.finish();
} catch (const std::bad_alloc&) {
  return path + ": memory is exhausted";
}

double fitting_height(const Mesh& mesh, double width, const PictureOptions& options) {
  if (mesh.size() == 0) return width;
  // The domain is as wide as it may be once it is no longer the height that holds it back.
  PictureOptions tall = options;
  tall.width = width;
  tall.height = 4.0 * width;
  const View view = place_domain(survey_of(mesh, tall), tall);
  return std::round(std::max(0.25 * width, tall.height - view.spare_height));
}

}  // namespace velmar_2d::io
