#include "io/output_file.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <utility>

namespace velmar_2d::io {

namespace {

namespace fs = std::filesystem;

/// Where symbolic links lead, also to a file that is not there yet.
fs::path target_of(fs::path path) {
  constexpr int most_links = 40;
  std::error_code error;
  for (int i = 0; i < most_links && fs::is_symlink(fs::symlink_status(path, error)); ++i) {
    path = path.parent_path() / fs::read_symlink(path, error);
  }
  return path;
}

}  // namespace

OutputFile::OutputFile(std::string path) : path_(std::move(path)), target_(path_) {
  std::error_code error;
  const fs::file_status there = fs::status(path_, error);
  is_renamed_ = !fs::exists(there) || fs::is_regular_file(there);
  if (is_renamed_) {
    target_ = target_of(path_).string();
    // No other file of this process, or of another one, is on its way under this name.
    written_ = target_ + "." + std::to_string(getpid()) + "." +
               std::to_string(reinterpret_cast<std::uintptr_t>(this)) + ".part";
  } else {
    written_ = target_;
  }
  file_ = std::fopen(written_.c_str(), "wb");
  if (file_ == nullptr) return fail(std::strerror(errno));
  if (is_renamed_ && fs::exists(there)) fs::permissions(written_, there.permissions(), error);
}

OutputFile::~OutputFile() {
  if (file_ != nullptr) std::fclose(file_);
  if (is_renamed_) std::remove(written_.c_str());  // gone already where finish() succeeded
}

void OutputFile::fail(const std::string& reason) {
  if (error_.empty()) error_ = path_ + ": " + reason;
}

bool OutputFile::write(const void* bytes, std::size_t length) {
  if (file_ == nullptr) return false;
  if (error_.empty() && std::fwrite(bytes, 1, length, file_) != length) {
    fail(std::strerror(errno));
  }
  return error_.empty();
}

const std::string& OutputFile::finish() {
  if (file_ != nullptr && std::fclose(std::exchange(file_, nullptr)) != 0) {
    fail(std::strerror(errno));
  }
  if (error_.empty() && is_renamed_ && std::rename(written_.c_str(), target_.c_str()) != 0) {
    fail(std::strerror(errno));
  }
  return error_;
}

}  // namespace velmar_2d::io
