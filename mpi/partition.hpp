// What the files of the library tell one another. Never installed.
#pragma once

#include <array>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "boxes.hpp"
#include "messages.hpp"
#include "told_places.hpp"
#include "velmar_2D/velmar_2D_mpi.hpp"

namespace velmar_2d {

/// A number for all that a node is, wherever it is kept.
std::uint64_t fingerprint(const Cell& c);

/// A window is too narrow: some process has found it, and all throw it together.
class TooNarrow : public FaultOfAll {
 public:
  using FaultOfAll::FaultOfAll;
};

/// A node that plain updates have made, with all that tells what becomes of it, on its way.
struct AgedNode {
  /// Where a link leads, in place of a place.
  static constexpr std::int64_t nowhere = -1, to_side = -2;

  Place place;
  std::array<Place, 8> links;
  double x = 0.0, y = 0.0, area = 0.0;
  std::uint64_t fingerprint = 0;
  std::size_t row = 0;   ///< where it has come to
  std::int64_t age = 0;  ///< among all own nodes of all; 0: of the grid, or by place
  std::int32_t level = 0, ipos = 0, reserve = 0, on_boundary = 0, used = 0, wanted_level = 0;
  std::array<std::int32_t, 8> link_levels{};
  std::array<std::uint8_t, 2> signature{};
  bool signature_set = false;
  bool is_own = false;  ///< else a mark in the order of those around, with a place alone
};
/// The oldest first.
struct AgedNodes {
  std::vector<AgedNode> nodes;
  std::vector<double> rows;  ///< of each own one its data, gradient and second derivative
};
/// Copies of the own nodes of a process, then of some around them, with links to the originals.
struct KeptNodes {
  std::vector<Cell> cells;
  std::vector<const Cell*> originals;
  std::size_t nb_own = 0;
};

constexpr const char* narrow =
    "(velmar_2D/Partition:) ERROR: the mesh needs nodes where the window of a process ends: more "
    "overlap is wanted";
constexpr const char* update_is_narrow =
    "(velmar_2D/Partition:) ERROR: nodes around the box of a process are not those that their "
    "owners have: update() wants more overlap";

/// Makes the nodes of a mesh that was resolved, on a piece that has its grid.
/// @param has_moved  set where a position was not that of the lattice; one that is no number is
/// @return of each own node in their order, where it stands among the nodes
std::vector<std::size_t> fill(Piece& piece, const PieceNodes& nodes, bool& has_moved);

struct Partition::Parts {
  /// What has changed the grid. After update() windows are whole, after resolve() they are not.
  enum class Adapted { by_nothing, by_resolve, by_update };

  Messages messages;
  Rectangle whole;
  Grid grid;
  PartitionOptions options;
  std::vector<PlaceBox> boxes;
  std::vector<Window> cells_of_boxes;            ///< that these reach into
  double slope = 0.0;                            ///< of the sizes, in the last update
  bool remaps = false;                           ///< data, in the last update
  std::size_t nb_handed_on = 0;                  ///< of the newcomers
  std::unordered_set<const Cell*> known_ghosts;  ///< newcomers here whose owners had them before
  Owners owners;
  std::optional<Piece> piece;
  PartitionStatistics statistics;  ///< of the last update, this process
  int nb_repairs = 0;
  std::int64_t nb_restored = 0;  ///< own nodes that restore() has made for the last update

  Adapted adapted_by = Adapted::by_nothing;
  // After update(), by neighbour: nodes of windows that their owners have.
  std::vector<std::vector<Cell*>> window_sent, window_received;
  bool has_moved_nodes = false;  ///< some process, after resolve(): off the lattice by rounding
  KeptNodes nodes_before;        ///< the last update, while it runs
  std::vector<Cell*> strangers;  ///< other nodes of the window, which no owner has
  std::unordered_set<const Cell*> is_stranger;
  std::unordered_map<const Cell*, std::array<double, 2>> derivatives_there;  ///< of owners

  // What neighbours have been told: own nodes that they need to know, nodes of theirs that are
  // needed here, and ghosts, those linked to owned nodes and the others.
  ToldPlaces told_borders, told_needs, told_linked, told_others;
  std::uint64_t needs_told = 0;    ///< revision of what told_needs has
  std::uint64_t mesh_told = 0;     ///< revision of the mesh whose borders and ghosts were told
  bool lacks_nodes = false;        ///< that others have as ghosts
  bool has_told = false;           ///< any of it
  bool tells_all_children = true;  ///< not those alone that have come
  bool holds_more = false;         ///< own nodes, than the neighbours' needs
  bool is_settled = false;         ///< this update has changed nothing on any process
  std::vector<std::uint64_t> sent_fingerprints, received_fingerprints;  ///< of linked ghosts

