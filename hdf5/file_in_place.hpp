// A file on its way to its place.
#pragma once

#include <cstddef>
#include <span>
#include <string>

namespace velmar_2d::hdf5 {

/// Writes beside the place of a file, and renames when all is on the disk: there is the old file or
/// the new one, whenever the process or the machine ends. Links are followed. What is no regular
/// file, such as a pipe, is written to straight. What goes wrong throws an Error with the reason.
class FileInPlace {
 public:
  explicit FileInPlace(const std::string& path);
  ~FileInPlace();
  FileInPlace(const FileInPlace&) = delete;
  FileInPlace& operator=(const FileInPlace&) = delete;

  void write(std::span<const std::byte> bytes);
  /// Begins with what is in the place. Needs: a regular file is.
  void copy_old();
  /// Where others may open the file meanwhile.
  const std::string& beside() const { return beside_; }
  /// Puts the file in its place.
  void finish();

 private:
  std::string place_, beside_;  ///< no place beside: written to straight
  int file_ = -1;
};

/// Size of a regular file. Throws Error where there is none.
std::size_t size_of_file(const std::string& path);
/// Whether something is there.
bool exists(const std::string& path);

}  // namespace velmar_2d::hdf5
