// The command-line program: a look at a mesh before anything is linked.
#include "velmar_2D/velmar_2D.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <new>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tools/adapt.hpp"
#include "tools/size_field.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace {

using namespace velmar_2d;

constexpr int bad_input = 2;

constexpr const char* description =
    "Meshes a rectangle by a wanted spacing: fine where you need it, coarse where you do not.\n\n"
    "FIELD says how far apart nodes should be. It is one of\n"
    "  an expression in x and y   \"0.005 + 0.2*abs(y - x^2)\"\n"
    "  a picture                  photo.png: fine along edges; the domain is its size in pixels\n"
    "  points and lines           coast.geojson, .json, .txt, .csv, .dat, .xy: fine along them; "
    "the\n"
    "                             domain is the box around them and a tenth more\n"
    "Text files hold two numbers a line; an empty line begins a new line of points. Expressions "
    "know\n"
    "+ - * / ^ < > ?:, abs sqrt exp ln log10 sin cos tan atan2 hypot min max, pi and _e.";

constexpr const char* footer =
    "Examples:\n"
    "  velmar_2d draw \"0.005 + 0.2*abs(y - x^2)\" -o parabola.svg\n"
    "  velmar_2d draw photo.png --limit 8 --over-picture -o mesh.png\n"
    "  velmar_2d vtu coast.geojson --squares 8 --grading 0.3 -o coast.vtu\n"
    "  velmar_2d stats \"abs(hypot(x,y)-1)/5\" --domain -2 2 -2 2 --finest 0.01\n\n"
    "Exit status: 0 done; 2 bad input, with one line on standard error.";

struct Options {
  tools::FieldOptions field;
  tools::MeshOptions mesh;
  std::vector<double> domain;
  std::string output;

  std::string title;
  double width = 1000.0;
  bool over_picture = false;
  std::string colour;  ///< of control cells; none: they are not drawn

  bool cells = false, ascii = false;
  bool progress = false;  ///< also where standard error is no terminal
};

/// An option that takes a number from a range; `unit` is what help calls the number.
template <typename Number>
void add_number(CLI::App& command, const char* name, Number& number, const char* unit,
                double lowest, double highest, const char* explanation) {
  const auto check = [lowest, highest](const std::string& text) {
    double value = 0.0;
    const bool is_inside =
        CLI::detail::lexical_cast(text, value) && value >= lowest && value <= highest;
    if (is_inside) return std::string();  // a NaN is not
    std::ostringstream fault;
    fault << text << " is no number from " << lowest << " to " << highest;
    return fault.str();
  };
  CLI::Option* option = command.add_option(name, number, explanation);
  option->type_name(unit)->check(CLI::Validator(check, ""));
  if constexpr (std::is_arithmetic_v<Number>) option->capture_default_str();
}

/// What all three commands understand.
void add_mesh_options(CLI::App& command, Options& options) {
  tools::FieldOptions& field = options.field;
  tools::MeshOptions& mesh = options.mesh;
  constexpr double smallest_length = 1e-300, largest_length = 1e300;
  command.add_option("FIELD", field.text, "expression, picture, or file of points and lines")
      ->option_text(" ")
      ->required();
  command.add_option("--domain", options.domain, "the sides of the domain")
      ->type_name("WEST EAST SOUTH NORTH")
      ->type_size(4)
      ->expected(1);
  add_number(command, "--squares", mesh.squares, "N", 1, 1024,
             "base squares along the shorter side of the domain");
  add_number(command, "--limit", mesh.limit, "LEVEL", 0, 40,
             "subdivision limit; two levels halve the spacing");
  add_number(command, "--most-nodes", mesh.most_nodes, "N", 4, 1e9,
             "give up where more would be needed; a million take 0.3 gigabytes");
  add_number(
      command, "--slope", mesh.slope, "SLOPE", 0.0, 100.0,
      "largest growth of the spacing from node to node, for thin features; 0: as FIELD says");
  add_number(command, "--updates", mesh.updates, "N", 0, 10000,
             "adapt by so many updates, single steps that may stay too coarse; 0: in one go");
  add_number(command, "--finest", field.finest, "LENGTH", smallest_length, largest_length,
             "no spacing below this one");
  add_number(command, "--coarsest", field.coarsest, "LENGTH", smallest_length, largest_length,
             "no spacing above this one");
  add_number(command, "--grading", field.grading, "SLOPE", 0.01, 100.0,
             "growth of the spacing away from points and lines");
  command.add_flag("--scattered", field.scattered, "do not join the points of a text file");
  add_number(command, "--contrast", field.contrast, "STEP", 0.1, 255.0,
             "brightness step, of 255, that counts as an edge of a picture");
  add_number(command, "--max-pixels", field.max_pixels, "N", 1, 1e9,
             "refuse a picture that has more");
  command.add_flag("--progress", options.progress,
                   "tell how far it is also where standard error is no terminal, once a second");
}