  // The plan of the exchange, in the order of the neighbours. Made when the mesh has changed.
  std::vector<Cell*> owned, ghosts;
  std::size_t nb_linked_ghosts = 0;
  std::vector<std::vector<Cell*>> sent, received;  ///< those of the linked layer first
  std::vector<std::size_t> nb_sent_linked, nb_received_linked;
  std::vector<std::vector<std::int32_t>> sent_rows;     ///< numbers of those among the owned
  std::vector<char> sends_rows;                         ///< that are others than before
  std::vector<std::int64_t> first_numbers;              ///< by rank, and the end
  std::vector<std::vector<std::int32_t>> rows_there;    ///< of those received
  std::vector<std::vector<std::size_t>> received_rows;  ///< where they stand in `ghosts`
  mutable std::unordered_map<const Cell*, std::int64_t> number_of;  ///< made when it is asked for

  Parts(MPI_Comm communicator, const Rectangle& rectangle, const Grid& first_grid,
        const PartitionOptions& chosen)
      : messages(communicator), whole(rectangle), grid(first_grid), options(chosen) {}

  const PlaceBox& box() const { return boxes[static_cast<std::size_t>(messages.rank())]; }
  /// Those that the box of a process reaches into.
  const Window& cells_of(int rank) const { return cells_of_boxes[static_cast<std::size_t>(rank)]; }
  int owner(Place place) const { return owners.of(place); }
  /// From the boxes.
  void find_neighbours();

