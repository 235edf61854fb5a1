#include <cairo.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d::io {
namespace {

// A PNG file begins with eight fixed bytes, the length and name of its first block, and then the
// width and the height, highest byte first.
constexpr std::array<unsigned char, 8> png_mark = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
constexpr std::size_t width_place = 16, height_place = 20, head_length = 24;

bool is_zero(const unsigned char* number) {
  return number[0] == 0 && number[1] == 0 && number[2] == 0 && number[3] == 0;
}

/// Looks at the first bytes, since cairo's own words for these faults tell too little.
std::string fault_of_head(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                             &std::fclose);
  if (!file) return std::strerror(errno);
  std::array<unsigned char, head_length> head{};
  const std::size_t length = std::fread(head.data(), 1, head.size(), file.get());
  if (std::ferror(file.get()) != 0) return std::strerror(errno);
  if (length < head.size() || std::memcmp(head.data(), png_mark.data(), png_mark.size()) != 0) {
    return "not a PNG file";
  }
  if (is_zero(&head[width_place]) || is_zero(&head[height_place])) return "the image has no pixels";
  return {};
}

struct Release {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
using Surface = std::unique_ptr<cairo_surface_t, Release>;

}  // namespace

std::string read_png(const std::string& path, Image& image) {
  if (const std::string fault = fault_of_head(path); !fault.empty()) return path + ": " + fault;

  const Surface as_stored(cairo_image_surface_create_from_png(path.c_str()));
  cairo_status_t status = cairo_surface_status(as_stored.get());
  if (status != CAIRO_STATUS_SUCCESS) return path + ": damaged, " + cairo_status_to_string(status);

  // One format for everything that PNG files can hold: painted on white paper.
  const int width = cairo_image_surface_get_width(as_stored.get());
  const int height = cairo_image_surface_get_height(as_stored.get());
  const Surface paper(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height));
  cairo_t* pen = cairo_create(paper.get());
  cairo_set_source_rgb(pen, 1.0, 1.0, 1.0);
  cairo_paint(pen);
  cairo_set_source_surface(pen, as_stored.get(), 0.0, 0.0);
  cairo_paint(pen);
  status = cairo_status(pen);
  cairo_destroy(pen);
  if (status != CAIRO_STATUS_SUCCESS) return path + ": " + cairo_status_to_string(status);

  cairo_surface_flush(paper.get());
  const unsigned char* row = cairo_image_surface_get_data(paper.get());
  const auto columns = static_cast<std::size_t>(width);
  Image read{width, height, std::vector<std::uint32_t>(columns * static_cast<std::size_t>(height))};
  for (std::uint32_t* to = read.pixels.data(); to != read.pixels.data() + read.pixels.size();
       to += columns, row += cairo_image_surface_get_stride(paper.get())) {
    std::memcpy(to, row, columns * sizeof(std::uint32_t));
  }
  for (std::uint32_t& pixel : read.pixels) pixel &= 0xffffff;  // the highest byte is undefined
  image = std::move(read);
  return {};
}

}  // namespace velmar_2d::io
