// velmar_2d::io: pictures of a mesh, and files for ParaView.
//
//     std::string error = velmar_2d::io::draw_mesh(mesh, "mesh.svg");
//     if (!error.empty()) std::cerr << error << '\n';
//
// Everything here reads the mesh and changes nothing in it, be its list joined or split. Nothing
// here prints or ends the process: what goes wrong comes back as one line of text that names the
// file and the reason.
//
// Threads: any number of them may draw and write at the same time, different meshes or the same
// one, as long as none changes the mesh or its data.
//
// What reads a mesh takes it as its first argument; without, it reads the mesh of the free
// procedures (velmar_2D.hpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "velmar_2D/mesh.hpp"

#if !defined(VELMAR_2D_IO_SHARED)
#define VELMAR_2D_IO_API
#elif defined(_WIN32) && defined(velmar_2d_io_EXPORTS)
#define VELMAR_2D_IO_API __declspec(dllexport)
#elif defined(_WIN32)
#define VELMAR_2D_IO_API __declspec(dllimport)
#else
#define VELMAR_2D_IO_API __attribute__((visibility("default")))
#endif

namespace velmar_2d::io {

/// Pixels of a picture, row after row from the top left; each is 0xRRGGBB.
struct VELMAR_2D_WITH_VECTORS Image {
  int width = 0, height = 0;
  std::vector<std::uint32_t> pixels;

