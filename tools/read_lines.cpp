#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>

#include "tools/lines.hpp"

namespace velmar_2d::tools {
namespace {

constexpr std::string_view separators = " \t\r,;";

std::string_view without_separators(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(separators);
  return begin == std::string_view::npos ? std::string_view{} : text.substr(begin);
}

/// Takes a number off the front of a text.
std::optional<double> take_number(std::string_view& text) {
  text = without_separators(text);
  if (text.starts_with('+')) text.remove_prefix(1);
  double value = 0.0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || !std::isfinite(value)) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  if (!text.empty() && separators.find(text.front()) == std::string_view::npos) return std::nullopt;
  return value;
}

void read_text(std::istream& file, bool scattered, Lines& lines) {
  std::string line;
  for (long number = 1; std::getline(file, line); ++number) {
    std::string_view rest = without_separators(line);
    if (rest.empty()) lines.end_line();
    if (rest.empty() || rest.front() == '#') continue;
    const std::optional<double> x = take_number(rest), y = take_number(rest);
    if (!x || !y) throw Fault{"line " + std::to_string(number) + ": two numbers are wanted"};
    lines.add({*x, *y});
    if (scattered) lines.end_line();
  }
}

}  // namespace

std::string extension_of(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(), [](char letter) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  });
  return extension;
}

std::string read_lines(const std::string& path, bool scattered, Lines& lines) {
  std::error_code no_status;
  if (std::filesystem::is_directory(path, no_status)) return path + ": Is a directory";
  std::ifstream file(path);
  if (!file) return path + ": " + std::strerror(errno);
  Lines found;
  try {
    const std::string extension = extension_of(path);
    const bool is_json = extension == ".json" || extension == ".geojson";
    // No point takes less of a file than "[1,2]," or "1 2" and the end of its line.
    const std::uintmax_t size = std::filesystem::file_size(path, no_status);
    if (!no_status) found.reserve(size / (is_json ? 6 : 4) + 1);
    if (is_json) {
      read_geojson(file, found);
    } else {
      read_text(file, scattered, found);
    }
  } catch (const Fault& fault) {
    return path + ": " + fault.reason;
  }
  if (file.bad()) return path + ": " + std::strerror(errno);
  if (found.size() == 0) return path + ": there are no points in it";
  if (found.size() > DistanceTree::most_points) return path + ": there are too many points in it";
  lines = std::move(found);
  return {};
}

}  // namespace velmar_2d::tools
