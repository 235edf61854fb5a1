#include "io/picture_file.hpp"

#include <cairo-pdf.h>
#include <cairo-svg.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <utility>

namespace velmar_2d::io {
namespace {

std::string extension_of(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return extension;
}

constexpr double smallest_size = 64.0, largest_size = 16384.0;

/// Lines closer than two pixels would beat with the pixel grid. PNG pictures up to this size are
/// therefore drawn twice as large and then reduced by a filter that keeps edges sharp.
constexpr double largest_enlarged_size = 4096.0;
constexpr double enlargement = 2.0;

cairo_surface_t* reduced(cairo_surface_t* large, int width, int height) {
  cairo_surface_t* small = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
  cairo_t* pen = cairo_create(small);
  cairo_scale(pen, 1.0 / enlargement, 1.0 / enlargement);
  cairo_set_source_surface(pen, large, 0.0, 0.0);
  cairo_pattern_set_filter(cairo_get_source(pen), CAIRO_FILTER_BEST);
  cairo_pattern_set_extend(cairo_get_source(pen), CAIRO_EXTEND_PAD);
  cairo_paint(pen);
  cairo_destroy(pen);
  return small;
}

const char* reason(cairo_status_t status) {
  return status == CAIRO_STATUS_NO_MEMORY ? "memory is exhausted" : cairo_status_to_string(status);
}

bool is_usable(double size) { return size >= smallest_size && size <= largest_size; }

}  // namespace

PictureFile::PictureFile(std::string path, double width, double height) : path_(std::move(path)) {
  open(width, height);
}

void PictureFile::open(double width, double height) {
  const std::string extension = extension_of(path_);
  is_png_ = extension == ".png";
  if (!is_png_ && extension != ".svg" && extension != ".pdf") {
    return fail("a picture ends in .svg, .png or .pdf");
  }
  if (!is_usable(width) || !is_usable(height)) {
    return fail("a picture is from 64 to 16384 wide and high");
  }
  file_.emplace(path_);
  if (!file_->error().empty()) return;

  if (is_png_) {
    is_enlarged_ = std::max(width, height) <= largest_enlarged_size;
    const double factor = is_enlarged_ ? enlargement : 1.0;
    width_ = static_cast<int>(std::lround(width));
    height_ = static_cast<int>(std::lround(height));
    surface_ = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width_ * static_cast<int>(factor),
                                          height_ * static_cast<int>(factor));
    cairo_surface_set_device_scale(surface_, factor, factor);
  } else if (extension == ".svg") {
    surface_ = cairo_svg_surface_create_for_stream(&PictureFile::write, this, width, height);
  } else {
    surface_ = cairo_pdf_surface_create_for_stream(&PictureFile::write, this, width, height);
    // The same mesh gives the same file, whenever it is drawn.
    cairo_pdf_surface_set_metadata(surface_, CAIRO_PDF_METADATA_CREATE_DATE,
                                   "2000-01-01T00:00:00Z");
  }
  pen_ = cairo_create(surface_);
  if (cairo_status(pen_) != CAIRO_STATUS_SUCCESS) fail(reason(cairo_status(pen_)));
}

PictureFile::~PictureFile() {
  if (pen_ != nullptr) cairo_destroy(pen_);
  if (surface_ != nullptr) cairo_surface_destroy(surface_);  // may still write its end
}

cairo_status_t PictureFile::write(void* self, const unsigned char* bytes, unsigned int length) {
  auto* picture = static_cast<PictureFile*>(self);
  return picture->file_->write(bytes, length) ? CAIRO_STATUS_SUCCESS : CAIRO_STATUS_WRITE_ERROR;
}

const std::string& PictureFile::error() const {
  return file_ && !file_->error().empty() ? file_->error() : error_;
}

void PictureFile::fail(const std::string& reason) {
  if (error_.empty()) error_ = path_ + ": " + reason;
}

const std::string& PictureFile::finish() {
  if (!error().empty()) return error();
  cairo_status_t status = cairo_status(pen_);
  if (status == CAIRO_STATUS_SUCCESS && is_png_) {
    if (is_enlarged_) {
      cairo_surface_set_device_scale(surface_, 1.0, 1.0);
      cairo_surface_t* small = reduced(surface_, width_, height_);
      cairo_surface_destroy(std::exchange(surface_, small));
    }
    status = cairo_surface_write_to_png_stream(surface_, &PictureFile::write, this);
  }
  cairo_surface_finish(surface_);
  if (status == CAIRO_STATUS_SUCCESS) status = cairo_surface_status(surface_);
  if (status != CAIRO_STATUS_SUCCESS) file_->fail(reason(status));
  return file_->finish();
}

}  // namespace velmar_2d::io