  void resolve(const size_function& size, const batch_size_function& sizes,
               init_data_function init_data, const Resolution& resolution);
  void refine();
  /// What processes have to tell one another.
  struct News {
    static constexpr std::uint64_t wants = 1, changes = 2, forgotten = 4, asks = 8, sizes = 16,
                                   cut = 32, remaps = 64;
  };
  std::uint64_t any_news();
  bool ask_and_exchange_wants();
  bool exchange_wants();
  void exchange_wants_once();
  void release();
  void release_until_kept();
  void refine_graded();
  void refine_graded_by_place();
  void release_graded();
  void grade_together();
  std::vector<std::vector<PlacedSize>> take_sizes_to_tell();
  void take_sizes(const std::vector<std::vector<PlacedSize>>& told);
  bool exchange_needs();
  void forget_told();
  bool has_changed() const { return piece->has_changed() || piece->needs_revision() != needs_told; }
  std::vector<PlaceBox> boxes_of_neighbours() const;
  void share_children(bool of_all);
  void share_ghosts();
  void share_new_ghosts();
  void exchange_borders(const std::function<std::vector<std::vector<Place>>()>& borders, bool adds);
  void write_rows_at(std::span<const Place> places, double* row);
  void hand_on_data();
  void hand_on_data(const std::vector<std::vector<Place>>& asked,
                    const std::vector<std::vector<Place>>& asked_here);
  /// @param hands_on  data of ghosts that have come, too
  void plan_exchange(bool hands_on = false);
  void list_received(std::vector<std::vector<Place>>& out);
  void list_sent(const std::vector<std::vector<Place>>& in, bool is_new_plan);
  void write_conclusion(std::vector<std::vector<std::uint64_t>>& out, std::size_t width);
  /// @return whether fingerprints are those of the owners
  bool read_conclusion(const std::vector<std::vector<std::uint64_t>>& in, std::size_t width);
  /// Gives ghosts their numbers and, if it is wanted, data; the last step of what changes the mesh.
  /// Throws where ghosts are not what their owners have.
  void conclude(bool with_data);
  void take_fingerprints();
  void list_owned();
  void exchange_array(std::span<double> rows, std::size_t width, GhostLayer layer);
  bool agrees();
  void exchange_data();
  bool wants_remap() const {
    return piece->mesh().transfer() == Transfer::remap && grid.n_cell_data > 0;
  }
  /// Gives own nodes what lay under their cells before the update, and ghosts what their owners
  /// have then. The last step: what is repaired begins with the values of before.
  void remap();
  /// Time of the processor that was not spent in messages.
  double own_seconds() const { return processor_seconds() - messages.seconds(); }
  template <typename Step>
  void sharing(const Step& step) {
    const double begin = own_seconds();
    step();
    statistics.sharing_seconds += own_seconds() - begin;
  }
  /// Collective.
  void begin_resolve(const size_function& size, const batch_size_function& sizes,
                     init_data_function init_data, const Resolution& resolution);
  void begin_update(const size_function& size, const batch_size_function& sizes,
                    const std::optional<init_data_function>& init_data);
  void update(const size_function& size, const batch_size_function& sizes,
              const std::optional<init_data_function>& init_data);
  /// Changes whole windows, and looks whether they became what their owners have.
  ///
  /// @param asks  for sizes, which may want derivatives
  void update_windows(bool asks, const std::function<void()>& change);
  void set_limit(std::int32_t limit);
  /// Makes windows of resolve(), with the nodes that update() has left and what these rest on.
  /// @return own nodes that have come by that
  std::int64_t restore(const init_data_function& init_data);
  std::vector<Place> missing_places();
  /// Where some lie off the lattice, as plain updates may leave them: ghosts get positions of their
  /// owners.
  void exchange_positions();
  /// The same after an update, with what has come by it.
  void place_newcomers();
  void give_values_to_restored(const std::vector<char>& is_restored,
                               const init_data_function& init_data);
  void keep_windows_from_now();
  void prepare_window(bool asks);
  void plan_window();
  void exchange_derivatives();
  /// Ghosts of windows get what their owners hold.
  void exchange_values_of_window();
  void give_values_to_strangers();
  void ask_window(std::span<const Cell* const> nodes, std::span<double> of,
                  const size_function& size, const batch_size_function& sizes);
  /// Column and row of the grid where a node is.
  std::array<double, 2> in_cells(const Cell& c) const;
  double cells_to_cut(const Cell& c) const;
  double cells_to_box(const Cell& c) const;
  void list_rings();
  bool window_agrees();
  /// Ghosts, plan and numbers of nodes that are as they shall be. Throws where processes differ.
  void settle();
  bool rebalance(double threshold);
  /// Makes the grid of the own box, with boxes as even as can be.
  void begin_evenly();
  /// Takes over a mesh that process 0 has.
  void share_out(const Mesh* mesh, const bc_type_function& bc_type);
  /// Boxes of about as many nodes each, of these on all processes together.
  std::vector<PlaceBox> cut_by_nodes(std::span<const Cell* const> nodes);
  /// Boxes become these, and owners of these nodes others. Throws where the nodes do not become
  /// what they were.
  void move_nodes(std::span<const Cell* const> nodes, const std::vector<PlaceBox>& new_boxes);
  /// A window as wide as the overlap wants, or wider, with these own nodes, and all ghosts.
  /// @return what fill() returns
  std::vector<std::size_t> make_again(const PieceNodes& nodes);
  void widen_windows(const TooNarrow& found);
  /// The mesh before the update that has just failed, in wider windows.
  void repair(const TooNarrow& found);
  void repair_update();
  void return_handles(const KeptNodes& kept);
  /// Copies the nodes that plain updates have made.
  void keep_nodes();
  /// Needs: the piece that they were copied from, whatever has become of its nodes.
  AgedNodes aged(const KeptNodes& kept) const;
  /// Tells the ages of nodes of all processes.
  /// @return whether all know the same order
  bool age_together(AgedNodes& own);
  /// Makes these nodes of all processes anew, in the windows around the boxes. Without `widens` it
  /// changes nothing where it takes wider ones to do so.
  /// @return whether it did
  bool replay(const AgedNodes& own, bool widens);
  AgedNodes nodes_from_all(const AgedNodes& own,
                           const std::function<std::optional<Window>(int)>& window_there);
  /// One window of it; none where it takes a wider one.
  ///
  /// @param of            the box of this process; null: it makes nothing
  /// @param window_there  of a rank: the nodes that it wants
  std::optional<Piece> replayed(const AgedNodes& own, const PlaceBox* of,
                                const std::function<std::optional<Window>(int)>& window_there);
  /// The cells of a box and those that overlap.
  Window window_around(const PlaceBox& box) const;
  /// @return whether nodes have moved: where it would take the whole they stay
  bool rebalance_updated(const std::vector<PlaceBox>& new_boxes);
  bool is_whole(const Window& window) const;
  std::unique_ptr<Mesh> gather_updated();
  /// Runs an update that all processes run together, again with wider windows where these are too
  /// narrow.
  template <typename Update>
  void repairing(const Update& update);
  std::unique_ptr<Mesh> gather();
  /// By neighbour. Those of no neighbour are a fault.
  std::vector<std::vector<Place>> by_owner(const std::vector<Place>& places) const;

