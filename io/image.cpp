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

/// Pictures that cairo reads are no wider and no higher.
constexpr std::uint32_t most_columns = 32767;

/// Looks at the first bytes, since cairo's own words for these faults tell too little, and since a
/// small file may hold a huge picture.
std::string fault_of_head(const File& file, std::int64_t most_pixels, Image& size) {
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
  size.width = static_cast<int>(std::min(width, most_columns));
  size.height = static_cast<int>(std::min(height, most_columns));
  return {};
}

/// Hands a file on without the blocks that do not change pixels (their names begin with a small
/// letter; transparency is one that does): such a block may claim, or unfold to, gigabytes.
class Blocks {
 public:
  explicit Blocks(std::FILE* file) : file_(file) {}

  static cairo_status_t read(void* blocks, unsigned char* bytes, unsigned int length) {
    return static_cast<Blocks*>(blocks)->read(bytes, length) ? CAIRO_STATUS_SUCCESS
                                                             : CAIRO_STATUS_READ_ERROR;
  }

 private:
  bool read(unsigned char* bytes, std::size_t length) {
    while (length > 0) {
      if (nb_head_ == 0 && rest_ == 0 && !begin_block()) return false;
      const std::size_t share = std::min(length, nb_head_ > 0 ? nb_head_ : rest_);
      if (nb_head_ > 0) {
        std::memcpy(bytes, head_.data() + head_.size() - nb_head_, share);
        nb_head_ -= share;
      } else {
        if (std::fread(bytes, 1, share, file_) != share) return false;
        rest_ -= share;
      }
      bytes += share;
      length -= share;
    }
    return true;
  }

  /// Goes to the next block that is handed on.
  bool begin_block() {
    constexpr std::size_t checksum = 4, largest_palette = 768;
    for (;;) {
      if (std::fread(head_.data(), 1, head_.size(), file_) != head_.size()) return false;
      const std::uint32_t length = number_at(head_.data());
      const char* name = reinterpret_cast<const char*>(&head_[4]);
      const bool is_small_letter = (head_[4] & 0x20) != 0;
      if (!is_small_letter || std::memcmp(name, "tRNS", 4) == 0) {
        nb_head_ = head_.size();
        rest_ = std::size_t{length} + checksum;
        return length <= largest_palette || std::memcmp(name, "IDAT", 4) == 0;
      }
      if (std::fseek(file_, static_cast<long>(std::size_t{length} + checksum), SEEK_CUR) != 0)
        return false;
    }
  }

  std::FILE* file_;
  std::array<unsigned char, 8> head_{};  ///< of a block: its length and its name
  std::size_t nb_head_ = 0;              ///< bytes of it that are still to be handed on
  std::size_t rest_ = png_mark.size();   ///< bytes of the block, or of the file's mark, likewise
};

struct Release {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
  void operator()(cairo_t* pen) const { cairo_destroy(pen); }
};
using Surface = std::unique_ptr<cairo_surface_t, Release>;

/// cairo calls most damage exhausted memory. It is, where there is no room for the pixels.
std::string reason(cairo_status_t status, const Image& size) {
  if (status != CAIRO_STATUS_NO_MEMORY) {
    return std::string("damaged, ") + cairo_status_to_string(status);
  }
  constexpr int room_to_work = 512;  // squared, a megabyte
  const Surface room(cairo_image_surface_create(CAIRO_FORMAT_ARGB32,
                                                std::max(size.width, room_to_work),
                                                std::max(size.height, room_to_work)));
  return cairo_surface_status(room.get()) == CAIRO_STATUS_NO_MEMORY ? "memory is exhausted"
                                                                    : "damaged";
}

}  // namespace

std::string read_png(const std::string& path, Image& image, std::int64_t most_pixels) try {
  const File file(std::fopen(path.c_str(), "rb"), &std::fclose);
  Image size;
  if (const std::string fault = fault_of_head(file, most_pixels, size); !fault.empty()) {
    return path + ": " + fault;
  }
  std::rewind(file.get());
  Blocks blocks(file.get());
  const Surface as_stored(cairo_image_surface_create_from_png_stream(&Blocks::read, &blocks));
  cairo_status_t status = cairo_surface_status(as_stored.get());
  if (status != CAIRO_STATUS_SUCCESS) return path + ": " + reason(status, size);

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
  if (status != CAIRO_STATUS_SUCCESS) return path + ": " + reason(status, size);
  cairo_surface_flush(paper.get());
  for (std::uint32_t& pixel : read.pixels) pixel &= 0xffffff;  // the highest byte is undefined
  image = std::move(read);
  return {};
} catch (const std::bad_alloc&) {
  return path + ": memory is exhausted";
}

}  // namespace velmar_2d::io
