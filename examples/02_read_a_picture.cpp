// A mesh that reads a picture: fine where the brightness jumps, coarse where it does not.
//
//     02_read_a_picture                                    paints a picture of its own first
//     02_read_a_picture photo.png -o photo_mesh.png        any PNG file
//     02_read_a_picture photo.png --level 10 --contrast 4  finer, and also along faint edges
//
// The rectangle is the picture in pixels, y upwards. The last lines tell what came of it:
//
//     picture: 480 x 360 pixels, base spacing 30
//     mesh: 11986 nodes for 172800 pixels
//     drawn: pictures/02_read_a_picture.png
//
// A file that cannot be read or an option that makes no sense gives one line on standard error and
// the exit status 2.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "sample_picture.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace {

using velmar_2d::io::Image;

struct Options {
  std::string picture, output = "pictures/02_read_a_picture.png";
  int cells = 12, level = 8;
  int contrast = 10;
};

/// Side of the base squares: a whole number of pixels near the wanted one that leaves the smallest
/// strip of the picture over.
int base_spacing(const Image& image, int cells) {
  const int shorter = std::min(image.width, image.height);
  const int wanted = std::max(1, shorter / cells);
  int best = wanted;
  for (int side = std::max(1, 2 * wanted / 3); side <= std::min(shorter, wanted * 3 / 2); ++side) {
    const auto over = [&](int s) { return image.width % s + image.height % s; };
    const bool nearer = std::abs(side - wanted) < std::abs(best - wanted);
    if (over(side) < over(best) || (over(side) == over(best) && nearer)) best = side;
  }
  return best;
}

int fail(const std::string& line) {
  std::fprintf(stderr, "%s\n", line.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("Adapts a mesh to the edges of a picture and draws it over the picture.");
  app.add_option("picture", options.picture, "PNG file; none: a picture is painted");
  app.add_option("-o,--output", options.output, "where to draw: .png, .svg or .pdf")
      ->capture_default_str();
  app.add_option("--cells", options.cells, "base squares along the shorter side")
      ->check(CLI::Range(1, 256))
      ->capture_default_str();
  app.add_option("--level", options.level, "finest level; two levels halve the spacing")
      ->check(CLI::Range(0, 16))
      ->capture_default_str();
  app.add_option("--contrast", options.contrast, "brightness step (of 255) that counts as an edge")
      ->check(CLI::Range(1, 255))
      ->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help) {
    return app.exit(help);
  } catch (const CLI::Error& error) {
    return fail(error.what());
  }

  const std::filesystem::path folder = std::filesystem::path(options.output).parent_path();
  std::error_code no_folder;
  if (!folder.empty()) std::filesystem::create_directories(folder, no_folder);
  if (no_folder) return fail(folder.string() + ": " + no_folder.message());
  if (options.picture.empty()) {
    options.picture = (folder / "sample_picture.png").string();
    if (const std::string error = write_sample_picture(options.picture); !error.empty())
      return fail(error);
  }
  Image image;
  if (const std::string error = velmar_2d::io::read_png(options.picture, image); !error.empty())
    return fail(error);

  // The domain is the picture without the strip that is no whole square, cut evenly on both sides.
  const int base = base_spacing(image, options.cells);
  const int columns = image.width / base, rows = image.height / base;
  const double cut_x = 0.5 * (image.width % base), cut_y = 0.5 * (image.height % base);
  const double width = columns * base, height = rows * base;
  velmar_2d::Mesh mesh({0.0, width, 0.0, height},
                       {.nx = columns + 1, .ny = rows + 1, .subdiv_max = options.level});
  std::printf("picture: %d x %d pixels, base spacing %d\n", image.width, image.height, base);

  // Nodes closer than the pixels would learn nothing more.
  const double finest = std::max(1.0, base * std::exp2(-0.5 * options.level));
  const std::vector<double> spacing =
      velmar_2d::io::spacing_of_pixels(image, finest, options.contrast);
  const auto wanted = [&](double x, double y, std::span<const double>, double, double) {
    const int column = std::clamp(static_cast<int>(x + cut_x), 0, image.width - 1);
    const int row = std::clamp(static_cast<int>(height - y + cut_y), 0, image.height - 1);
    return spacing[static_cast<std::size_t>(row) * static_cast<std::size_t>(image.width) +
                   static_cast<std::size_t>(column)];
  };
  mesh.resolve(wanted);
  std::printf("mesh: %lld nodes for %zu pixels\n", static_cast<long long>(mesh.size()),
              image.pixels.size());

  velmar_2d::io::PictureOptions drawing;
  drawing.title = "A mesh that reads a picture";
  drawing.background = {&image, -cut_x, width + cut_x, -cut_y, height + cut_y, 0.75};
  drawing.width = 1000.0;
  drawing.height = velmar_2d::io::fitting_height(mesh, drawing.width, drawing);
  if (const std::string error = velmar_2d::io::draw_mesh(mesh, options.output, drawing);
      !error.empty())
    return fail(error);
  std::printf("drawn: %s\n", options.output.c_str());
  return 0;
}
