// Pictures: what is drawn lies where it belongs, and a file is complete or absent.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "scenarios/scenarios.hpp"
#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d {
namespace {

namespace fs = std::filesystem;

std::string read(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// A mesh with a Neumann side in the north and another condition in the east.
class Pictures : public testing::Test {
 protected:
  void SetUp() override {
    folder = fs::path(testing::TempDir()) / ("pictures_" + std::to_string(getpid()));
    fs::create_directories(folder);
    scenarios::set_domain(0.0, 1.0, 0.0, 1.0);
    double y_max = 1.0;
    init_mesh(
        [](double, double, std::string_view side) {
          return side == "North" ? bc_type_neu : side == "East" ? bc_type_oth : bc_type_dir;
        },
        5, 5, 5, y_max);
    update_mesh_no_init(scenarios::ring_spacing({0.0, 0.0, 0.1}, 0.5, 0.1, 1.0));
    bare.width = bare.height = 116.0;  // the domain is 100 wide, its margins 8
    bare.frame = bare.links = bare.nodes = bare.sides = false;
  }
  void TearDown() override {
    if (nb_nodes > 0) delete_mesh();
    fs::remove_all(folder);
  }
  io::Image drawn(const io::PictureOptions& options) {
    io::Image image;
    EXPECT_EQ(io::draw_mesh((folder / "drawn.png").string(), options), "");
    EXPECT_EQ(io::read_png((folder / "drawn.png").string(), image), "");
    return image;
  }
  std::size_t nb_files() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), {}));
  }

  fs::path folder;
  io::PictureOptions bare;
};

TEST_F(Pictures, SameMeshSameFile) {
  const auto draw = [&](const char* name) {
    EXPECT_EQ(io::draw_mesh((folder / name).string()), "");
    return read(folder / name);
  };
  const std::string svg = draw("a.svg"), png = draw("a.PNG"), pdf = draw("a.pdf");
  EXPECT_EQ(svg.rfind("<?xml", 0), 0u);
  EXPECT_EQ(png.rfind("\x89PNG", 0), 0u);
  EXPECT_EQ(pdf.rfind("%PDF", 0), 0u);
  sleep(1);  // a date in a file would differ
  EXPECT_TRUE(draw("a.PNG") == png);
  EXPECT_TRUE(draw("a.pdf") == pdf);
}

/// A picture with every layer and both kinds of .vtu file, one after the other.
std::string files_of(const Mesh& mesh, const fs::path& folder, const std::string& name) {
  io::PictureOptions all;
  all.cells = io::CellColour::type;
  all.width = all.height = 400.0;
  std::string bytes;
  const std::string png = (folder / (name + ".png")).string(), vtu = png + ".vtu";
  for (const io::VtuCells cells : {io::VtuCells::triangles, io::VtuCells::control_cells}) {
    EXPECT_EQ(io::write_vtu(mesh, vtu, {.cells = cells}), "");
    bytes += read(vtu);
  }
  EXPECT_EQ(io::draw_mesh(mesh, png, all), "");
  return bytes + read(png);
}

TEST_F(Pictures, SplitListGivesTheSameFiles) {
  const std::string joined = files_of(default_mesh(), folder, "joined");
  const double height = io::fitting_height(500.0);
  split_sublists();
  EXPECT_TRUE(files_of(default_mesh(), folder, "split") == joined);
  EXPECT_EQ(io::fitting_height(500.0), height);
}

