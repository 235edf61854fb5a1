// A picture on its way to a file.
#pragma once

#include <cairo.h>

#include <optional>
#include <string>

#include "io/output_file.hpp"

namespace velmar_2d::io {

/// Opens a drawing whose kind follows from the extension of a path, and puts it in place when it
/// is finished. Until then, and where anything fails, nothing is seen at the path itself.
class PictureFile {
 public:
  PictureFile(std::string path, double width, double height);
  ~PictureFile();
  PictureFile(const PictureFile&) = delete;
  PictureFile& operator=(const PictureFile&) = delete;

  /// What went wrong so far: empty, or one line with the path and the reason.
  const std::string& error() const;
  /// Where to draw; not to be used after an error.
  cairo_t* pen() const { return pen_; }
  /// Writes the rest and renames; returns error().
  const std::string& finish();

 private:
  static cairo_status_t write(void* self, const unsigned char* bytes, unsigned int length);
  void open(double width, double height);
  void fail(const std::string& reason);

  std::string path_, error_;
  std::optional<OutputFile> file_;
  cairo_surface_t* surface_ = nullptr;
  cairo_t* pen_ = nullptr;
  int width_ = 0, height_ = 0;  // of a PNG picture, in pixels
  bool is_png_ = false, is_enlarged_ = false;
};

}  // namespace velmar_2d::io
