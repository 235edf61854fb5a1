// HDF5 as far as it is used here: handles that close themselves, silence, attributes. A call that
// fails throws an Error with a few words.
#pragma once

#include <hdf5.h>

#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "velmar_2D/records.hpp"

namespace velmar_2d::hdf5 {

/// Held by whatever calls HDF5: one thread at a time, since not every build of it takes more, and
/// nothing printed where a call fails.
class Session {
 public:
  Session();
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

 private:
  std::scoped_lock<std::mutex> lock_;
  H5E_auto2_t print_ = nullptr;
  void* print_data_ = nullptr;
};

/// An object of HDF5, closed at the end of its scope.
class Object {
 public:
  using Close = herr_t (*)(hid_t);
  Object() = default;
  /// Throws Error with this text where the id is none.
  Object(hid_t id, Close close_it, std::string_view otherwise);
  Object(Object&& other) noexcept
      : id_(std::exchange(other.id_, -1)), close_(std::exchange(other.close_, nullptr)) {}
  Object& operator=(Object&& other) noexcept {
    std::swap(id_, other.id_);
    std::swap(close_, other.close_);
    return *this;
  }
  ~Object() {
    if (id_ >= 0) close_(id_);
  }
  operator hid_t() const { return id_; }
  /// Closes it now. Throws Error with this text where that fails.
  void close(std::string_view otherwise);

 private:
  hid_t id_ = -1;
  Close close_ = nullptr;
};

/// Throws Error where the result of a call is negative.
void must(herr_t result, std::string_view otherwise);

template <typename T>
hid_t type_in_file();
template <>
inline hid_t type_in_file<double>() {
  return H5T_IEEE_F64LE;
}
template <>
inline hid_t type_in_file<std::int32_t>() {
  return H5T_STD_I32LE;
}
template <>
inline hid_t type_in_file<Transfer>() {
  return H5T_STD_I32LE;  // what it is declared as
}
template <>
inline hid_t type_in_file<std::int64_t>() {
  return H5T_STD_I64LE;
}
template <>
inline hid_t type_in_file<std::uint64_t>() {
  return H5T_STD_U64LE;
}
template <>
inline hid_t type_in_file<std::uint8_t>() {
  return H5T_STD_U8LE;
}

/// A file for reading; one that lies in memory; one to add to.
Object open_to_read(const std::string& path);
Object open_in_memory(std::span<const std::byte> file);
Object open_to_add(const std::string& path);

/// A new file in memory.
class NewFile {
 public:
  explicit NewFile(std::size_t bytes_expected);
  hid_t id() const { return file_; }
  /// Closes the file. The bytes last as long as this.
  std::span<const std::byte> complete();

 private:
  /// Takes the memory over that HDF5 gives back when it has closed the file.
  struct Memory {
    Memory() = default;
    ~Memory();
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    std::byte* bytes = nullptr;
    std::size_t size = 0;
  };
  static void* resize(void* bytes, std::size_t size, H5FD_file_image_op_t op, void* memory);
  static herr_t give_back(void* bytes, H5FD_file_image_op_t op, void* memory);

  std::unique_ptr<Memory> memory_;
  Object file_;
};

Object make_group(hid_t parent, const std::string& name);
Object open_group(hid_t parent, const std::string& name);
bool has_link(hid_t parent, const std::string& name);
bool has_attribute(hid_t object, const char* name);
/// Names in a group, sorted.
std::vector<std::string> names_in(hid_t group);

/// One number, or several in a row.
void write_attribute(hid_t object, const char* name, hid_t type, const void* values,
                     std::size_t count);
void read_attribute(hid_t object, const char* name, hid_t type, void* values, std::size_t count);
void write_texts(hid_t object, const char* name, std::span<const std::string> texts);
void write_text(hid_t object, const char* name, const std::string& text);

template <typename T>
void write_number(hid_t object, const char* name, T value) {
  write_attribute(object, name, type_in_file<T>(), &value, 1);
}
template <typename T>
T read_number(hid_t object, const char* name) {
  T value{};
  read_attribute(object, name, type_in_file<T>(), &value, 1);
  return value;
}

}  // namespace velmar_2d::hdf5