TEST_F(Pictures, AnyNumberOfThreadsMayDraw) {
  Mesh other({-2.0, 2.0, 5.0, 6.0}, {.nx = 9, .n_cell_data = 2, .bc_type = same_kind(bc_type_neu)});
  other.update(scenarios::ring_spacing({0.0, 5.0, 0.5}, 0.4, 0.05, 1.0));
  const std::string expected = files_of(default_mesh(), folder, "mesh"),
                    expected_of_other = files_of(other, folder, "other");
  const std::size_t nb_expected_files = nb_files();
  const std::string png = (folder / "same_place.png").string();
  std::atomic<int> nb_right = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, name = std::to_string(i)] {
      for (int round = 0; round < 4; ++round) {
        EXPECT_EQ(io::draw_mesh(png, bare), "");  // of all threads
        for (Cell& c : other.nodes()) {           // may be noted in the nodes meanwhile
          other.compute_derivatives(c);
          other.shape(c);
          other.area(c);
        }
        nb_right += files_of(default_mesh(), folder, name) == expected ? 1 : 0;
        nb_right += files_of(other, folder, name) == expected_of_other ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(nb_right, 32);
  EXPECT_EQ(nb_files(), nb_expected_files + 9);  // two of each thread and the one of all
}

TEST_F(Pictures, BackgroundLiesUpright) {
  //   red   green
  //   blue  black   over the upper right quarter of the domain
  const io::Image image{2, 2, {0xff0000, 0x00ff00, 0x0000ff, 0x000000}};
  bare.background = {&image, 0.5, 1.0, 0.5, 1.0, 1.0};
  const io::Image picture = drawn(bare);
  ASSERT_EQ(picture.width, 116);
  EXPECT_EQ(picture.at(60, 10), 0xff0000u);
  EXPECT_EQ(picture.at(106, 10), 0x00ff00u);
  EXPECT_EQ(picture.at(60, 56), 0x0000ffu);
  EXPECT_EQ(picture.at(106, 56), 0x000000u);
  EXPECT_EQ(picture.at(40, 10), 0xffffffu);
  EXPECT_EQ(picture.at(60, 70), 0xffffffu);
}

TEST_F(Pictures, NodesLieWhereTheyAre) {
  bare.nodes = true;
  const io::Image picture = drawn(bare);
  int covered = 0;
  for (const Cell* node = mesh_beg; node != nullptr; node = node->next) {
    const int column = static_cast<int>(8.0 + 100.0 * node->x);
    const int row = static_cast<int>(8.0 + 100.0 * (1.0 - node->y));
    covered += picture.at(column, row) != 0xffffff ? 1 : 0;
  }
  EXPECT_EQ(covered, nb_nodes);
  // The fine corner is the lower left one: halfway between grid nodes there are dots only there.
  EXPECT_NE(picture.at(8 + 12, 107 - 12), 0xffffffu);
  EXPECT_EQ(picture.at(8 + 12, 8 + 12), 0xffffffu);
}

TEST_F(Pictures, CellsLieAroundTheirNodesInTheColourOfTheirKind) {
  bare.width = bare.height = 1016.0;
  bare.cells = io::CellColour::type;
  const io::Image picture = drawn(bare);
  std::map<std::int32_t, std::uint32_t> colour_of_type;
  std::set<std::uint32_t> colours;
  std::array<Point, max_cell_corners> corners;
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) {
    if (c->on_boundary != 0) continue;
    std::int32_t type = 0, shift = 0, n = 0;
    cell_type(c, type, shift);
    cell_polygon(c, corners, n);
    for (std::int32_t i = 0; i < n; ++i) {  // most of the way to each corner
      const Point& corner = corners[static_cast<std::size_t>(i)];
      const double x = std::lerp(c->x, corner.x, 0.8), y = std::lerp(c->y, corner.y, 0.8);
      const std::uint32_t colour = picture.at(static_cast<int>(8.0 + 1000.0 * x),
                                              static_cast<int>(8.0 + 1000.0 * (1.0 - y)));
      EXPECT_EQ(colour_of_type.try_emplace(type, colour).first->second, colour) << type;
      colours.insert(colour);
    }
  }
  EXPECT_GE(colour_of_type.size(), 5u);
  EXPECT_EQ(colours.size(), colour_of_type.size());
}

