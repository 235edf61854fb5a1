// A file on its way to its place.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace velmar_2d::io {

/// Writes beside the place of a file and renames when all is written: the file is complete, or
/// whatever stood there before; so too where several are on their way to the same place. Follows
/// symbolic links; writes straight to what is no regular file: a device, a pipe. What goes wrong
/// first is kept; everything after it does nothing.
class OutputFile {
 public:
  explicit OutputFile(std::string path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// Empty, or one line with the path and the reason.
  const std::string& error() const { return error_; }
  /// Notes a reason of the caller's own.
  void fail(const std::string& reason);
  /// @return whether nothing has gone wrong
  bool write(const void* bytes, std::size_t length);
  bool write(const std::string& text) { return write(text.data(), text.size()); }
  /// Puts the file in its place; returns error().
  const std::string& finish();

 private:
  std::string path_, target_, error_;
  std::string beside_;  ///< what is renamed to `target_`; empty where the file itself is written
  std::FILE* file_ = nullptr;
};

}  // namespace velmar_2d::io
