#include "hdf5/objects.hpp"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>

// Numbers go to the file as they lie in memory.
static_assert(std::endian::native == std::endian::little);

namespace velmar_2d::hdf5 {

namespace {

/// Files in memory want a name, and HDF5 looks whether there is such a file: never.
constexpr const char* no_file = "/dev/null/no_file";

std::mutex& calls_of_hdf5() {
  static std::mutex mutex;
  return mutex;
}

/// The format whose metadata carry checksums: what is damaged is noticed before it is believed.
Object access_to_files() {
  Object access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose, "HDF5 gives no property list");
  must(H5Pset_libver_bounds(access, H5F_LIBVER_V110, H5F_LIBVER_V110), "HDF5 is too old");
  must(H5Pset_fclose_degree(access, H5F_CLOSE_STRONG), "HDF5 refuses a property");
  return access;
}

Object access_to_memory(std::size_t increment) {
  Object access = access_to_files();
  must(H5Pset_fapl_core(access, increment, false), "HDF5 has no files in memory");
  return access;
}

/// Nothing of the clock goes to the file.
Object timeless(hid_t list_class) {
  Object creation(H5Pcreate(list_class), H5Pclose, "HDF5 gives no property list");
  must(H5Pset_obj_track_times(creation, false), "HDF5 refuses a property");
  return creation;
}

Object space_of(std::size_t count) {
  if (count == 1) return {H5Screate(H5S_SCALAR), H5Sclose, "HDF5 makes no space"};
  const hsize_t size = count;
  return {H5Screate_simple(1, &size, nullptr), H5Sclose, "HDF5 makes no space"};
}

}  // namespace

Session::Session() : lock_(calls_of_hdf5()) {
  H5open();
  H5Eget_auto2(H5E_DEFAULT, &print_, &print_data_);
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
}

Session::~Session() { H5Eset_auto2(H5E_DEFAULT, print_, print_data_); }

Object::Object(hid_t id, Close close_it, std::string_view otherwise) : id_(id), close_(close_it) {
  if (id < 0) throw Error(std::string(otherwise));
}

void Object::close(std::string_view otherwise) {
  if (id_ >= 0) must(close_(std::exchange(id_, -1)), otherwise);
}

void must(herr_t result, std::string_view otherwise) {
  if (result < 0) throw Error(std::string(otherwise));
}

Object open_to_read(const std::string& path) {
  return {H5Fopen(path.c_str(), H5F_ACC_RDONLY, access_to_files()), H5Fclose,
          "this is no HDF5 file, or it is damaged or in use"};
}

NewFile::Memory::~Memory() { std::free(bytes); }

void* NewFile::resize(void* bytes, std::size_t size, H5FD_file_image_op_t /*op*/, void* memory) {
  void* const resized = std::realloc(bytes, size);
  if (resized != nullptr) {
    static_cast<Memory*>(memory)->bytes = static_cast<std::byte*>(resized);
    static_cast<Memory*>(memory)->size = size;
  }
  return resized;
}

herr_t NewFile::give_back(void* /*bytes*/, H5FD_file_image_op_t /*op*/, void* /*memory*/) {
  return 0;  // it is the Memory's
}

NewFile::NewFile(std::size_t bytes_expected) : memory_(std::make_unique<Memory>()) {
  constexpr std::size_t smallest = std::size_t{1} << 16;
  const Object access = access_to_memory(smallest + bytes_expected / 8);
  H5FD_file_image_callbacks_t callbacks{};
  callbacks.image_malloc = [](std::size_t size, H5FD_file_image_op_t op, void* memory) {
    return resize(nullptr, size, op, memory);
  };
  callbacks.image_memcpy = [](void* to, const void* from, std::size_t size, H5FD_file_image_op_t,
                              void*) { return std::memcpy(to, from, size); };
  callbacks.image_realloc = resize;
  callbacks.image_free = give_back;
  callbacks.udata_copy = [](void* memory) { return memory; };
  callbacks.udata_free = [](void*) -> herr_t { return 0; };
  callbacks.udata = memory_.get();
  must(H5Pset_file_image_callbacks(access, &callbacks), "HDF5 has no files in memory");
  const Object creation = timeless(H5P_FILE_CREATE);
  file_ = Object(H5Fcreate(no_file, H5F_ACC_TRUNC, creation, access), H5Fclose,
                 "HDF5 makes no file in memory");
}

std::span<const std::byte> NewFile::complete() {
  // The copy of an open file that HDF5 offers has a head with a wrong checksum.
  constexpr std::size_t place_of_size = 28, bytes_of_head = 48;  // superblocks 2 and 3
  file_.close("HDF5 cannot complete the file");
  std::uint64_t size = 0;
  if (memory_->size >= bytes_of_head) {
    std::memcpy(&size, memory_->bytes + place_of_size, sizeof size);
  }
  if (size < bytes_of_head || size > memory_->size) throw Error("HDF5 cannot complete the file");
  return {memory_->bytes, size};
}

