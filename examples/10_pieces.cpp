// How several processes make one mesh: four pieces, here in one process, that hand one another the
// places that they need. velmar_2d::mpi does the same with messages.
//
// Each piece asks the nodes of its own box for their size and makes what that takes, in a window a
// few cells wider. What lies in another's box is demanded there, and brings demands of its own,
// until nothing is new. The picture shows one piece: its nodes, what it demands, and the ghosts
// that it keeps in the end.
//
//     10_pieces             the picture goes to the folder pictures/
//     10_pieces my/folder   the picture goes to my/folder/
//
// It ends with the line
//
//     4 pieces, 1 round of demands: 1695 nodes, which are those of one mesh
//
#include <cairo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "pictures.hpp"
#include "velmar_2D/piece.hpp"

namespace {

using velmar_2d::Cell, velmar_2d::Piece, velmar_2d::Place;

constexpr std::int32_t nb_cells = 12;  // of the first grid, along x and y
constexpr std::int32_t overlap = 3;

double size(double x, double y, std::span<const double> /*data*/, double /*gradient*/,
            double /*second_derivative*/) {
  return 0.01 + 0.35 * std::abs(std::hypot(x - 0.42, y - 0.40) - 0.25);
}

// ---------------------------------------------------------------------------------------------
// The pieces
// ---------------------------------------------------------------------------------------------

std::vector<Piece> make_pieces() {
  const velmar_2d::Grid grid{.nx = nb_cells + 1, .subdiv_max = 12};
  std::vector<Piece> pieces;
  for (const std::int32_t south : {0, nb_cells / 2}) {
    for (const std::int32_t west : {0, nb_cells / 2}) {
      const velmar_2d::Window box{west, west + nb_cells / 2, south, south + nb_cells / 2};
      pieces.emplace_back(velmar_2d::Rectangle{0.0, 1.0, 0.0, 1.0}, grid, box, overlap);
    }
  }
  return pieces;
}

/// Those of the places that a piece owns.
std::vector<Place> owned_of(const Piece& piece, const std::vector<Place>& places) {
  std::vector<Place> owned;
  std::copy_if(places.begin(), places.end(), std::back_inserter(owned),
               [&](const Place& place) { return piece.owns(place); });
  return owned;
}

/// What the first piece demands of the others, round by round.
std::vector<std::vector<Place>> resolve(std::vector<Piece>& pieces) {
  std::vector<std::vector<Place>> demands;
  for (Piece& piece : pieces) piece.begin(size);
  for (bool is_settled = false; !is_settled;) {
    std::vector<Place> wants;
    for (Piece& piece : pieces) {
      piece.ask();
      const std::vector<Place> of_piece = piece.wants();
      wants.insert(wants.end(), of_piece.begin(), of_piece.end());
      if (&piece == &pieces.front()) demands.push_back(of_piece);
    }
    for (Piece& piece : pieces) piece.hold(owned_of(piece, wants));
    is_settled = wants.empty();
  }
  demands.pop_back();
  for (Piece& piece : pieces) piece.release();
  for (Piece& to : pieces) {
    for (Piece& from : pieces) {
      if (&to == &from) continue;
      std::vector<Place> border;
      for (const Cell* c : from.border(to.own())) border.push_back(from.place_of(*c));
      to.hold_ghosts(border);
    }
  }
  return demands;
}

/// Whether all nodes that the pieces own are just those of a mesh in one piece.
bool are_one_mesh(std::vector<Piece>& pieces, std::size_t& nb_nodes) {
  velmar_2d::Mesh mesh({0.0, 1.0, 0.0, 1.0}, {.nx = nb_cells + 1, .subdiv_max = 12});
  mesh.resolve(size);
  std::set<std::array<double, 3>> expected, found;
  for (const Cell& c : mesh.nodes()) expected.insert({c.x, c.y, static_cast<double>(c.level)});
  nb_nodes = 0;
  for (Piece& piece : pieces) {
    for (const Cell& c : piece.mesh().nodes()) {
      if (!piece.owns(c)) continue;
      ++nb_nodes;
      found.insert({c.x, c.y, static_cast<double>(c.level)});
    }
  }
  return found == expected && nb_nodes == found.size();
}

// ---------------------------------------------------------------------------------------------
// The picture
// ---------------------------------------------------------------------------------------------

constexpr double paper = 720.0, margin = 20.0, legend = 36.0;

double column(double x) { return margin + x * paper; }
double row(double y) { return margin + (1.0 - y) * paper; }

void set_colour(cairo_t* pen, int colour, double opacity = 1.0) {
  cairo_set_source_rgba(pen, (colour >> 16) / 255.0, (colour >> 8 & 255) / 255.0,
                        (colour & 255) / 255.0, opacity);
}
constexpr int ink = 0x222222, own_colour = 0x1f5f8b, ghost_colour = 0xe08a1e,
              demand_colour = 0xc0222b, other_colour = 0xb4b4b4;

void draw_box(cairo_t* pen, double west, double east, double south, double north) {
  cairo_rectangle(pen, column(west), row(north), (east - west) * paper, (north - south) * paper);
}

void draw_links(cairo_t* pen, const Cell& c, int colour) {
  set_colour(pen, colour, 0.5);
  cairo_set_line_width(pen, 0.7);
  for (const velmar_2d::Direction d : velmar_2d::directions) {
    const Cell* there = link(c, d).cell();
    if (there == nullptr) continue;
    cairo_move_to(pen, column(c.x), row(c.y));
    cairo_line_to(pen, column(there->x), row(there->y));
  }
  cairo_stroke(pen);
}

void draw_dot(cairo_t* pen, double x, double y, double radius, int colour) {
  set_colour(pen, colour);
  cairo_arc(pen, x, y, radius, 0.0, 2.0 * std::acos(-1.0));
  cairo_fill(pen);
}

void draw_ring(cairo_t* pen, double x, double y) {
  set_colour(pen, demand_colour);
  cairo_set_line_width(pen, 1.2);
  cairo_new_sub_path(pen);
  cairo_arc(pen, x, y, 4.0, 0.0, 2.0 * std::acos(-1.0));
  cairo_stroke(pen);
}

void write(cairo_t* pen, double x, const char* text) {
  set_colour(pen, ink);
  cairo_move_to(pen, x, paper + 2.0 * margin + 18.0);
  cairo_show_text(pen, text);
}

void draw(std::vector<Piece>& pieces, const std::vector<std::vector<Place>>& demands,
          const std::string& path) {
  constexpr double width = paper + 2.0 * margin;
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(width),
                                                        static_cast<int>(width + legend));
  cairo_t* pen = cairo_create(surface);
  set_colour(pen, 0xffffff);
  cairo_paint(pen);
  constexpr double half = 0.5, window = half + static_cast<double>(overlap) / nb_cells;
  set_colour(pen, 0xf3ead9);
  draw_box(pen, 0.0, window, 0.0, window);
  cairo_fill(pen);
  set_colour(pen, 0xdbe8f1);
  draw_box(pen, 0.0, half, 0.0, half);
  cairo_fill(pen);

