#include "io/output_file.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace velmar_2d::io {

OutputFile::OutputFile(std::string path)
    : path_(std::move(path)),
      // No other file of this process, or of another one, is on its way under this name.
      beside_(path_ + "." + std::to_string(getpid()) + "." +
              std::to_string(reinterpret_cast<std::uintptr_t>(this)) + ".part") {
  file_ = std::fopen(beside_.c_str(), "wb");
  if (file_ == nullptr) fail(std::strerror(errno));
}

OutputFile::~OutputFile() {
  if (file_ != nullptr) std::fclose(file_);
  std::remove(beside_.c_str());  // gone already where finish() succeeded
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
  if (error_.empty() && std::rename(beside_.c_str(), path_.c_str()) != 0) {
    fail(std::strerror(errno));
  }
  return error_;
}

}  // namespace velmar_2d::io
