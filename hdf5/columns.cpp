#include "hdf5/columns.hpp"

#include <libdeflate.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <new>
#include <system_error>
#include <thread>

namespace velmar_2d::hdf5 {

namespace {

/// The lowest level: the next ones take up to twice the time for a few hundredths less.
constexpr int compression_level = 1;
/// No stream of deflate unpacks to more than this many bytes for one of its own.
constexpr std::size_t largest_ratio = 1032;
constexpr std::size_t bytes_wanted_of_chunk = std::size_t{1} << 19;
constexpr std::size_t most_bytes_of_chunk = std::size_t{1} << 31;

/// The n-th bytes of all elements together: those of high order repeat.
void shuffle(const std::byte* from, std::byte* to, std::size_t count, std::size_t width) {
  for (std::size_t b = 0; b < width; ++b) {
    for (std::size_t i = 0; i < count; ++i) to[b * count + i] = from[i * width + b];
  }
}

/// The first `wanted` of `count` elements.
void unshuffle(const std::byte* from, std::byte* to, std::size_t count, std::size_t wanted,
               std::size_t width) {
  for (std::size_t b = 0; b < width; ++b) {
    for (std::size_t i = 0; i < wanted; ++i) to[i * width + b] = from[b * count + i];
  }
}

/// All threads but this one that do some work; fewer where the system gives no more.
template <typename Work>
std::vector<std::jthread> helpers(std::size_t threads, const Work& work) {
  std::vector<std::jthread> others;
  try {
    for (std::size_t i = 1; i < threads; ++i) others.emplace_back(work);
  } catch (const std::exception&) {
    // This thread does it all, then.
  }
  return others;
}

/// Does the jobs 0 to n - 1, on so many bytes in all, by up to four threads, each with a worker of
/// its own. The first exception ends all and is thrown here.
template <typename Worker>
void share(std::size_t n, std::size_t bytes, const std::function<void(Worker&, std::size_t)>& job) {
  constexpr std::size_t most_threads = 4, bytes_worth_a_thread = std::size_t{1} << 19;
  std::atomic<std::size_t> next{0};
  std::exception_ptr failure;
  std::mutex failing;
  const auto work = [&]() noexcept {
    try {
      Worker worker;
      for (std::size_t i = next++; i < n; i = next++) job(worker, i);
    } catch (...) {
      const std::scoped_lock lock(failing);
      if (!failure) failure = std::current_exception();
      next = n;
    }
  };
  {
    const std::size_t threads = std::min({most_threads, bytes / bytes_worth_a_thread,
                                          std::size_t{std::thread::hardware_concurrency()}});
    const std::vector<std::jthread> others = helpers(threads, work);
    work();
  }
  if (failure) std::rethrow_exception(failure);
}

/// Scratch memory that grows; nothing is set in it.
class Scratch {
 public:
  std::byte* room(std::size_t size) {
    if (size > size_) {
      memory_ = std::make_unique_for_overwrite<std::byte[]>(size);
      size_ = size;
    }
    return memory_.get();
  }

 private:
  std::unique_ptr<std::byte[]> memory_;
  std::size_t size_ = 0;
};

struct Compressor {
  Compressor() : libdeflate(libdeflate_alloc_compressor(compression_level)) {
    if (libdeflate == nullptr) throw std::bad_alloc();
  }
  ~Compressor() { libdeflate_free_compressor(libdeflate); }
  Compressor(const Compressor&) = delete;
  Compressor& operator=(const Compressor&) = delete;

  libdeflate_compressor* libdeflate;
  Scratch whole, shuffled, compressed;
};

struct Decompressor {
  Decompressor() : libdeflate(libdeflate_alloc_decompressor()) {
    if (libdeflate == nullptr) throw std::bad_alloc();
  }
  ~Decompressor() { libdeflate_free_decompressor(libdeflate); }
  Decompressor(const Decompressor&) = delete;
  Decompressor& operator=(const Decompressor&) = delete;

