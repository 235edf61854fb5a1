// A mesh in pieces that hand one another places and data, held against one mesh.
#include <cmath>
#include <map>
#include <set>

#include "scenarios/scenarios.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/piece.hpp"

namespace velmar_2d::tests {
namespace {

/// All that a node is, told without a reference to where it is kept.
std::vector<double> record_of(const Cell& c) {
  std::vector<double> record = {c.x, c.y, c.area};
  for (const int number : {c.ipos, c.level, c.reserve, c.on_boundary}) record.push_back(number);
  const std::array<int, 8> levels = {c.nl, c.nel, c.el, c.sel, c.sl, c.swl, c.wl, c.nwl};
  for (const Direction d : directions) {
    const NeighbourLink there = link(c, d);
    if (const Cell* linked = there.cell()) record.insert(record.end(), {linked->x, linked->y});
    if (const Boundary* side = there.boundary()) record.push_back(side->bc_type);
    record.push_back(there.empty() ? 0 : levels[static_cast<std::size_t>(d)]);
  }
  record.insert(record.end(), c.data.begin(), c.data.end());
  record.insert(record.end(), {c.grad_data, c.grad2_data});
  return record;
}

/// Several pieces in one process, which exchange what they have to.
class Pieces {
 public:
  Pieces(const Rectangle& whole, const Grid& grid, int columns, int rows, int overlap) {
    const std::int32_t nx = grid.nx - 1, ny = rows_of(whole, grid) - 1;
    for (int j = 0; j < rows; ++j) {
      for (int i = 0; i < columns; ++i) {
        const Window own{nx * i / columns, nx * (i + 1) / columns, ny * j / rows,
                         ny * (j + 1) / rows};
        pieces_.emplace_back(whole, grid, own, overlap);
      }
    }
  }

  void resolve(const size_function& size, const Resolution& resolution) {
    nb_rounds = 0;
    for (Piece& piece : pieces_) {
      for (Cell& c : piece.mesh().nodes()) {
        if (piece.owns(c)) piece.mesh().compute_derivatives(c);
      }
      piece.begin(size, resolution);
    }
    while (std::any_of(pieces_.begin(), pieces_.end(),
                       [](const Piece& piece) { return piece.has_nodes_to_ask(); })) {
      for (Piece& piece : pieces_) piece.ask();
      exchange_wants();
      share_ghosts();
    }
    release();
    share_ghosts();
    exchange([](const Cell&) { return true; });
  }

  void exchange_wants() {
    for (bool is_settled = false; !is_settled;) {
      is_settled = true;
      std::vector<std::vector<Place>> wants;
      for (Piece& piece : pieces_) wants.push_back(piece.wants());
      for (std::size_t from = 0; from < pieces_.size(); ++from) {
        is_settled = is_settled && wants[from].empty();
        for (Piece& piece : pieces_) {
          piece.hold(owned_of(piece, wants[from]));
        }
      }
      nb_rounds += is_settled ? 0 : 1;
    }
  }

  void release() {
    exchange_needs();
    do {
      for (Piece& piece : pieces_) piece.release();
    } while (exchange_needs());
  }
  bool exchange_needs() {
    std::vector<Place> needs;
    for (Piece& piece : pieces_) {
      const std::vector<Place> of_piece = piece.needs();
      needs.insert(needs.end(), of_piece.begin(), of_piece.end());
    }
    bool has_lost = false;
    for (Piece& piece : pieces_) has_lost = piece.hold_only(owned_of(piece, needs)) || has_lost;
    return has_lost;
  }

  void share_ghosts() {
    for (Piece& from : pieces_) {
      for (Piece& to : pieces_) {
        if (&from == &to) continue;
        std::vector<Place> places;
        for (const Cell* c : from.border(to.own())) places.push_back(from.place_of(*c));
        to.hold_ghosts(places);
      }
    }
    hand_on_data();
  }

  /// Values of ghosts from their owners.
  void exchange(const std::function<bool(const Cell& owned)>& is_wanted) {
    for (Piece& to : pieces_) {
      for (Cell& c : to.mesh().nodes()) {
        if (to.owns(c)) continue;
        const Cell* owned = owned_node(to.place_of(c));
        ASSERT_NE(owned, nullptr) << c.x << " " << c.y;
        if (is_wanted(*owned)) c.data = owned->data;
      }
    }
  }