TEST_F(Pictures, SidesShowTheirKind) {
  bare.sides = true;
  const io::Image picture = drawn(bare);
  // How many pixels of the middle of each margin are dark, reddish and greenish.
  struct Count {
    int dark = 0, red = 0, green = 0;
  } north, east, south, west;
  const auto look = [&](Count& count, int column, int row) {
    const std::uint32_t pixel = picture.at(column, row);
    const int red = static_cast<int>(pixel >> 16), green = static_cast<int>(pixel >> 8 & 255);
    count.dark += red < 90 && green < 90 ? 1 : 0;
    count.red += red > green + 60 ? 1 : 0;
    count.green += green > red + 30 ? 1 : 0;
  };
  for (int along = 20; along < 96; ++along) {
    look(north, along, 5);
    look(east, 110, along);
    look(south, along, 110);
    look(west, 5, along);
  }
  EXPECT_GT(south.dark, 70);
  EXPECT_GT(west.dark, 70);
  EXPECT_GT(north.red, 35);
  EXPECT_LT(north.red, 70);  // dashed
  EXPECT_GT(east.green, 15);
  EXPECT_LT(east.green, 70);  // dotted
  EXPECT_EQ(south.red + south.green + west.red + west.green + north.green + east.red, 0);
}

TEST_F(Pictures, WordsTellWhereAFarDomainIsAndStandUnderAFlatOne) {
  const auto far_picture = [&](double west) {
    const Mesh far({west, west + 0.5, 0.0, 0.5}, {.nx = 3});
    EXPECT_EQ(io::draw_mesh(far, (folder / "far.png").string()), "");
    return read(folder / "far.png");
  };
  EXPECT_NE(far_picture(1e7), far_picture(1e7 + 0.25));

  const Mesh flat({0.0, 40.0, 0.0, 1.0}, {.nx = 41});
  io::PictureOptions options;
  options.height = io::fitting_height(flat, options.width = 400.0);
  io::Image picture;
  EXPECT_EQ(io::draw_mesh(flat, (folder / "flat.png").string(), options), "");
  EXPECT_EQ(io::read_png((folder / "flat.png").string(), picture), "");
  const auto lowest_rows = picture.pixels.end() - 35 * picture.width;
  EXPECT_TRUE(std::any_of(lowest_rows, picture.pixels.end(),
                          [](std::uint32_t pixel) { return pixel < 0x404040; }));
}

TEST_F(Pictures, ValuesHaveTheirComponentAndPalette) {
  Mesh mesh({}, {.nx = 5, .n_cell_data = 2});
  for (Cell& c : mesh.nodes()) c.data[1] = c.x;
  bare.cells = io::CellColour::value;
  bare.component = 1;
  const auto brightness = [&](io::Palette palette) {
    bare.palette = palette;
    io::Image picture;
    EXPECT_EQ(io::draw_mesh(mesh, (folder / "values.png").string(), bare), "");
    EXPECT_EQ(io::read_png((folder / "values.png").string(), picture), "");
    std::array<std::array<int, 3>, 3> of_places;  // west, middle, east; red, green, blue
    for (int place = 0; place < 3; ++place) {
      const std::uint32_t pixel = picture.at(10 + 48 * place, 66);
      of_places[static_cast<std::size_t>(place)] = {static_cast<int>(pixel >> 16),
                                                    static_cast<int>(pixel >> 8 & 255),
                                                    static_cast<int>(pixel & 255)};
    }
    return of_places;
  };
  const auto [pale, medium, dark] = brightness(io::Palette::grey);
  EXPECT_NEAR(medium[0], medium[2], 1);
  EXPECT_GT(pale[1], medium[1] + 40);
  EXPECT_GT(medium[1], dark[1] + 40);
  const auto [blue, white, red] = brightness(io::Palette::two_way);
  EXPECT_GT(blue[2], blue[0] + 60);
  EXPECT_GT(red[0], red[2] + 60);
  EXPECT_GT(*std::min_element(white.begin(), white.end()), 220);
}

