// The words of a picture: title, coordinates of the corners, legend.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>

#include "io/picture.hpp"

namespace velmar_2d::io {
namespace {

constexpr double margin = 40.0;      // around everything, where there are words
constexpr double bare_margin = 8.0;  // where there are none: room for the side lines
constexpr double title_size = 19.0, text_size = 11.5;
constexpr double line_height = 17.0;
constexpr double label_width = 58.0;  // "spacing" in front of its row
constexpr double narrowest_column = 56.0;
constexpr const char* typeface = "sans-serif";

/// Narrower paper has no room for words.
constexpr double narrowest_with_words = 300.0;

/// Shortest text with so many digits, whatever the language of the process.
std::string to_short_text(double value, int digits) {
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value,
                                 std::chars_format::general, digits);
  return {text.data(), end.ptr};
}
std::string rounded_text(double value) { return to_short_text(value, 3); }

/// Coordinates of opposite sides, with as many digits as it takes to see how far apart they are.
std::array<std::string, 2> coordinate_texts(double low, double high) {
  constexpr double digits_of_difference = 3.0;
  const double size = std::max(std::abs(low), std::abs(high));
  const double digits = std::ceil(std::log10(size / (high - low))) + digits_of_difference;
  const int enough = static_cast<int>(std::clamp(digits, 6.0, 17.0));
  return {to_short_text(low, enough), to_short_text(high, enough)};
}

/// Margin left of the domain: y coordinates stand there.
double left_margin(const Survey& survey) {
  constexpr double widest_letter = 7.5, gaps = 16.0;
  const auto [south, north] = coordinate_texts(survey.south, survey.north);
  const std::size_t letters = std::max(south.size(), north.size());
  return std::max(margin, widest_letter * static_cast<double>(letters) + gaps);
}

/// 1234567 as "1 234 567".
std::string to_grouped_text(std::int64_t value) {
  std::string text = std::to_string(value);
  for (std::size_t place = text.size(); place > 3; place -= 3) text.insert(place - 3, " ");
  return text;
}

std::string counted(std::int64_t count, const char* name) {
  return to_grouped_text(count) + " " + name + (count == 1 ? "" : "s");
}

enum class Align { left, centre, right };

void write(cairo_t* pen, double column, double row, const std::string& text, Align align) {
  cairo_text_extents_t extents;
  cairo_text_extents(pen, text.c_str(), &extents);
  const double share = align == Align::left ? 0.0 : align == Align::centre ? 0.5 : 1.0;
  cairo_move_to(pen, column - share * extents.x_advance, row);
  cairo_show_text(pen, text.c_str());
}

double width_of(cairo_t* pen, const std::string& text) {
  cairo_text_extents_t extents;
  cairo_text_extents(pen, text.c_str(), &extents);
  return extents.x_advance;
}

/// Two texts of one row, centred at their columns where they neither touch nor leave the paper.
void write_pair(cairo_t* pen, const std::array<double, 2>& columns, double row,
                const std::array<std::string, 2>& texts, double paper_width) {
  constexpr double gap = 12.0, rim = 4.0;
  const std::array<double, 2> widths = {width_of(pen, texts[0]), width_of(pen, texts[1])};
  std::array<double, 2> lefts = {columns[0] - 0.5 * widths[0], columns[1] - 0.5 * widths[1]};
  const double overlap = lefts[0] + widths[0] + gap - lefts[1];
  if (overlap > 0.0) lefts = {lefts[0] - 0.5 * overlap, lefts[1] + 0.5 * overlap};
  lefts[0] = std::max(lefts[0], rim);
  lefts[1] = std::min(lefts[1], paper_width - rim - widths[1]);
  for (std::size_t i = 0; i < texts.size(); ++i) write(pen, lefts[i], row, texts[i], Align::left);
}

void choose_font(cairo_t* pen, double size, bool bold = false) {
  cairo_select_font_face(pen, typeface, CAIRO_FONT_SLANT_NORMAL,
                         bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(pen, size);
}

std::vector<std::int32_t> levels_that_occur(const Survey& survey) {
  std::vector<std::int32_t> levels;
  for (std::size_t level = 0; level < survey.nodes_of_level.size(); ++level) {
    if (survey.nodes_of_level[level] > 0) levels.push_back(static_cast<std::int32_t>(level));
  }
  return levels;
}

/// The levels stand side by side, as many to a block as have room.
std::size_t columns_of_block(double width) {
  const double room = (width - 2.0 * margin - label_width) / narrowest_column;
  return static_cast<std::size_t>(std::clamp(room, 1.0, 64.0));
}

constexpr std::array<const char*, 3> side_names = {"Dirichlet", "Neumann", "other"};

void draw_level_block(cairo_t* pen, const Survey& survey, const std::vector<std::int32_t>& levels,
                      bool coloured, double left, double top, double column_width) {
  constexpr std::array<const char*, 3> row_names = {"level", "spacing", "nodes"};
  for (std::size_t row = 0; row < row_names.size(); ++row) {
    set_colour(pen, palette::faint_ink);
    write(pen, left, top + line_height * static_cast<double>(row), row_names[row], Align::left);
  }
  double column = left + label_width + 0.5 * column_width;
  for (const std::int32_t level : levels) {
    constexpr double pill_width = 34.0, pill_height = 14.0;
    cairo_set_line_cap(pen, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_width(pen, pill_height);
    set_colour(pen, coloured ? colour_of_level(survey, level) : palette::faint_ink);
    cairo_move_to(pen, column - 0.5 * (pill_width - pill_height), top - 4.0);
    cairo_rel_line_to(pen, pill_width - pill_height, 0.0);
    cairo_stroke(pen);
    set_colour(pen, palette::paper);
    choose_font(pen, text_size, true);
    write(pen, column, top, std::to_string(level), Align::centre);
    choose_font(pen, text_size);
    set_colour(pen, palette::ink);
    write(pen, column, top + line_height, rounded_text(survey.mesh->spacing_of_level(level)),
          Align::centre);
    write(pen, column, top + 2.0 * line_height,
          to_grouped_text(survey.nodes_of_level[static_cast<std::size_t>(level)]), Align::centre);
    column += column_width;
  }
}

void draw_side_kinds(cairo_t* pen, const Survey& survey, double left, double row) {
  set_colour(pen, palette::faint_ink);
  write(pen, left, row, "sides", Align::left);
  double column = left + label_width + 6.0;
  for (std::size_t kind = 0; kind < side_names.size(); ++kind) {
    if (!survey.side_kinds[kind]) continue;
    constexpr double sample_width = 40.0, entry_width = 130.0;
    cairo_save(pen);
    set_side_style(pen, static_cast<std::int32_t>(kind));
    cairo_move_to(pen, column, row - 4.0);
    cairo_rel_line_to(pen, sample_width, 0.0);
    cairo_stroke(pen);
    cairo_restore(pen);
    set_colour(pen, palette::ink);
    write(pen, column + sample_width + 8.0, row, side_names[kind], Align::left);
    column += entry_width;
  }
}

/// Distance of ticks: a round number that fits two to five times.
double round_step(double span) {
  const double power = std::pow(10.0, std::floor(std::log10(span / 2.0)));
  for (const double factor : {5.0, 2.0}) {
    if (span >= 2.0 * factor * power) return factor * power;
  }
  return power;
}

/// The colour scale with ticks at round values.
void draw_value_scale(cairo_t* pen, const std::array<double, 2>& range, Palette palette_of_scale,
                      double left, double row) {
  constexpr double width = 240.0, height = 10.0;
  set_colour(pen, palette::faint_ink);
  write(pen, left, row, "value", Align::left);
  const double scale_left = left + label_width + 6.0;
  cairo_pattern_t* scale = cairo_pattern_create_linear(scale_left, 0.0, scale_left + width, 0.0);
  constexpr int nb_stops = 32;
  for (int i = 0; i <= nb_stops; ++i) {
    const double place = static_cast<double>(i) / nb_stops;
    const Colour colour = on_scale(place, palette_of_scale);
    cairo_pattern_add_color_stop_rgb(scale, place, colour.red, colour.green, colour.blue);
  }
  cairo_set_source(pen, scale);
  cairo_rectangle(pen, scale_left, row - height + 1.0, width, height);
  cairo_fill(pen);
  cairo_pattern_destroy(scale);

  const double span = range[1] - range[0];
  const double step = span > 0.0 ? round_step(span) : 0.0;
  const double first = step > 0.0 ? std::ceil(range[0] / step - 1e-9) : 0.0;
  set_colour(pen, palette::ink);
  cairo_set_line_width(pen, 1.0);
  cairo_set_line_cap(pen, CAIRO_LINE_CAP_BUTT);
  constexpr int most_ticks = 6;
  for (int i = 0; i < most_ticks && step > 0.0; ++i) {
    const double value = (first + i) * step;
    if (!(value <= range[1] + 1e-9 * span)) break;
    const double column = scale_left + width * (value - range[0]) / span;
    cairo_move_to(pen, column, row + 1.0);
    cairo_rel_line_to(pen, 0.0, 4.0);
    cairo_stroke(pen);
    write(pen, column, row + line_height - 1.0, to_short_text(value, 12), Align::centre);
  }
  // What the ends are, which need not be round.
  const std::string ends = rounded_text(range[0]) + " to " + rounded_text(range[1]);
  write(pen, scale_left + width + 16.0, row, ends, Align::left);
}

/// A patch for each type of shape inside, one for sides and one for corners.
void draw_cell_types(cairo_t* pen, double left, double row) {
  constexpr double size = 11.0, step = 34.0;
  set_colour(pen, palette::faint_ink);
  write(pen, left, row, "cell type", Align::left);
  double column = left + label_width + 6.0;
  const auto entry = [&](std::int32_t type, const std::string& name) {
    set_colour(pen, colour_of_cell_type(type));
    cairo_rectangle(pen, column, row - size + 2.0, size, size);
    cairo_fill(pen);
    set_colour(pen, palette::ink);
    write(pen, column + size + 5.0, row, name, Align::left);
    column += step;
  };
  for (std::int32_t type = 1; type <= 9; ++type) entry(type, std::to_string(type));
  entry(11, "side");
  column += 12.0;
  entry(31, "corner");
}

double rows_for_cells(const PictureOptions& options) {
  return options.cells == CellColour::value ? 2.0 : options.cells == CellColour::type ? 1.0 : 0.0;
}

std::size_t nb_blocks(const Survey& survey, double width) {
  const std::size_t columns = columns_of_block(width);
  return (levels_that_occur(survey).size() + columns - 1) / columns;
}

constexpr double block_height = 3.0 * line_height + 10.0;

double title_height() { return 74.0; }

double legend_height(const Survey& survey, const PictureOptions& options) {
  return 44.0 + block_height * static_cast<double>(nb_blocks(survey, options.width)) +
         line_height * (1.0 + rows_for_cells(options));
}

/// Whether there are words: on paper with room for them.
bool has_words(const Survey& survey, const PictureOptions& options) {
  if (!options.frame || options.width < narrowest_with_words) return false;
  return options.height >= narrowest_with_words ||
         options.height + 1.0 >= title_height() + legend_height(survey, options);
}

}  // namespace

Colour colour_of_level(const Survey& survey, std::int32_t level) {
  return level_colour(level, survey.lowest_level, survey.highest_level, survey.palette);
}

View place_domain(const Survey& survey, const PictureOptions& options) {
  const bool words = has_words(survey, options);
  const double above = words ? title_height() : bare_margin;
  const double below = words ? legend_height(survey, options) : bare_margin;
  const double left = words ? left_margin(survey) : bare_margin;
  const double room_x = options.width - left - (words ? margin : bare_margin);
  const double room_y = options.height - above - below;
  View view;
  view.west = survey.west;
  view.north = survey.north;
  view.scale = std::min(room_x / (survey.east - survey.west),
                        std::max(room_y, 1.0) / (survey.north - survey.south));
  view.width = (survey.east - survey.west) * view.scale;
  view.height = (survey.north - survey.south) * view.scale;
  view.spare_height = room_y - view.height;
  view.left = left + 0.5 * (room_x - view.width);
  view.top = above + 0.5 * view.spare_height;
  return view;
}

void set_colour(cairo_t* pen, const Colour& colour, double opacity) {
  cairo_set_source_rgba(pen, colour.red, colour.green, colour.blue, opacity);
}

void set_side_style(cairo_t* pen, std::int32_t bc_type) {
  constexpr Colour neumann{0.86, 0.33, 0.12}, other{0.35, 0.55, 0.10};
  constexpr std::array<double, 2> dashes = {8.0, 4.0}, dots = {0.0, 5.0};
  cairo_set_line_width(pen, side_line_width);
  cairo_set_line_cap(pen, CAIRO_LINE_CAP_BUTT);
  switch (bc_type) {
    case bc_type_dir: set_colour(pen, palette::ink); break;
    case bc_type_neu:
      set_colour(pen, neumann);
      cairo_set_dash(pen, dashes.data(), 2, 0.0);
      break;
    default:
      set_colour(pen, other);
      cairo_set_line_cap(pen, CAIRO_LINE_CAP_ROUND);
      cairo_set_dash(pen, dots.data(), 2, 0.0);
  }
}

void draw_title(cairo_t* pen, const Survey& survey, const View& view,
                const PictureOptions& options) {
  if (!has_words(survey, options)) return;
  set_colour(pen, palette::ink);
  choose_font(pen, title_size, true);
  write(pen, margin, 34.0, options.title.empty() ? "Adaptive mesh" : options.title, Align::left);
  choose_font(pen, text_size);
  set_colour(pen, palette::faint_ink);
  write(pen, margin, 53.0,
        counted(survey.nb_nodes, "node") + "  \xc2\xb7  " + counted(survey.nb_links, "link"),
        Align::left);

  // Coordinates of the lower left and the upper right corner, where they do not touch the sides.
  const double below = view.top + view.height + 18.0;
  const auto [west, east] = coordinate_texts(survey.west, survey.east);
  write_pair(pen, {view.left, view.left + view.width}, below, {west, east}, options.width);
  const auto [south, north] = coordinate_texts(survey.south, survey.north);
  const double lower = view.top + view.height, upper = std::min(view.top + 8.0, lower - 12.0);
  write(pen, view.left - 10.0, lower, south, Align::right);
  write(pen, view.left - 10.0, upper, north, Align::right);
}

void draw_legend(cairo_t* pen, const Survey& survey, const View& view,
                 const PictureOptions& options) {
  if (!has_words(survey, options)) return;
  choose_font(pen, text_size);
  const std::vector<std::int32_t> levels = levels_that_occur(survey);
  // As many blocks as are needed, all of the same width.
  const std::size_t blocks = std::max<std::size_t>(nb_blocks(survey, options.width), 1);
  const std::size_t columns = (levels.size() + blocks - 1) / blocks;
  const bool levels_have_colours =
      options.links || options.nodes || options.cells == CellColour::level;
  const double right = std::max(view.left + view.width, options.width - margin);
  const double room = right - margin - label_width;
  const double column_width = std::min(room / static_cast<double>(columns), 100.0);
  double top = view.top + view.height + 48.0;
  for (std::size_t first = 0; first < levels.size(); first += columns) {
    const std::size_t end = std::min(first + columns, levels.size());
    draw_level_block(pen, survey,
                     {levels.begin() + static_cast<std::ptrdiff_t>(first),
                      levels.begin() + static_cast<std::ptrdiff_t>(end)},
                     levels_have_colours, margin, top, column_width);
    top += block_height;
  }
  if (options.cells == CellColour::value) {
    draw_value_scale(pen, value_range(survey, options), options.palette, margin, top);
  } else if (options.cells == CellColour::type) {
    draw_cell_types(pen, margin, top);
  }
  top += line_height * rows_for_cells(options);
  if (options.sides) draw_side_kinds(pen, survey, margin, top);
}

}  // namespace velmar_2d::io
