// What the program reads and writes: the corpus of the fuzzers is replayed, the memory that it
// takes is counted, and refused. In a program of its own because it replaces the global allocation
// functions.
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <new>
#include <pugixml.hpp>
#include <vector>

#include "fuzz/files.hpp"
#include "tools/size_field.hpp"

namespace {

std::size_t bytes_in_use = 0, most_bytes_in_use = 0;
constexpr long no_end = -1;
long still_granted = no_end;  // number of allocations before all of them fail

// Not inlined: the compiler would take free() for a mismatch with the operator new around it.
[[gnu::noinline]] void* allocate(std::size_t size) {
  if (still_granted == 0) return nullptr;
  if (still_granted > 0) --still_granted;
  void* memory = std::malloc(size);
  bytes_in_use += malloc_usable_size(memory);
  most_bytes_in_use = std::max(most_bytes_in_use, bytes_in_use);
  return memory;
}
[[gnu::noinline]] void give_back(void* memory) {
  bytes_in_use -= malloc_usable_size(memory);
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* memory = allocate(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* memory) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t) noexcept { give_back(memory); }
void operator delete[](void* memory) noexcept { give_back(memory); }
void operator delete[](void* memory, std::size_t) noexcept { give_back(memory); }

namespace velmar_2d::tests {
namespace {

namespace fs = std::filesystem;

std::string content_of(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class FilesOfTheProgram : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(folder); }
  void TearDown() override { fs::remove_all(folder); }
  std::string write(const std::string& name, const std::string& content) const {
    const std::string path = (folder / name).string();
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  fs::path folder = fs::path(testing::TempDir()) / ("program_files_" + std::to_string(getpid()));
};

TEST_F(FilesOfTheProgram, ReplayTheCorpusOfEachReader) {
  for (const std::string_view reader : readers) {
    int replayed = 0;
    for (const auto& entry : fs::directory_iterator(fs::path(VELMAR_2D_FUZZ_READERS) / reader)) {
      const std::string bytes = content_of(entry.path());
      EXPECT_EQ(
          run_reader(reader, {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}),
          "")
          << entry.path();
      ++replayed;
    }
    EXPECT_GT(replayed, 10) << reader;
  }
}

TEST_F(FilesOfTheProgram, TakeAtMostEightTimesTheirSize) {
  constexpr std::size_t size = 400'000;
  const auto many = [&](const std::string& begin, const std::string& part, const std::string& end) {
    std::string text = begin;
    while (text.size() < size) text += part;
    return text + end;
  };
  const std::string paths[] = {
      write("lines.txt", many("", "1 2\n3 4\n5 6\n7 8\n", "")),
      write("long_line.txt", many("1 2 ", "3", "")),
      write("line.json",
            many("{\"type\":\"LineString\",\"coordinates\":[", "[1,2],[3,4],", "[5,6]]}")),
      write("points.json", many("{\"type\":\"GeometryCollection\",\"geometries\":[",
                                "{\"type\":\"Point\",\"coordinates\":[1,2]},", "null]}")),
      write("foreign.json", many("{\"a\":[", "{\"b\":[]},", "0],\"type\":\"Point\"}")),
      write("number.json", many("{\"type\":\"Point\",\"coordinates\":[1,0.", "1", "]}")),
      write("name.json", many("{\"", "a", "\":1}")),
      write("open.json", many("", "[", "")),
  };
  for (const std::string& path : paths) {
    for (const bool scattered : {false, true}) {
      tools::FieldOptions options;
      options.text = path;
      options.scattered = scattered;
      const std::size_t before = most_bytes_in_use = bytes_in_use;
      tools::SizeField field;
      EXPECT_TRUE(tools::read_field(options, field).empty() == static_cast<bool>(field.make));
      EXPECT_LE(most_bytes_in_use - before, 8 * size + 20'000) << path << scattered;
    }
  }
}

/// Lets all allocations fail from the first one on, from the second one on ... until none is
/// missed.
void exhaust(const std::string& path, const std::function<std::string()>& work,
             const std::function<void()>& look) {
  const std::string told = path + ": memory is exhausted";
  std::string fault = told;
  long granted = 0;
  for (; fault == told; granted += 1 + granted / 32) {
    still_granted = granted;
    try {
      fault = work();
    } catch (const std::bad_alloc&) {  // for the program itself to tell
      fault = told;
    }
    still_granted = no_end;
    look();
  }
  EXPECT_EQ(fault, "");
  EXPECT_GT(granted, 3);
}

TEST_F(FilesOfTheProgram, TellThatMemoryIsExhausted) {
  Mesh mesh({}, {.nx = 5, .n_cell_data = 1});
  pugi::set_memory_management_functions(&allocate, &give_back);
  const std::string png = (folder / "mesh.png").string();
  const std::function<std::string(const std::string&)> writers[] = {
      [&](const std::string& path) { return io::write_vtu(mesh, path, {.ascii = true}); },
      [&](const std::string& path) {
        return io::write_vtu(mesh, path, {.cells = io::VtuCells::control_cells});
      },
      [&](const std::string& path) {
        return io::write_pvd(path, {{1.0, "a.vtu"}, {2.0, "b.vtu"}});
      },
      [&](const std::string&) { return io::draw_mesh(mesh, png, {.width = 64.0, .height = 64.0}); },
  };
  for (const auto& writer : writers) {
    const std::string path = &writer == std::end(writers) - 1 ? png : (folder / "out").string();
    ASSERT_EQ(writer(path), "");
    const std::string whole = content_of(path);
    fs::remove(path);
    exhaust(
        path, [&] { return writer(path); },
        [&] { EXPECT_TRUE(!fs::exists(path) || content_of(path) == whole) << "half a file"; });
  }
  pugi::set_memory_management_functions(&std::malloc, &std::free);

  for (const std::string& path : {png, write("a.txt", "1 2\n3 4\n"),
                                  write("a.json", R"({"type":"Point","coordinates":[1,2]})")}) {
    tools::FieldOptions options;
    options.text = path;
    exhaust(
        path,
        [&] {
          tools::SizeField field;
          return tools::read_field(options, field);
        },
        [] {});
  }
}

}  // namespace
}  // namespace velmar_2d::tests
