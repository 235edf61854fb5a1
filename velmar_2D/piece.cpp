// A piece of a mesh as an object.
#include "velmar_2D/piece.hpp"

#include "velmar_2D/check/check.hpp"
#include "velmar_2D/pieces/pieces.hpp"

namespace velmar_2d {

namespace {

detail::LatticePoint to_lattice(const Place& p) { return {p.x, p.y}; }
Place to_place(const detail::LatticePoint& p) { return {p.x, p.y}; }

std::vector<detail::LatticePoint> to_lattice(std::span<const Place> places) {
  std::vector<detail::LatticePoint> points;
  points.reserve(places.size());
  for (const Place& p : places) points.push_back(to_lattice(p));
  return points;
}

std::vector<Place> to_places(const std::vector<detail::LatticePoint>& points) {
  std::vector<Place> places;
  places.reserve(points.size());
  for (const detail::LatticePoint& p : points) places.push_back(to_place(p));
  return places;
}

std::vector<std::vector<Place>> to_places(
    const std::vector<std::vector<detail::LatticePoint>>& of_each) {
  std::vector<std::vector<Place>> places;
  places.reserve(of_each.size());
  for (const auto& points : of_each) places.push_back(to_places(points));
  return places;
}

std::vector<PlacedSize> to_places(const std::vector<detail::PlacedSize>& sizes) {
  std::vector<PlacedSize> placed;
  placed.reserve(sizes.size());
  for (const detail::PlacedSize& of : sizes) placed.push_back({to_place(of.at), of.size});
  return placed;
}

/// What the piece keeps around its box.
Window widened(const Window& own, std::int32_t overlap, std::int32_t nx, std::int32_t ny) {
  return {std::max(own.west - overlap, 0), std::min(own.east + overlap, nx - 1),
          std::max(own.south - overlap, 0), std::min(own.north + overlap, ny - 1)};
}

/// Refused before anything is made of it.
Window checked_window(const PlaceBox& own, std::int32_t overlap, std::int32_t nx, std::int32_t ny) {
  if (own.low.x < 0 || own.low.y < 0 || own.high.x > (nx - 1) * places_per_cell ||
      own.high.y > (ny - 1) * places_per_cell || own.low.x >= own.high.x ||
      own.low.y >= own.high.y) {
    throw Error(
        "(velmar_2D/Piece:) ERROR: the box of a piece must lie in the grid, and not be empty");
  }
  return widened(own.cells(), overlap, nx, ny);
}

detail::Box to_lattice(const PlaceBox& box) { return {to_lattice(box.low), to_lattice(box.high)}; }
std::vector<detail::Box> to_lattice(std::span<const PlaceBox> boxes) {
  std::vector<detail::Box> of;
  of.reserve(boxes.size());
  for (const PlaceBox& box : boxes) of.push_back(to_lattice(box));
  return of;
}

}  // namespace

Piece::Piece(const Rectangle& whole, const Grid& grid, const PlaceBox& own, std::int32_t overlap)
    : mesh_([&] {
        const std::int32_t ny = rows_of(whole, grid);
        const Window window = checked_window(own, overlap, grid.nx, ny);
        return Mesh(whole, grid, &window);
      }()),
      box_(own),
      cells_(own.cells()),
      update_(new detail::PieceUpdate(mesh_.state(), to_lattice(own), overlap)) {
  mesh_.state().candidate_order = detail::CandidateOrder::by_place;
}
Piece::Piece(Piece&& from) noexcept = default;
Piece& Piece::operator=(Piece&& from) noexcept = default;
Piece::~Piece() = default;

Mesh& Piece::mesh() { return mesh_; }
const Mesh& Piece::mesh() const { return mesh_; }
const PlaceBox& Piece::box() const { return box_; }
const Window& Piece::own() const { return cells_; }
bool Piece::owns(const Cell& c) const { return update_->owns(c); }
bool Piece::owns(Place place) const { return update_->owns(to_lattice(place)); }
Place Piece::place_of(const Cell& c) const { return to_place(update_->place_of(c)); }
Cell* Piece::node_at(Place place) { return update_->node_at(to_lattice(place)); }

void Piece::begin(const size_function& size, const Resolution& resolution,
                  init_data_function init_data) {
  const detail::MeshChange change(mesh_.state(), "Piece::begin");
  update_->begin(size, {}, resolution, std::move(init_data));
}
void Piece::begin_batched(const batch_size_function& sizes, const Resolution& resolution,
                          init_data_function init_data) {
  const detail::MeshChange change(mesh_.state(), "Piece::begin");
  update_->begin({}, sizes, resolution, std::move(init_data));
}

void Piece::compute_derivatives() { update_->compute_derivatives(); }
std::span<Cell* const> Piece::own_nodes() { return update_->own_nodes(); }
std::span<Cell* const> Piece::ghosts() { return update_->ghosts(); }
std::int64_t Piece::row_of(Place place) { return update_->row_of(to_lattice(place)); }

void Piece::ask() {
  const detail::MeshChange change(mesh_.state(), "Piece::ask");
  update_->ask();
}
bool Piece::has_nodes_to_ask() const { return update_->has_nodes_to_ask(); }
bool Piece::has_wants() const { return update_->has_wants(); }

std::vector<Place> Piece::wants() { return to_places(update_->take_wants()); }

void Piece::hold(std::span<const Place> places) {
  const detail::MeshChange change(mesh_.state(), "Piece::hold");
  update_->hold(to_lattice(places));
}

std::vector<PlacedSize> Piece::sizes_for_owners() {
  detail::PieceSizes* sizes = update_->graded_sizes();
  if (sizes == nullptr) return {};
  return to_places(sizes->take_those_of_others());
}
std::vector<PlacedSize> Piece::sizes_for(std::size_t piece) {
  detail::PieceSizes* sizes = update_->graded_sizes();
  if (sizes == nullptr) return {};
  return to_places(sizes->take_own_for(piece));
}
bool Piece::has_sizes_to_tell() const {
  const detail::PieceSizes* sizes = std::as_const(*update_).graded_sizes();
  return sizes != nullptr && sizes->has_news();
}
void Piece::take_sizes(std::size_t piece, std::span<const PlacedSize> told) {
  std::vector<detail::PlacedSize> sizes;
  sizes.reserve(told.size());
  for (const PlacedSize& of : told) sizes.push_back({to_lattice(of.place), of.size});
  update_->take_sizes(piece, sizes);
}
void Piece::settle() {
  const detail::MeshChange change(mesh_.state(), "Piece::settle");
  update_->settle();
}
bool Piece::lacks_sizes() const { return update_->lacks_sizes(); }
void Piece::forget_grading() {
  detail::PieceSizes* sizes = update_->graded_sizes();
  if (sizes == nullptr) return;
  sizes->forget_grading();
  sizes->grade();
}

void Piece::release() {
  const detail::MeshChange change(mesh_.state(), "Piece::release");
  update_->release();
}

std::vector<Place> Piece::needs() {
  const detail::MeshChange change(mesh_.state(), "Piece::needs");
  return to_places(update_->find_needs());
}

bool Piece::hold_only(std::span<const Place> places) {
  return update_->hold_only(to_lattice(places));
}

std::vector<Cell*> Piece::border(const PlaceBox& box, int layers) {
  std::vector<Cell*> found;
  for (const auto& near : update_->border(to_lattice(box), layers)) found.push_back(near.cell);
  return found;
}

void Piece::hold_ghosts(std::span<const Place> places) {
  const detail::MeshChange change(mesh_.state(), "Piece::hold_ghosts");
  update_->hold_ghosts(to_lattice(places));
}

std::vector<std::vector<Place>> Piece::children_places(std::span<const PlaceBox> boxes,
                                                       bool of_all) {
  return to_places(update_->children_of(to_lattice(boxes), of_all));
}
std::vector<std::vector<Place>> Piece::border_places(std::span<const PlaceBox> boxes, bool of_all) {
  return to_places(update_->borders(to_lattice(boxes), of_all));
}
void Piece::for_ghosts(const std::function<void(Cell&, Place, bool)>& use) {
  update_->for_ghosts([&](Cell* c, const detail::LatticePoint& at, bool is_linked) {
    use(*c, to_place(at), is_linked);
  });
}
void Piece::keep_ghosts() { update_->keep_ghosts(); }
bool Piece::has_changed() const { return update_->has_changed(); }
void Piece::end_unchanged() { update_->end_unchanged(); }
bool Piece::has_freed() const { return update_->has_freed(); }
std::uint64_t Piece::needs_revision() const { return update_->needs_revision(); }
std::vector<Place> Piece::gone_near(const PlaceBox& box) const {
  return to_places(update_->gone_near(to_lattice(box)));
}
void Piece::remove_ghosts(std::span<const Place> places) {
  const detail::MeshChange change(mesh_.state(), "Piece::remove_ghosts");
  update_->remove_ghosts(to_lattice(places));
}
void Piece::change_ghosts(std::span<const Place> come, std::span<const Place> gone) {
  const detail::MeshChange change(mesh_.state(), "Piece::change_ghosts");
  update_->change_ghosts(to_lattice(come), to_lattice(gone));
}

void Piece::hand_on_data(const std::function<bool(const Cell&)>& is_known, std::size_t first) {
  update_->hand_on_data(is_known, first);
}
bool Piece::has_come(const Cell& c) const { return update_->has_come(c); }

namespace {

Rectangle to_rectangle(const detail::Bounds& b) { return {b.west, b.east, b.south, b.north}; }
detail::Bounds to_bounds(const Rectangle& r) { return {r.x_min, r.x_max, r.y_min, r.y_max}; }

}  // namespace

Rectangle Piece::begin_remap() { return to_rectangle(update_->begin_remap()); }
std::vector<double> Piece::cells_over(const Rectangle& there) {
  return update_->cells_over(to_bounds(there));
}
std::vector<double> Piece::parts_under(std::span<const double> cells) const {
  return update_->parts_under(cells);
}
void Piece::end_remap(std::span<const std::vector<double>> parts) { update_->end_remap(parts); }
void Piece::keep_cells() { update_->keep_cells(); }
void Piece::take_cells(Piece& from) { update_->take_cells(*from.update_); }

void Piece::hold_all(std::span<const Place> places) {
  const detail::MeshChange change(mesh_.state(), "Piece::hold_all");
  update_->hold_all(to_lattice(places));
}

void Piece::take_settings(Piece& from) {
  detail::State &to = mesh_.state(), &other = from.mesh_.state();
  to.transfer = other.transfer;
  to.hooks = other.hooks;
  to.handlers.message = other.handlers.message;
  to.handlers.fatal = other.handlers.fatal;
  to.handlers.pause = other.handlers.pause;
  to.progress.handler = other.progress.handler;
  to.progress.seconds_between_calls = other.progress.seconds_between_calls;
  for (std::size_t side = 0; side < to.side_records.size(); ++side) {
    for (std::size_t kind = 0; kind < bc_type_cut; ++kind) {
      Boundary *record = to.side_records[side][kind], *before = other.side_records[side][kind];
      if (record != nullptr && before != nullptr) record->c = before->c;
    }
  }
}

bool Piece::is_resolved(const Mesh& mesh) {
  const detail::State& state = mesh.state();
  return state.resolved_revision == state.mesh_revision;
}

Mesh Piece::release_mesh() && {
  update_->forget_cells();
  update_.reset();
  mesh_.state().is_of_piece = false;
  for (Cell& c : mesh_.nodes()) c.wanted_level = 0;  // nothing is held any more
  return std::move(mesh_);
}
PieceNodes Piece::nodes_before() const {
  detail::NodeValues nodes = update_->nodes_before();
  return {to_places(nodes.places), std::move(nodes.rows), std::move(nodes.handles)};
}
std::span<Cell* const> Piece::newcomers() const { return update_->newcomers(); }
const UpdateStatistics& Piece::statistics() const { return update_->statistics(); }
bool Piece::reaches_cut() const { return update_->reaches_cut(); }

void Piece::set_limit(std::int32_t limit) {
  update_->set_limit([&] { mesh_.set_limit(limit); });
}

void Piece::keep_window() { update_->keep_window(); }
void Piece::update(const batch_size_function& sizes) {
  update_->update_window(
      sizes, [&](const batch_size_function& counted) { return mesh_.update_batched(counted); });
}
void Piece::update(const batch_size_function& sizes, init_data_function init_data) {
  update_->update_window(sizes, [&](const batch_size_function& counted) {
    return mesh_.update_batched(counted, std::move(init_data));
  });
}
void Piece::order_by_age(std::span<const Place> oldest_first) {
  const detail::MeshChange change(mesh_.state(), "Piece::order_by_age");
  update_->order_by_age(to_lattice(oldest_first));
}
void Piece::take_nodes(std::span<const Cell> oldest_first) {
  const detail::MeshChange change(mesh_.state(), "Piece::take_nodes");
  update_->take_nodes(oldest_first);
}
void Piece::place_anew(const std::function<bool(const Cell&)>& is_meant) {
  update_->place_anew(is_meant);
}
void Piece::restore(const std::function<bool(const Cell&)>& is_restored,
                    const init_data_function& init_data) {
  update_->restore(is_restored, init_data);
}

}  // namespace velmar_2d
