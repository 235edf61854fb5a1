#include <cairo.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d::io {
namespace {

// A PNG file begins with eight fixed bytes, the length and name of its first block, and then the
// width and the height, highest byte first.
constexpr std::array<unsigned char, 8> png_mark = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
constexpr std::size_t width_place = 16, height_place = 20, head_length = 24;

std::uint32_t number_at(const unsigned char* place) {
  return std::uint32_t{place[0]} << 24 | std::uint32_t{place[1]} << 16 |
         std::uint32_t{place[2]} << 8 | place[3];
}

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

/// Looks at the first bytes, since cairo's own words for these faults tell too little, and since a
/// small file may hold a huge picture.
std::string fault_of_head(const File& file, std::int64_t most_pixels) {
  if (!file) return std::strerror(errno);
  std::array<unsigned char, head_length> head{};
  const std::size_t length = std::fread(head.data(), 1, head.size(), file.get());
  if (std::ferror(file.get()) != 0) return std::strerror(errno);
  if (length < head.size() || std::memcmp(head.data(), png_mark.data(), png_mark.size()) != 0) {
    return "not a PNG file";
  }
  const std::uint32_t width = number_at(&head[width_place]),
                      height = number_at(&head[height_place]);
  if (width == 0 || height == 0) return "the image has no pixels";
  if (std::uint64_t{width} * height >
      static_cast<std::uint64_t>(std::max<std::int64_t>(most_pixels, 0))) {
    return "the image has " + std::to_string(std::uint64_t{width} * height) +
           " pixels, more than " + std::to_string(most_pixels);
  }
  return {};
}

cairo_status_t read_on(void* file, unsigned char* bytes, unsigned int length) {
  return std::fread(bytes, 1, length, static_cast<std::FILE*>(file)) == length
             ? CAIRO_STATUS_SUCCESS
             : CAIRO_STATUS_READ_ERROR;
}

struct Release {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
  void operator()(cairo_t* pen) const { cairo_destroy(pen); }
};
using Surface = std::unique_ptr<cairo_surface_t, Release>;

std::string reason(cairo_status_t status) {
  if (status == CAIRO_STATUS_NO_MEMORY) return "memory is exhausted";
  return std::string("damaged, ") + cairo_status_to_string(status);
}

}  // namespace

std::string read_png(const std::string& path, Image& image, std::int64_t most_pixels) try {
  const File file(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (const std::string fault = fault_of_head(file, most_pixels); !fault.empty()) {
    return path + ": " + fault;
  }
  std::rewind(file.get());
  const Surface as_stored(cairo_image_surface_create_from_png_stream(&read_on, file.get()));
  cairo_status_t status = cairo_surface_status(as_stored.get());
  if (status != CAIRO_STATUS_SUCCESS) return path + ": " + reason(status);

  // One format for everything that PNG files can hold: painted on white paper, which is the image.
  const int width = cairo_image_surface_get_width(as_stored.get());
  const int height = cairo_image_surface_get_height(as_stored.get());
  Image read{width, height,
             std::vector<std::uint32_t>(
                 static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0xffffff)};
  const Surface paper(cairo_image_surface_create_for_data(
      reinterpret_cast<unsigned char*>(read.pixels.data()), CAIRO_FORMAT_RGB24, width, height,
      cairo_format_stride_for_width(CAIRO_FORMAT_RGB24, width)));
  {
    const std::unique_ptr<cairo_t, Release> pen(cairo_create(paper.get()));
    cairo_set_source_surface(pen.get(), as_stored.get(), 0.0, 0.0);
    cairo_paint(pen.get());
    status = cairo_status(pen.get());
  }
  if (status != CAIRO_STATUS_SUCCESS) return path + ": " + reason(status);
  cairo_surface_flush(paper.get());
  for (std::uint32_t& pixel : read.pixels) pixel &= 0xffffff;  // the highest byte is undefined
  image = std::move(read);
  return {};
} catch (const std::bad_alloc&) {
  return path + ": memory is exhausted";
}

}  // namespace velmar_2d::io
