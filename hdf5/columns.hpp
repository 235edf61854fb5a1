// Arrays as compressed chunks. The work is done here, by several threads, and HDF5 is only handed
// the chunks; what it is told of them, shuffled and deflated, lets every reader of HDF5 undo it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "hdf5/objects.hpp"

namespace velmar_2d::hdf5 {

/// An array of rows and columns whose chunks are whole columns, one column after the other in
/// memory; or, `by_rows`, whole rows.
struct Shape {
  std::size_t bytes_of_element = 8;
  std::size_t rows = 0, columns = 1;
  bool by_rows = false;
  bool is_matrix = false;  ///< has two dimensions, be the second one 1
  std::size_t rows_of_chunk = 1;

  bool empty() const { return rows == 0 || columns == 0; }
  std::size_t columns_of_chunk() const { return by_rows ? columns : 1; }
  std::size_t chunks_along_rows() const { return (rows + rows_of_chunk - 1) / rows_of_chunk; }
  std::size_t nb_chunks() const {
    return empty() ? 0 : chunks_along_rows() * (by_rows ? 1 : columns);
  }
  std::size_t bytes_of_chunk() const {
    return rows_of_chunk * columns_of_chunk() * bytes_of_element;
  }
  std::size_t bytes() const { return rows * columns * bytes_of_element; }
  /// First row of a chunk, and its number of rows: the last one need not be full.
  std::size_t first_row(std::size_t chunk) const {
    return chunk % chunks_along_rows() * rows_of_chunk;
  }
  std::size_t rows_in(std::size_t chunk) const {
    return std::min(rows_of_chunk, rows - first_row(chunk));
  }
  std::size_t column(std::size_t chunk) const { return by_rows ? 0 : chunk / chunks_along_rows(); }
  /// Where the rows of a chunk lie in memory.
  std::size_t offset(std::size_t chunk) const {
    return (column(chunk) * rows + first_row(chunk)) * columns_of_chunk() * bytes_of_element;
  }
};

/// The shape for an array that is written.
Shape shape_to_write(std::size_t bytes_of_element, std::size_t rows, std::size_t columns,
                     bool by_rows, bool is_matrix);

struct Bytes {
  std::unique_ptr<std::byte[]> data;
  std::size_t size = 0;
};

/// An array on its way to a file: what it is made from must last until it is compressed.
struct ArrayToWrite {
  std::string name;
  hid_t (*type)() = nullptr;
  Shape shape;
  const void* values = nullptr;
  std::string units, description;
  std::vector<Bytes> chunks = {};  ///< compressed
};
void compress(std::span<ArrayToWrite> arrays);
/// Needs: compressed. @return the dataset
Object write_array(hid_t group, const ArrayToWrite& array);

/// An array on its way from a file.
struct ArrayToRead {
  Shape shape;
  void* values = nullptr;  ///< memory of shape.bytes()
  std::vector<Bytes> chunks = {};
};
/// The shape of a dataset in a file. Throws Error where it is not of this type or not stored as
/// write_array() does; where it claims to hold more than the bytes in the file can.
Shape shape_in_file(hid_t group, const std::string& name, hid_t type, bool by_rows,
                    std::size_t bytes_of_file);
/// Reads the chunks as they are.
void read_chunks(hid_t group, const std::string& name, ArrayToRead& array);
/// Throws Error where a chunk is damaged.
void decompress(std::span<ArrayToRead> arrays);

}  // namespace velmar_2d::hdf5
