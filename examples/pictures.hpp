// Where the pictures of an example go. What fails ends the example with one line and status 2.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

/// Ends the process where there is a fault to tell.
inline void require(const std::string& fault) {
  if (fault.empty()) return;
  std::fprintf(stderr, "%s\n", fault.c_str());
  std::exit(2);
}

/// The folder that the command line names, by default pictures/; made where it is not there yet.
inline std::filesystem::path picture_folder(int argc, char** argv) {
  const std::filesystem::path folder = argc > 1 ? argv[1] : "pictures";
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) require(folder.string() + ": " + error.message());
  return folder;
}