  libdeflate_decompressor* libdeflate;
  Scratch shuffled;
};

Bytes compressed(Compressor& work, const ArrayToWrite& array, std::size_t chunk) {
  const Shape& shape = array.shape;
  const std::size_t size = shape.bytes_of_chunk();
  const std::size_t filled =
      shape.rows_in(chunk) * shape.columns_of_chunk() * shape.bytes_of_element;
  const std::byte* from = static_cast<const std::byte*>(array.values) + shape.offset(chunk);
  if (filled < size) {  // HDF5 knows full chunks only
    std::byte* whole = work.whole.room(size);
    std::copy_n(from, filled, whole);
    std::fill(whole + filled, whole + size, std::byte{0});
    from = whole;
  }
  std::byte* shuffled = work.shuffled.room(size);
  shuffle(from, shuffled, size / shape.bytes_of_element, shape.bytes_of_element);
  const std::size_t room = libdeflate_zlib_compress_bound(work.libdeflate, size);
  std::byte* to = work.compressed.room(room);
  Bytes bytes;
  bytes.size = libdeflate_zlib_compress(work.libdeflate, shuffled, size, to, room);
  bytes.data = std::make_unique_for_overwrite<std::byte[]>(bytes.size);
  std::copy_n(to, bytes.size, bytes.data.get());
  return bytes;
}

void decompressed(Decompressor& work, const ArrayToRead& array, std::size_t chunk) {
  const Shape& shape = array.shape;
  const Bytes& from = array.chunks[chunk];
  const std::size_t size = shape.bytes_of_chunk();
  std::byte* shuffled = work.shuffled.room(size);
  if (libdeflate_zlib_decompress(work.libdeflate, from.data.get(), from.size, shuffled, size,
                                 nullptr) != LIBDEFLATE_SUCCESS) {
    throw Error("a compressed part is damaged");
  }
  unshuffle(shuffled, static_cast<std::byte*>(array.values) + shape.offset(chunk),
            size / shape.bytes_of_element, shape.rows_in(chunk) * shape.columns_of_chunk(),
            shape.bytes_of_element);
}

template <typename Array>
std::size_t bytes_in(std::span<Array> arrays) {
  std::size_t bytes = 0;
  for (const Array& array : arrays) bytes += array.shape.bytes();
  return bytes;
}

/// Every chunk of every array, as array and number of the chunk.
template <typename Array>
std::vector<std::pair<Array*, std::size_t>> all_chunks(std::span<Array> arrays) {
  std::vector<std::pair<Array*, std::size_t>> all;
  for (Array& array : arrays) {
    array.chunks.resize(array.shape.nb_chunks());
    for (std::size_t chunk = 0; chunk < array.chunks.size(); ++chunk) {
      all.emplace_back(&array, chunk);
    }
  }
  return all;
}

std::array<hsize_t, 2> place_of(const Shape& shape, std::size_t chunk) {
  return {shape.first_row(chunk), shape.column(chunk)};
}

}  // namespace

Shape shape_to_write(std::size_t bytes_of_element, std::size_t rows, std::size_t columns,
                     bool by_rows, bool is_matrix) {
  Shape shape{bytes_of_element, rows, columns, by_rows, is_matrix};
  const std::size_t bytes_of_row = shape.columns_of_chunk() * bytes_of_element;
  if (bytes_of_row > most_bytes_of_chunk) throw Error("an array has too many columns");
  const std::size_t wanted = bytes_wanted_of_chunk / std::max<std::size_t>(bytes_of_row, 1);
  shape.rows_of_chunk = std::max<std::size_t>(1, std::min(rows, wanted));
  return shape;
}

void compress(std::span<ArrayToWrite> arrays) {
  const auto jobs = all_chunks(arrays);
  share<Compressor>(jobs.size(), bytes_in(arrays), [&](Compressor& work, std::size_t job) {
    const auto [array, chunk] = jobs[job];
    array->chunks[chunk] = compressed(work, *array, chunk);
  });
}

Object write_array(hid_t group, const ArrayToWrite& array) {
  const std::string fault = "HDF5 cannot write '" + array.name + "'";
  const Shape& shape = array.shape;
  const int rank = shape.is_matrix ? 2 : 1;
  const std::array<hsize_t, 2> size = {shape.rows, shape.columns},
                               chunk_size = {shape.rows_of_chunk, shape.columns_of_chunk()};
  const Object space(H5Screate_simple(rank, size.data(), nullptr), H5Sclose, fault);
  const Object creation(H5Pcreate(H5P_DATASET_CREATE), H5Pclose, fault);
  must(H5Pset_obj_track_times(creation, false), fault);
  if (!shape.empty()) {
    must(H5Pset_chunk(creation, rank, chunk_size.data()), fault);
    must(H5Pset_shuffle(creation), fault);
    must(H5Pset_deflate(creation, compression_level), fault);
    must(H5Pset_fill_time(creation, H5D_FILL_TIME_NEVER), fault);
  }
  Object dataset(H5Dcreate2(group, array.name.c_str(), array.type(), space, H5P_DEFAULT, creation,
                            H5P_DEFAULT),
                 H5Dclose, fault);
  for (std::size_t chunk = 0; chunk < array.chunks.size(); ++chunk) {
    const Bytes& bytes = array.chunks[chunk];
    must(H5Dwrite_chunk(dataset, H5P_DEFAULT, 0, place_of(shape, chunk).data(), bytes.size,
                        bytes.data.get()),
         fault);
  }
  if (!array.units.empty()) write_text(dataset, "units", array.units);
  if (!array.description.empty()) write_text(dataset, "description", array.description);
  return dataset;
}

Shape shape_in_file(hid_t group, const std::string& name, hid_t type, bool by_rows,
                    std::size_t bytes_of_file) {
  const std::string fault = "the array '" + name + "' is missing or damaged";
  if (!has_link(group, name)) throw Error(fault);
  const Object dataset(H5Dopen2(group, name.c_str(), H5P_DEFAULT), H5Dclose, fault);
  const Object found(H5Dget_type(dataset), H5Tclose, fault);
  const Object space(H5Dget_space(dataset), H5Sclose, fault);
  const Object creation(H5Dget_create_plist(dataset), H5Pclose, fault);
  if (H5Tequal(found, type) <= 0) throw Error("the array '" + name + "' is of another type");
  const int rank = H5Sget_simple_extent_ndims(space);
  std::array<hsize_t, 2> size = {0, 1}, chunk_size = {1, 1};
  if ((rank != 1 && rank != 2) || H5Sget_simple_extent_dims(space, size.data(), nullptr) != rank) {
    throw Error(fault);
  }
  Shape shape{H5Tget_size(found), size[0], size[1], by_rows, rank == 2};
  if (shape.empty()) return shape;

  const std::string not_ours = "the array '" + name + "' is not stored as it was written";
  if (H5Pget_layout(creation) != H5D_CHUNKED ||
      H5Pget_chunk(creation, 2, chunk_size.data()) != rank || H5Pget_nfilters(creation) != 2) {
    throw Error(not_ours);
  }
  for (const H5Z_filter_t wanted : {H5Z_FILTER_SHUFFLE, H5Z_FILTER_DEFLATE}) {
    unsigned flags = 0, config = 0;
    std::size_t nb_values = 0;
    const unsigned number = wanted == H5Z_FILTER_SHUFFLE ? 0 : 1;
    if (H5Pget_filter2(creation, number, &flags, &nb_values, nullptr, 0, nullptr, &config) !=
        wanted) {
      throw Error(not_ours);
    }
  }
  // Each factor is bounded before it is multiplied.
  const std::size_t most_bytes =
      largest_ratio * std::min<std::size_t>(H5Dget_storage_size(dataset), bytes_of_file);
  if (shape.rows > most_bytes / shape.bytes_of_element / shape.columns || chunk_size[0] == 0 ||
      chunk_size[0] > shape.rows || (rank == 2 && chunk_size[1] != shape.columns_of_chunk())) {
    throw Error("the array '" + name + "' claims to hold more than the file can");
  }
  shape.rows_of_chunk = chunk_size[0];
  if (shape.bytes_of_chunk() > most_bytes_of_chunk) throw Error(not_ours);
  return shape;
}

void read_chunks(hid_t group, const std::string& name, ArrayToRead& array) {
  const std::string fault = "the array '" + name + "' is damaged";
  const Object dataset(H5Dopen2(group, name.c_str(), H5P_DEFAULT), H5Dclose, fault);
  const Shape& shape = array.shape;
  // As much as a chunk can need, and a little for the frame of the stream.
  const std::size_t most_bytes = shape.bytes_of_chunk() + shape.bytes_of_chunk() / 8 + 1024;
  array.chunks.resize(shape.nb_chunks());
  for (std::size_t chunk = 0; chunk < array.chunks.size(); ++chunk) {
    const std::array<hsize_t, 2> place = place_of(shape, chunk);
    hsize_t size = 0;
    must(H5Dget_chunk_storage_size(dataset, place.data(), &size), fault);
    if (size == 0 || size > most_bytes) throw Error(fault);
    Bytes& bytes = array.chunks[chunk];
    bytes.data = std::make_unique_for_overwrite<std::byte[]>(size);
    bytes.size = size;
    std::uint32_t filters = 0;
    must(H5Dread_chunk(dataset, H5P_DEFAULT, place.data(), &filters, bytes.data.get()), fault);
    if (filters != 0) throw Error(fault);
  }
}

void decompress(std::span<ArrayToRead> arrays) {
  const auto jobs = all_chunks(arrays);
  share<Decompressor>(jobs.size(), bytes_in(arrays), [&](Decompressor& work, std::size_t job) {
    const auto [array, chunk] = jobs[job];
    decompressed(work, *array, chunk);
  });
}

}  // namespace velmar_2d::hdf5