  std::map<std::pair<double, double>, std::vector<double>> owned_nodes() {
    std::map<std::pair<double, double>, std::vector<double>> all;
    for (Piece& piece : pieces_) {
      for (Cell& c : piece.mesh().nodes()) {
        if (!piece.owns(c)) continue;
        piece.mesh().area(c);
        piece.mesh().compute_derivatives(c);
        const bool is_new = all.emplace(std::pair(c.x, c.y), record_of(c)).second;
        EXPECT_TRUE(is_new) << c.x << " " << c.y;
      }
    }
    return all;
  }
  std::vector<Piece>& all() { return pieces_; }
  int nb_rounds = 0;

 private:
  static std::vector<Place> owned_of(const Piece& piece, const std::vector<Place>& places) {
    std::vector<Place> own;
    for (const Place& p : places) {
      if (piece.owns(p)) own.push_back(p);
    }
    return own;
  }
  const Cell* owned_node(Place p) {
    for (Piece& piece : pieces_) {
      if (piece.owns(p)) return piece.node_at(p);
    }
    return nullptr;
  }
  void hand_on_data() {
    std::set<const Cell*> come;
    for (Piece& piece : pieces_) come.insert(piece.newcomers().begin(), piece.newcomers().end());
    exchange([&](const Cell& owned) { return come.count(&owned) == 0; });
    for (Piece& piece : pieces_) {
      piece.hand_on_data([&](const Cell& c) {
        return !piece.owns(c) && come.count(owned_node(piece.place_of(c))) == 0;
      });
    }
  }

  std::vector<Piece> pieces_;
};

void expect_same(Pieces& pieces, Mesh& mesh, const std::string& when) {
  std::map<std::pair<double, double>, std::vector<double>> owned = pieces.owned_nodes();
  std::size_t nb_wrong = 0;
  for (Cell& c : mesh.nodes()) {
    mesh.area(c);
    mesh.compute_derivatives(c);
    const auto found = owned.find({c.x, c.y});
    const bool is_there = found != owned.end();
    if (!is_there || found->second != record_of(c)) {
      if (++nb_wrong == 1) {
        ADD_FAILURE() << when << "\n"
                      << ::testing::PrintToString(record_of(c)) << "\n"
                      << (is_there ? ::testing::PrintToString(found->second) : "none");
      }
    }
  }
  EXPECT_EQ(nb_wrong, 0U) << when;
  EXPECT_EQ(owned.size(), static_cast<std::size_t>(mesh.size())) << when;
  for (const Piece& piece : pieces.all()) EXPECT_FALSE(piece.reaches_cut()) << when;
}

void set_data(Mesh& mesh, double t) {
  for (Cell& c : mesh.nodes()) {
    for (std::size_t i = 0; i < c.data.size(); ++i) {
      c.data[i] = std::tanh(20.0 * (c.x - 0.3 * c.y - 0.2 * t)) +
                  std::sin(5.0 * c.y - static_cast<double>(i));
    }
  }
}

TEST(Pieces, TogetherAreOneMesh) {
  for (std::uint64_t seed = 1; seed <= 4; ++seed) {
    scenarios::Random random{seed};
    const Rectangle whole{0.1, 1.3, -0.7, 0.2};
    const Grid grid{.nx = 13, .subdiv_max = 11, .n_cell_data = 2};
    Mesh mesh(whole, grid);
    mesh.set_transfer(Transfer::all);
    Pieces pieces(whole, grid, random.between(1, 3), random.between(1, 2), 3);
    for (Piece& piece : pieces.all()) piece.mesh().set_transfer(Transfer::all);
    for (int step = 0; step < 4; ++step) {
      const double x = 0.1 + 1.2 * random.uniform(), y = -0.7 + 0.9 * random.uniform();
      const double slope = 0.06 * std::pow(30.0, random.uniform());
      const int kind = random.between(0, 3);
      const size_function by_number[] = {
          scenarios::random_spacing(random.next(), 0.02, 0.01, 0.2),
          [](double, double, auto, double grad, double grad2) {
            return std::max(0.01, 0.1 / (0.1 + grad) + 0.2 / (1.0 + grad2));
          },
          [=](double px, double py, auto...) {
            return 0.01 + slope * std::abs(std::hypot(px - x, py - y) - 0.2);
          }};
      const size_function& size = by_number[std::min(kind, 2)];
      const Resolution resolution{.margin = random.between(0, 1) == 0 ? 0.0 : 1.5};
      mesh.resolve(size, resolution);
      pieces.resolve(size, resolution);
      expect_same(pieces, mesh,
                  "seed " + std::to_string(seed) + " step " + std::to_string(step) + " kind " +
                      std::to_string(kind));
      if (::testing::Test::HasFailure()) return;
      if (step % 2 == 0) {
        set_data(mesh, step);
        for (Piece& piece : pieces.all()) set_data(piece.mesh(), step);
      }
    }
  }
}

}  // namespace
}  // namespace velmar_2d::tests