  for (Piece& piece : pieces) {  // what the others own
    if (&piece == &pieces.front()) continue;
    for (const Cell& c : piece.mesh().nodes()) {
      if (piece.owns(c)) draw_links(pen, c, other_colour);
    }
  }
  Piece& first = pieces.front();
  for (const Cell& c : first.mesh().nodes()) {
    if (first.owns(c)) draw_links(pen, c, own_colour);
  }
  for (const Cell& c : first.mesh().nodes()) {
    draw_dot(pen, column(c.x), row(c.y), first.owns(c) ? 1.6 : 2.2,
             first.owns(c) ? own_colour : ghost_colour);
  }
  for (const std::vector<Place>& places : demands) {
    for (const Place& place : places) {
      constexpr double unit = 1.0 / (static_cast<double>(velmar_2d::places_per_cell) * nb_cells);
      draw_ring(pen, column(static_cast<double>(place.x) * unit),
                row(static_cast<double>(place.y) * unit));
    }
  }
  set_colour(pen, ink);
  cairo_set_line_width(pen, 2.0);
  for (const double x : {0.0, half}) {
    for (const double y : {0.0, half}) draw_box(pen, x, x + half, y, y + half);
  }
  cairo_stroke(pen);

  cairo_select_font_face(pen, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(pen, 14.0);
  constexpr double line = paper + 2.0 * margin + 13.0;
  draw_dot(pen, margin + 6.0, line, 3.0, own_colour);
  write(pen, margin + 16.0, "nodes of one piece, in its box");
  draw_dot(pen, margin + 256.0, line, 3.0, ghost_colour);
  write(pen, margin + 266.0, "ghosts, in its window");
  draw_ring(pen, margin + 446.0, line);
  write(pen, margin + 458.0, "what it demanded of others");
  const cairo_status_t status = cairo_surface_write_to_png(surface, path.c_str());
  cairo_destroy(pen);
  cairo_surface_destroy(surface);
  if (status != CAIRO_STATUS_SUCCESS) require(path + ": " + cairo_status_to_string(status));
}

}  // namespace

int main(int argc, char** argv) try {
  const std::filesystem::path folder = picture_folder(argc, argv);
  std::vector<Piece> pieces = make_pieces();
  const std::vector<std::vector<Place>> demands = resolve(pieces);
  draw(pieces, demands, (folder / "10_pieces.png").string());
  std::size_t nb_nodes = 0;
  const bool is_one = are_one_mesh(pieces, nb_nodes);
  std::printf("4 pieces, %zu round%s of demands: %zu nodes, which are %s of one mesh\n",
              demands.size(), demands.size() == 1 ? "" : "s", nb_nodes,
              is_one ? "those" : "not those");
} catch (const velmar_2d::Error& error) {
  require(error.what());
}