int fail(const std::string& line) {
  std::fprintf(stderr, "velmar_2d: %s\n", line.c_str());
  return bad_input;
}

int report(const Mesh& mesh, const std::string& error, const std::string& output,
           tools::ProgressLine& line) {
  line.wipe();
  if (!error.empty()) return fail(error);
  std::printf("%s: %lld nodes\n", output.c_str(), static_cast<long long>(mesh.size()));
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Commands
// ---------------------------------------------------------------------------------------------

int draw(const Mesh& mesh, const Options& options, const tools::SizeField& field,
         const tools::Domain& wish, tools::ProgressLine& line) {
  io::PictureOptions picture;
  picture.title = options.title.empty() ? options.field.text : options.title;
  picture.width = options.width;
  if (options.colour == "spacing") picture.cells = io::CellColour::value;
  if (options.colour == "level") picture.cells = io::CellColour::level;
  if (options.colour == "type") picture.cells = io::CellColour::type;
  picture.links = picture.nodes = options.colour.empty();
  if (options.over_picture) {
    if (field.picture == nullptr) return fail("--over-picture: the field is no picture");
    picture.background = {field.picture.get(), wish.west, wish.east, wish.south, wish.north, 0.75};
  }
  picture.height = io::fitting_height(mesh, picture.width, picture);
  return report(mesh, io::draw_mesh(mesh, options.output, picture), options.output, line);
}

int write_vtu(const Mesh& mesh, const Options& options, tools::ProgressLine& line) {
  io::VtuOptions vtu;
  vtu.cells = options.cells ? io::VtuCells::control_cells : io::VtuCells::triangles;
  vtu.ascii = options.ascii;
  vtu.data_names = {"wanted_spacing"};
  return report(mesh, io::write_vtu(mesh, options.output, vtu), options.output, line);
}

int print_stats(const Mesh& mesh, const tools::Domain& domain, const tools::Outcome& outcome) {
  std::map<int, std::int64_t> nodes_of_level;
  for (const Cell& node : mesh.nodes()) ++nodes_of_level[node.level];
  const auto nb_nodes = static_cast<double>(mesh.size());
  const double finest = mesh.spacing_of_level(nodes_of_level.rbegin()->first);
  const double uniform = (domain.width() / finest + 1.0) * (domain.height() / finest + 1.0);

  std::printf("domain: x %g to %g, y %g to %g; base squares of %g\n", domain.west, domain.east,
              domain.south, domain.north, mesh.dist_0());
  std::printf("nodes: %.0f, %lld of them coarser than wanted\n", nb_nodes,
              static_cast<long long>(outcome.too_coarse));
  std::printf("time: %.3g s\n", outcome.seconds);
  std::printf("a uniform grid of the finest spacing: %.0f nodes, %.3g times as many\n", uniform,
              uniform / nb_nodes);
  std::printf("level      spacing       nodes  share\n");
  for (const auto& [level, nodes] : nodes_of_level) {
    std::printf("%5d %12.6g %11lld %5.1f%%\n", level, mesh.spacing_of_level(level),
                static_cast<long long>(nodes), 100.0 * static_cast<double>(nodes) / nb_nodes);
  }
  return 0;
}

/// What was printed may still be on its way.
int with_output_written(int status) {
  const bool is_written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  return is_written || status != 0 ? status
                                   : fail(std::string("standard output: ") + std::strerror(errno));
}

/// The line for a command that there is not, with the one that is meant.
std::string unknown_command(const std::string& command) {
  for (const char* known : {"draw", "vtu", "stats"}) {
    if (std::is_permutation(command.begin(), command.end(), known, known + std::strlen(known)) ||
        std::string_view(known).starts_with(command.substr(0, 2))) {
      return command + " is no command; " + known + " is one";
    }
  }
  return command + " is no command; draw, vtu and stats are";
}

// ---------------------------------------------------------------------------------------------
// From the command line to a mesh
// ---------------------------------------------------------------------------------------------

std::string choose_domain(const Options& options, const tools::SizeField& field,
                          tools::Domain& domain) {
  domain = field.domain;
  if (options.domain.empty()) return {};
  domain = {options.domain[0], options.domain[1], options.domain[2], options.domain[3]};
  for (const double side : options.domain) {
    if (!std::isfinite(side)) return "--domain: not a number";
  }
  if (!(domain.west < domain.east)) return "--domain: the west side is not west of the east side";
  if (!(domain.south < domain.north))
    return "--domain: the south side is not south of the north side";
  return {};
}

/// A text in one line.
std::string in_one_line(const std::string& text) {
  std::istringstream words(text);
  std::string line, word;
  while (words >> word) line += (line.empty() ? "" : " ") + word;
  return line;
}

/// Number of base squares along the shorter side of a picture, next to `wish`, that fill it without
/// a rest; `wish` itself where there is none near.
int squares_that_fill(const io::Image& picture, int wish) {
  const int least =
      std::min(picture.width, picture.height) / std::gcd(picture.width, picture.height);
  const int filling = least * std::max(1, (wish + least / 2) / least);
  return filling <= 2 * wish ? filling : wish;
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app(description, "velmar_2d");
  app.footer(footer);
  app.set_version_flag("--version", std::string("velmar_2d ") + version());
  app.require_subcommand(1);

  CLI::App* draw_command =
      app.add_subcommand("draw", "Draw the mesh to an .svg, .png or .pdf file");
  CLI::App* vtu_command = app.add_subcommand("vtu", "Write the mesh to a .vtu file for ParaView");
  CLI::App* stats_command = app.add_subcommand("stats", "Count the nodes of each level");
  for (CLI::App* command : {draw_command, vtu_command, stats_command}) {
    add_mesh_options(*command, options);
  }
  for (CLI::App* command : {draw_command, vtu_command}) {
    command->add_option("-o,--output", options.output, "the file; by default mesh.png or mesh.vtu")
        ->type_name("FILE");
  }
  draw_command->add_option("--title", options.title, "words above the mesh; by default FIELD")
      ->type_name("WORDS");
  add_number(*draw_command, "--width", options.width, "LENGTH", 64.0, 16384.0,
             "of the picture, in pixels or points");
  draw_command->add_flag("--over-picture", options.over_picture, "draw over the picture of FIELD");
  draw_command
      ->add_option("--cells", options.colour,
                   "draw control cells, coloured by wanted spacing, level or type of shape")
      ->check(CLI::IsMember({"spacing", "level", "type"}).description(""))
      ->type_name("spacing|level|type");
  vtu_command->add_flag("--cells", options.cells, "control cells instead of triangles");
  vtu_command->add_flag("--ascii", options.ascii, "numbers as text");

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& wish) {
    return app.exit(wish);
  } catch (const CLI::RequiredError& error) {
    const bool has_command = !app.get_subcommands().empty() || argc < 2 || argv[1][0] == '-';
    return fail(has_command ? error.what() : unknown_command(argv[1]));
  } catch (const CLI::Error& error) {
    return fail(error.what());
  }
  if (options.mesh.updates > 0 && options.mesh.slope > 0.0) {
    return fail("--slope: updates know no slope; leave out --updates");
  }
  if (options.output.empty()) options.output = draw_command->parsed() ? "mesh.png" : "mesh.vtu";

  tools::SizeField field;
  if (const std::string error = tools::read_field(options.field, field); !error.empty()) {
    return fail(error);
  }
  tools::Domain domain;
  if (const std::string error = choose_domain(options, field, domain); !error.empty()) {
    return fail(error);
  }
  const tools::Domain wish = domain;
  const bool squares_given = app.get_subcommands().front()->count("--squares") > 0;
  if (field.picture != nullptr && options.domain.empty() && !squares_given) {
    options.mesh.squares = squares_that_fill(*field.picture, options.mesh.squares);
  }
  std::optional<Mesh> mesh;
  tools::Outcome outcome;
  tools::ProgressLine line(options.progress);
  std::string error;
  {
    const tools::InterruptsAreHeeded interrupts_are_heeded;
    error = tools::make_mesh(field, options.mesh, domain, mesh, outcome, line);
  }
  if (!error.empty()) {
    line.wipe();
    return fail(error);
  }
  if (outcome.too_coarse > 0 && options.mesh.updates == 0 && !stats_command->parsed()) {
    line.wipe();
    std::fprintf(stderr, "%lld of %lld nodes stay coarser than wanted, at --limit %d\n",
                 static_cast<long long>(outcome.too_coarse), static_cast<long long>(mesh->size()),
                 options.mesh.limit);
  }
  if (!stats_command->parsed()) line.tell("writing " + options.output, mesh->size());
  if (draw_command->parsed()) return draw(*mesh, options, field, wish, line);
  if (vtu_command->parsed()) return write_vtu(*mesh, options, line);
  line.wipe();
  return print_stats(*mesh, domain, outcome);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return with_output_written(run(argc, argv));
  } catch (const std::bad_alloc&) {
    return fail("memory is exhausted");
  } catch (const std::exception& error) {
    const std::string line = in_one_line(error.what());
    return fail(line.starts_with("Error allocating") ? "memory is exhausted" : line);
  }
}
