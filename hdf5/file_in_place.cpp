#include "hdf5/file_in_place.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "velmar_2D/records.hpp"

namespace velmar_2d::hdf5 {

namespace {

[[noreturn]] void fail() { throw Error(std::strerror(errno)); }

/// Where a path leads through symbolic links, also where the last one leads to nothing yet.
std::string resolved(std::string path) {
  constexpr int most_links = 40;
  for (int i = 0; i < most_links; ++i) {
    std::array<char, 4096> target{};
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    if (length <= 0) return path;
    const std::string to(target.data(), static_cast<std::size_t>(length));
    const std::size_t folder = to.front() == '/' ? std::string::npos : path.rfind('/');
    path.erase(folder == std::string::npos ? 0 : folder + 1);
    path += to;
  }
  errno = ELOOP;
  fail();
}

void write_all(int file, const std::byte* from, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(file, from, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail();
    from += written;
    size -= static_cast<std::size_t>(written);
  }
}

/// A file system that does not know how is taken at its word.
void flush_to_disk(int file) {
  if (fsync(file) != 0 && errno != EINVAL && errno != ENOTSUP) fail();
}

/// So that the new name of a file is on the disk too.
void flush_folder(const std::string& path) {
  const std::size_t end = path.rfind('/');
  const std::string folder = end == std::string::npos ? "." : path.substr(0, end + 1);
  const int file = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (file < 0) return;  // it may be writable only
  fsync(file);
  close(file);
}

}  // namespace

FileInPlace::FileInPlace(const std::string& path) {
  struct stat old {};
  const bool is_there = stat(path.c_str(), &old) == 0;
  if (is_there && !S_ISREG(old.st_mode)) {
    // What its links spell need not be a path, such as that of a pipe.
    file_ = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (file_ < 0) fail();
    return;
  }
  place_ = resolved(path);
  // No other file of this process, or of another one, is on its way under the name that is new.
  constexpr mode_t for_all = 0666;
  for (int number = 1; file_ < 0; ++number) {
    beside_ = place_ + "." + std::to_string(number) + ".part";
    file_ = open(beside_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, for_all);
    if (file_ < 0 && errno != EEXIST) fail();
  }
  if (is_there && fchmod(file_, old.st_mode & 07777) != 0) {
    // The file is written all the same, with the rights of a new one.
  }
}

FileInPlace::~FileInPlace() {
  if (file_ >= 0) close(file_);
  if (!beside_.empty()) std::remove(beside_.c_str());
}

// NOLINTNEXTLINE(readability-make-member-function-const): it changes the file
void FileInPlace::write(std::span<const std::byte> bytes) {
  write_all(file_, bytes.data(), bytes.size());
}

void FileInPlace::copy_old() {
  const int old = open(place_.c_str(), O_RDONLY | O_CLOEXEC);
  if (old < 0) fail();
  const std::unique_ptr<const int, void (*)(const int*)> closed(&old,
                                                                [](const int* f) { close(*f); });
  // Where the file system can, it shares the blocks of the two files instead.
  ssize_t copied = 0;
  constexpr std::size_t at_a_time = std::size_t{1} << 30, bytes_of_buffer = std::size_t{1} << 20;
  while ((copied = copy_file_range(old, nullptr, file_, nullptr, at_a_time, 0)) > 0) {
  }
  if (copied == 0) return;
  if (errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) fail();
  const auto buffer = std::make_unique<std::byte[]>(bytes_of_buffer);
  while ((copied = read(old, buffer.get(), bytes_of_buffer)) > 0) {
    write_all(file_, buffer.get(), static_cast<std::size_t>(copied));
  }
  if (copied < 0) fail();
}

void FileInPlace::finish() {
  const bool straight = beside_.empty();
  if (!straight) flush_to_disk(file_);
  if (close(std::exchange(file_, -1)) != 0) fail();
  if (straight) return;
  if (std::rename(beside_.c_str(), place_.c_str()) != 0) fail();
  beside_.clear();
  flush_folder(place_);
}

std::size_t size_of_file(const std::string& path) {
  struct stat file {};
  if (stat(path.c_str(), &file) != 0) fail();
  if (!S_ISREG(file.st_mode)) throw Error("this is no regular file");
  return static_cast<std::size_t>(file.st_size);
}

bool exists(const std::string& path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0;
}

}  // namespace velmar_2d::hdf5
