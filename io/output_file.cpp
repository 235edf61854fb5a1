#include "io/output_file.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace velmar_2d::io {

OutputFile::OutputFile(std::string path) : path_(std::move(path)) {
  // No other file of this process, or of another one, is on its way under the name that is new.
  for (int number = 1; file_ == nullptr; ++number) {
    beside_ = path_ + "." + std::to_string(number) + ".part";
    file_ = std::fopen(beside_.c_str(), "wbx");
    if (file_ == nullptr && errno != EEXIST) {
      fail(std::strerror(errno));
      beside_.clear();
      break;
    }
  }
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
  if (error_.empty()) {
    std::error_code why;
    std::filesystem::rename(beside_, path_, why);
    // The name beside is free for others from here on.
    why ? fail(why.message()) : beside_.clear();
  }
  return error_;
}

}  // namespace velmar_2d::io