  std::uint32_t at(int column, int row) const {
    return pixels[static_cast<std::size_t>(row) * static_cast<std::size_t>(width) +
                  static_cast<std::size_t>(column)];
  }
};

/// An image behind the mesh, stretched over a rectangle in the coordinates of the mesh. What lies
/// outside the domain is not drawn.
struct Background {
  const Image* image = nullptr;  ///< none: white paper
  double west = 0.0, east = 1.0, south = 0.0, north = 1.0;
  double opacity = 1.0;  ///< 0 to 1; less leaves the image paler and the mesh clearer
};

/// What the colour of a control cell tells.
enum class CellColour {
  none,   ///< control cells are not drawn
  type,   ///< their shape: one colour for each type inside, greys on sides and at corners
  level,  ///< the level of their node
  value,  ///< a data value of their node, on a scale
};

/// Colours of levels and values.
enum class Palette {
  calm,     ///< from sand over teal and blue to violet, ever darker
  grey,     ///< from pale to dark
  two_way,  ///< from blue over white to red: for values around a middle
};

/// What a picture shows. The defaults make a picture of the whole mesh that explains itself.
struct PictureOptions {
  double width = 800.0, height = 800.0;  ///< pixels in PNG files, points in SVG and PDF files
  std::string title = {};                ///< none: "Adaptive mesh"; counts are written below it
  bool frame = true;  ///< title, corner coordinates and legend; without: the mesh alone
  bool links = true;  ///< lines between linked nodes, in the colour of the finer level
  bool nodes = true;  ///< dots in the colour of the level
  bool sides = true;  ///< lines along the sides, by kind of condition
  CellColour cells = CellColour::none;  ///< the control cells, below links and nodes
  /// Values at the ends of the colour scale; where they are equal, those that occur in the mesh.
  double lowest_value = 0.0, highest_value = 0.0;
  std::size_t component = 0;  ///< which data value CellColour::value shows; 0: the first
  Palette palette = Palette::calm;
  Background background = {};
};

/// Draws the mesh as it stands to an .svg, .png or .pdf file; the extension chooses.
///
/// The domain is drawn as large as fits, its shape kept, y upwards. Lines and dots are as fine as
/// the links around them are short. No file tells when it was drawn: the same program gives the
/// same bytes (in SVG files a number counts the pictures that the process has drawn before). It is
/// written beside its place and then renamed: it is complete, or what stood there before is
/// untouched. Cost: linear in the number of nodes.
///
/// @return nothing on success; otherwise one line: the path and the reason (no mesh, unknown
///         extension, no such folder, disk full, size not from 64 to 16384 ...)
[[nodiscard]] VELMAR_2D_IO_API std::string draw_mesh(const Mesh& mesh, const std::string& path,
                                                     const PictureOptions& options = {});
[[nodiscard]] inline std::string draw_mesh(const std::string& path,
                                           const PictureOptions& options = {}) {
  return draw_mesh(default_mesh(), path, options);
}

/// Reads a PNG file of any kind; transparent parts become white. Takes 8 bytes a pixel while it
/// reads, and 4 afterwards.
///
/// @param path         of the file
/// @param image        receives the pixels; unchanged where the file cannot be read
/// @param most_pixels  a file that holds more is refused before they are read, since a few
/// kilobytes
///                     may hold gigabytes of one colour
/// @return             nothing on success; otherwise one line: the path and the reason
[[nodiscard]] VELMAR_2D_IO_API std::string read_png(const std::string& path, Image& image,
                                                    std::int64_t most_pixels = 64'000'000);

/// What spacing a picture asks for: wanted spacing in pixels, one value a pixel, rows from the top.
///
/// Where brightness (0 to 255) changes by `contrast` or more between opposite neighbours it is
/// `finest`; fainter edges get less; and away from an edge the spacing grows steadily, so that
/// coarse nodes learn of edges that lie between them. Cost: linear in the number of pixels.
VELMAR_2D_IO_API std::vector<double> spacing_of_pixels(const Image& image, double finest,
                                                       double contrast);

/// The size that a picture of the mesh's domain needs to be `width` wide with no empty paper:
/// its height, at least a quarter and at most four times the width.
VELMAR_2D_IO_API double fitting_height(const Mesh& mesh, double width,
                                       const PictureOptions& options = {});
inline double fitting_height(double width, const PictureOptions& options = {}) {
  return fitting_height(default_mesh(), width, options);
}

// ---------------------------------------------------------------------------------------------
// Files for ParaView
// ---------------------------------------------------------------------------------------------

/// What the cells of a .vtu file are.
enum class VtuCells {
  triangles,      ///< between the nodes; values belong to the points, which are the nodes
  control_cells,  ///< a polygon around each node; values belong to the cells
};

struct VELMAR_2D_WITH_VECTORS VtuOptions {
  VtuCells cells = VtuCells::triangles;
  bool ascii = false;  ///< numbers as text, readable back to the last bit
  std::vector<std::string> data_names =
      {};  ///< names of the first data values, none of them twice; others: "data_1", "data_2" ...
  std::optional<double> time = {};  ///< of the solution, which ParaView shows; none: not told
};

/// Writes the mesh as it stands to a .vtu file (VTK unstructured grid).
///
/// Neighbours share their points, so no cracks show. For every node the file holds `id`, `level`,
/// `ipos`, `on_boundary`, `area` of the control cell, `grad_data`, `grad2_data` as last computed,
/// and every data value; a node that has fewer of them than others counts 0 for the rest. Numbers
/// are appended as they are in memory, unless text is asked for. The same mesh gives the same
/// file, byte for byte. It is written beside its place and then renamed: complete, or whatever
/// stood there before. Cost: linear in the number of nodes.
///
/// @return nothing on success; otherwise one line: the path and the reason
[[nodiscard]] VELMAR_2D_IO_API std::string write_vtu(const Mesh& mesh, const std::string& path,
                                                     const VtuOptions& options = {});
[[nodiscard]] inline std::string write_vtu(const std::string& path,
                                           const VtuOptions& options = {}) {
  return write_vtu(default_mesh(), path, options);
}

/// One moment of a time series.
struct TimeStep {
  double time = 0.0;
  std::string file;  ///< a .vtu file; a relative path starts from where the program runs
};

/// Writes a .pvd file, which ParaView opens as one series; its times go before those in the .vtu
/// files. Write it again whenever a step is added: a run that ends early then leaves a series that
/// can be opened.
///
/// @return nothing on success; otherwise one line: the path and the reason
[[nodiscard]] VELMAR_2D_IO_API std::string write_pvd(const std::string& path,
                                                     const std::vector<TimeStep>& steps);

}  // namespace velmar_2d::io