  /// Where the owner of a place stands among the neighbours.
  std::size_t neighbour_of(Place place) const;

  /// Gives ghosts, or nodes of windows, rows of numbers of their owners. `read` and `write` handle
  /// one row.
  template <typename Read, typename Write>
  void exchange_rows(std::size_t width, GhostLayer layer, const Read& read, const Write& write);
  template <typename Read, typename Write>
  void exchange_window(std::size_t width, const Read& read, const Write& write);

  /// Throws what no update of many processes can do.
  void check_update(const size_function& size, const batch_size_function& sizes) const;
  void check_transfer() const;
  void check_resolve(const size_function& size, const batch_size_function& sizes,
                     const Resolution& resolution) const;
  /// Runs an update, and tells what it did and took.
  template <typename Update>
  void with_statistics(const Update& update);
};

/// Rows of numbers of some nodes, by neighbour, for others there.
/// @param is_agreed  both sides know how many there are
template <typename Read, typename Write>
void exchange_between(Messages& messages, std::span<const std::span<Cell* const>> from,
                      std::span<const std::span<Cell* const>> to, std::size_t width,
                      const Read& read, const Write& write, bool is_agreed = false) {
  std::vector<std::vector<double>> out(from.size());
  for (std::size_t i = 0; i < from.size(); ++i) {
    out[i].resize(from[i].size() * width);
    for (std::size_t k = 0; k < from[i].size(); ++k) read(*from[i][k], out[i].data() + k * width);
  }
  std::vector<char> comes(to.size());
  for (std::size_t i = 0; i < to.size(); ++i) comes[i] = to[i].empty() ? 0 : 1;
  const std::vector<std::vector<double>> in =
      is_agreed ? messages.exchange(out, comes) : messages.exchange(out);
  for (std::size_t i = 0; i < to.size(); ++i) {
    if (in[i].size() != to[i].size() * width) continue;  // a fault there, told in together()
    for (std::size_t k = 0; k < to[i].size(); ++k) write(*to[i][k], in[i].data() + k * width);
  }
}

template <typename Read, typename Write>
void Partition::Parts::exchange_rows(std::size_t width, GhostLayer layer, const Read& read,
                                     const Write& write) {
  using Nodes = std::span<Cell* const>;
  const auto of_layer = [layer](const std::vector<std::vector<Cell*>>& nodes,
                                const std::vector<std::size_t>& nb_linked) {
    std::vector<Nodes> some(nodes.begin(), nodes.end());
    for (std::size_t i = 0; i < nodes.size() && layer == GhostLayer::linked; ++i) {
      some[i] = some[i].first(nb_linked[i]);
    }
    return some;
  };
  exchange_between(messages, of_layer(sent, nb_sent_linked), of_layer(received, nb_received_linked),
                   width, read, write, true);
}

template <typename Read, typename Write>
void Partition::Parts::exchange_window(std::size_t width, const Read& read, const Write& write) {
  using Nodes = std::span<Cell* const>;
  exchange_between(messages, std::vector<Nodes>(window_sent.begin(), window_sent.end()),
                   std::vector<Nodes>(window_received.begin(), window_received.end()), width, read,
                   write);
}

template <typename Update>
void Partition::Parts::repairing(const Update& update) {
  for (;;) {
    try {
      update();
      return;
    } catch (const TooNarrow& found) {
      repair(found);
    }
  }
}

template <typename Update>
void Partition::Parts::with_statistics(const Update& update) {
  statistics = {};
  nb_restored = 0;
  const double begin = own_seconds();
  const std::int64_t bytes_before = messages.nb_bytes();
  update();
  const UpdateStatistics& own = piece->statistics();
  statistics.inserted = own.inserted + nb_restored;
  statistics.removed = own.removed;
  statistics.visited = own.visited;
  statistics.refused = own.refused;
  statistics.nb_bytes = messages.nb_bytes() - bytes_before;
  statistics.update_seconds = own_seconds() - begin;
}

}  // namespace velmar_2d