Object open_in_memory(std::span<const std::byte> file) {
  const Object access = access_to_memory(std::size_t{1} << 16);
  must(H5Pset_file_image(access, const_cast<std::byte*>(file.data()), file.size()),
       "HDF5 does not take the bytes");
  return {H5Fopen(no_file, H5F_ACC_RDONLY, access), H5Fclose,
          "this is no HDF5 file, or it is damaged"};
}

Object open_to_add(const std::string& path) {
  return {H5Fopen(path.c_str(), H5F_ACC_RDWR, access_to_files()), H5Fclose,
          "this is no HDF5 file, or it is damaged or in use"};
}

Object make_group(hid_t parent, const std::string& name) {
  constexpr unsigned most_attributes = 64;
  const Object creation = timeless(H5P_GROUP_CREATE);
  must(H5Pset_attr_phase_change(creation, most_attributes, most_attributes / 2),
       "HDF5 refuses a property");
  return {H5Gcreate2(parent, name.c_str(), H5P_DEFAULT, creation, H5P_DEFAULT), H5Gclose,
          "HDF5 cannot make the group '" + name + "'"};
}

Object open_group(hid_t parent, const std::string& name) {
  return {H5Gopen2(parent, name.c_str(), H5P_DEFAULT), H5Gclose,
          "the group '" + name + "' cannot be read"};
}

bool has_link(hid_t parent, const std::string& name) {
  // Only what lies in this very file: no links to others.
  H5L_info_t info;
  return H5Lget_info(parent, name.c_str(), &info, H5P_DEFAULT) >= 0 && info.type == H5L_TYPE_HARD;
}

bool has_attribute(hid_t object, const char* name) { return H5Aexists(object, name) > 0; }

std::vector<std::string> names_in(hid_t group) {
  std::vector<std::string> names;
  const auto note = [](hid_t, const char* name, const H5L_info_t* info, void* to) -> herr_t {
    // No exception may pass through HDF5.
    try {
      if (info->type == H5L_TYPE_HARD) {
        static_cast<std::vector<std::string>*>(to)->emplace_back(name);
      }
      return 0;
    } catch (...) {
      return -1;
    }
  };
  must(H5Literate(group, H5_INDEX_NAME, H5_ITER_INC, nullptr, note, &names),
       "a group cannot be listed");
  std::sort(names.begin(), names.end());
  return names;
}

void write_attribute(hid_t object, const char* name, hid_t type, const void* values,
                     std::size_t count) {
  const Object attribute(H5Acreate2(object, name, type, space_of(count), H5P_DEFAULT, H5P_DEFAULT),
                         H5Aclose, "HDF5 cannot make an attribute");
  must(H5Awrite(attribute, type, values), "HDF5 cannot write an attribute");
}

void read_attribute(hid_t object, const char* name, hid_t type, void* values, std::size_t count) {
  const std::string fault = "the attribute '" + std::string(name) + "' is missing or damaged";
  const Object attribute(H5Aopen(object, name, H5P_DEFAULT), H5Aclose, fault);
  const Object found(H5Aget_type(attribute), H5Tclose, fault);
  const Object space(H5Aget_space(attribute), H5Sclose, fault);
  if (H5Tequal(found, type) <= 0 ||
      H5Sget_simple_extent_npoints(space) != static_cast<hssize_t>(count)) {
    throw Error(fault);
  }
  must(H5Aread(attribute, type, values), fault);
}

void write_texts(hid_t object, const char* name, std::span<const std::string> texts) {
  const Object type(H5Tcopy(H5T_C_S1), H5Tclose, "HDF5 has no texts");
  must(H5Tset_size(type, H5T_VARIABLE), "HDF5 has no texts");
  must(H5Tset_cset(type, H5T_CSET_UTF8), "HDF5 has no texts");
  std::vector<const char*> pointers;
  for (const std::string& text : texts) pointers.push_back(text.c_str());
  const hsize_t size = pointers.size();
  const Object space(H5Screate_simple(1, &size, nullptr), H5Sclose, "HDF5 makes no space");
  const Object attribute(H5Acreate2(object, name, type, space, H5P_DEFAULT, H5P_DEFAULT), H5Aclose,
                         "HDF5 cannot make an attribute");
  must(H5Awrite(attribute, type, pointers.data()), "HDF5 cannot write an attribute");
}

void write_text(hid_t object, const char* name, const std::string& text) {
  const Object type(H5Tcopy(H5T_C_S1), H5Tclose, "HDF5 has no texts");
  must(H5Tset_size(type, H5T_VARIABLE), "HDF5 has no texts");
  must(H5Tset_cset(type, H5T_CSET_UTF8), "HDF5 has no texts");
  const char* const pointer = text.c_str();
  write_attribute(object, name, type, &pointer, 1);
}

}  // namespace velmar_2d::hdf5
