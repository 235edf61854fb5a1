#include "hdf5/trailer.hpp"

#include <libdeflate.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <vector>

#include "velmar_2D/records.hpp"

namespace velmar_2d::hdf5 {

namespace {

/// As it lies in the file.
struct Trailer {
  std::array<char, 8> mark{'v', '2', 'd', ' ', 'e', 'n', 'd', '\n'};
  std::uint64_t size = 0;      ///< of the file before it
  std::uint64_t checksum = 0;  ///< CRC-32
};
static_assert(sizeof(Trailer) == bytes_of_trailer);

std::uint32_t add_to_checksum(std::uint32_t checksum, std::span<const std::byte> bytes) {
  return libdeflate_crc32(checksum, bytes.data(), bytes.size());
}

/// The trailer among the last bytes of a file of some size, if there is one.
std::optional<Trailer> trailer_in(const std::array<std::byte, bytes_of_trailer>& last,
                                  std::size_t size) {
  Trailer found;
  std::memcpy(&found, last.data(), sizeof found);
  if (found.mark != Trailer().mark || found.size != size - bytes_of_trailer) return {};
  return found;
}

void require_same(const Trailer& trailer, std::uint32_t checksum) {
  if (trailer.checksum != checksum) {
    throw Error("the file is damaged: its checksum is not that of its bytes");
  }
}

}  // namespace

std::array<std::byte, bytes_of_trailer> trailer_of(std::span<const std::byte> file) {
  Trailer trailer;
  trailer.size = file.size();
  trailer.checksum = add_to_checksum(0, file);
  std::array<std::byte, bytes_of_trailer> bytes{};
  std::memcpy(bytes.data(), &trailer, sizeof trailer);
  return bytes;
}

void check_trailer(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const auto size = static_cast<std::streamoff>(file.tellg());
  constexpr auto of_trailer = static_cast<std::streamoff>(bytes_of_trailer);
  if (!file || size < of_trailer) return;
  std::array<std::byte, bytes_of_trailer> last{};
  file.seekg(size - of_trailer);
  file.read(reinterpret_cast<char*>(last.data()), of_trailer);
  const std::optional<Trailer> trailer = trailer_in(last, static_cast<std::size_t>(size));
  if (!file || !trailer) return;
  constexpr std::size_t at_a_time = std::size_t{1} << 20;
  std::vector<std::byte> buffer(at_a_time);
  std::uint32_t checksum = 0;
  file.seekg(0);
  for (std::uint64_t left = trailer->size; left > 0;) {
    const std::size_t part = std::min<std::uint64_t>(left, at_a_time);
    if (!file.read(reinterpret_cast<char*>(buffer.data()), static_cast<std::streamsize>(part))) {
      throw Error("the file cannot be read");
    }
    checksum = add_to_checksum(checksum, {buffer.data(), part});
    left -= part;
  }
  require_same(*trailer, checksum);
}

std::span<const std::byte> check_trailer(std::span<const std::byte> file) {
  if (file.size() < bytes_of_trailer) return file;
  std::array<std::byte, bytes_of_trailer> last{};
  std::memcpy(last.data(), file.data() + file.size() - bytes_of_trailer, bytes_of_trailer);
  const std::optional<Trailer> trailer = trailer_in(last, file.size());
  if (!trailer) return file;
  const std::span<const std::byte> without = file.first(file.size() - bytes_of_trailer);
  require_same(*trailer, add_to_checksum(0, without));
  return without;
}

}  // namespace velmar_2d::hdf5
