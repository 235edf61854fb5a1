#include "io/output_file.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace velmar_2d::io {

namespace {

namespace fs = std::filesystem;

/// Where symbolic links lead, also to a file that is not there yet.
fs::path target_of(fs::path path) {
  constexpr int most_links = 40;
  std::error_code ignored;
  for (int i = 0; i < most_links && fs::is_symlink(fs::symlink_status(path, ignored)); ++i) {
    path = path.parent_path() / fs::read_symlink(path, ignored);
  }
  return path;
}

}  // namespace

OutputFile::OutputFile(std::string path) : path_(std::move(path)), target_(path_) {
  std::error_code ignored;
  const fs::file_status there = fs::status(path_, ignored);
  if (fs::exists(there) && !fs::is_regular_file(there)) {
    file_ = std::fopen(path_.c_str(), "wb");
    if (file_ == nullptr) fail(std::strerror(errno));
    return;
  }
  target_ = target_of(path_).string();
  // No other file of this process, or of another one, is on its way under the name that is new.
  for (int number = 1; file_ == nullptr; ++number) {
    beside_ = target_ + "." + std::to_string(number) + ".part";
    file_ = std::fopen(beside_.c_str(), "wbx");
    if (file_ == nullptr && errno != EEXIST) {
      fail(std::strerror(errno));
      beside_.clear();
      return;
    }
  }
  if (fs::exists(there)) fs::permissions(beside_, there.permissions(), ignored);
}

OutputFile::~OutputFile() {
  if (file_ != nullptr) std::fclose(file_);
  if (!beside_.empty()) std::remove(beside_.c_str());
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
  if (error_.empty() && !beside_.empty()) {
    std::error_code why;
    fs::rename(beside_, target_, why);
    // The name beside is free for others from here on.
    why ? fail(why.message()) : beside_.clear();
  }
  return error_;
}

}  // namespace velmar_2d::io