TEST_F(Pictures, FailureLeavesNoTrace) {
  const std::string kept = (folder / "kept.png").string();
  std::ofstream(kept) << "what stood there before";

  bare.width = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(io::draw_mesh(kept, bare), kept + ": a picture is from 64 to 16384 wide and high");
  bare.width = 116.0;
  const io::Image lacking{3, 3, {0, 0}};
  bare.background.image = &lacking;
  EXPECT_EQ(io::draw_mesh(kept, bare), kept + ": the background image lacks pixels");
  EXPECT_EQ(io::draw_mesh("mesh.bmp"), "mesh.bmp: a picture ends in .svg, .png or .pdf");
  const std::string nowhere = (folder / "none" / "mesh.png").string();
  EXPECT_EQ(io::draw_mesh(nowhere), nowhere + ": No such file or directory");
  const std::string occupied = (folder / "folder.svg").string();
  fs::create_directories(occupied);
  EXPECT_EQ(io::draw_mesh(occupied), occupied + ": Is a directory");

  // No room: the process may write files of 1000 bytes only.
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{1000, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  std::string errors;
  for (const char* name : {"kept.png", "full.svg", "full.pdf"}) {
    errors += io::draw_mesh((folder / name).string()) + "\n";
  }
  setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, old_handler);
  const std::string reason = ": File too large\n";
  EXPECT_EQ(errors, kept + reason + (folder / "full.svg").string() + reason +
                        (folder / "full.pdf").string() + reason);

  delete_mesh();
  EXPECT_EQ(io::draw_mesh(kept), kept + ": there is no mesh to draw");
  EXPECT_EQ(read(kept), "what stood there before");
  EXPECT_EQ(nb_files(), 2u);
}

// ParaView keeps one of two fields of one name.
TEST_F(Pictures, NamesOfDataAreRefusedWhereTheyWouldHideOneAnother) {
  for (Cell* c = mesh_beg; c != nullptr; c = c->next) c->data.resize(2);
  const std::string path = (folder / "named.vtu").string();
  const auto outcome = [&](const std::vector<std::string>& names) {
    io::VtuOptions options;
    options.data_names = names;
    return io::write_vtu(path, options);
  };
  EXPECT_EQ(outcome({"a", "b"}), "");
  EXPECT_EQ(outcome({"a"}), "");
  for (const std::vector<std::string>& names : std::vector<std::vector<std::string>>{
           {"a", "a"}, {"level"}, {"data_2"}, {"a", "b", "c"}, {""}}) {
    EXPECT_NE(outcome(names).find("data_names"), std::string::npos) << names[0];
  }
}

// A link keeps leading where it led, a pipe gets the bytes, a file keeps who may read it.
TEST_F(Pictures, GoWhereThePathLeads) {
  const auto draw = [&](const fs::path& path) {
    EXPECT_EQ(io::draw_mesh(path.string(), bare), "");
    EXPECT_EQ(io::write_vtu((folder / "mesh.vtu").string()), "");
  };
  const fs::path plain = folder / "plain.png", real = folder / "real" / "picture.png";
  draw(plain);
  fs::create_directory(real.parent_path());
  for (const bool is_there : {false, true}) {
    const fs::path link = folder / "link.png", further = folder / "further.png";
    fs::remove(link);
    fs::create_symlink("further.png", link);
    fs::remove(further);
    fs::create_symlink(fs::path("real") / "picture.png", further);
    if (is_there) {
      std::ofstream(real) << "old";
      fs::permissions(real, fs::perms::owner_read | fs::perms::owner_write);
    }
    draw(link);
    EXPECT_TRUE(fs::is_symlink(link) && fs::is_symlink(further));
    EXPECT_EQ(read(real), read(plain));
    if (is_there) {
      EXPECT_EQ(fs::status(real).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    }
  }
  const fs::path pipe = folder / "pipe.png";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::string received;
  std::thread reader([&] { received = read(pipe); });
  draw(pipe);
  reader.join();
  EXPECT_EQ(received, read(plain));
  EXPECT_TRUE(fs::is_fifo(pipe));
}

}  // namespace
}  // namespace velmar_2d
