// From a mesh to arrays, and back.
#include "velmar_2D/snapshot.hpp"

#include <cmath>
#include <limits>
#include <new>
#include <string>

#include "velmar_2D/adapt/update_mesh_decl.hpp"
#include "velmar_2D/arrays/arrays.hpp"
#include "velmar_2D/check/check.hpp"
#include "velmar_2D/resolve/resolve.hpp"

namespace velmar_2d::detail {

namespace {

[[noreturn]] void refuse(const std::string& text) { throw Error(text); }

/// A callback may ask for what must not be in the middle of a change.
void require_idle(const State& state) {
  if (!state.in_use_by.empty()) refuse("the mesh is in use by " + std::string(state.in_use_by));
}

// ---------------------------------------------------------------------------------------------
// Taking
// ---------------------------------------------------------------------------------------------

/// The nodes in list order; fills in the sizes of the stretches.
std::vector<const Cell*> listed_nodes(const State& state, Snapshot& snapshot) {
  std::vector<const Cell*> cells;
  const auto nb_nodes = static_cast<std::size_t>(state.nb_nodes);
  cells.reserve(nb_nodes);
  snapshot.stretch_sizes.resize(state.level_beg.size());
  Walk walk = Walk::to_share(state.history);
  const auto list = [&](Cell* first) {
    for (const Cell& c : walk(first)) {
      const auto stretch = static_cast<std::size_t>(c.ipos);
      require(cells.size() < nb_nodes && c.ipos >= 0 && stretch < state.level_beg.size(),
              "the list of nodes is broken");
      ++snapshot.stretch_sizes[stretch];
      cells.push_back(&c);
    }
  };
  if (!state.lists_are_split()) {
    list(state.mesh_beg);
  } else {
    for (const Handle& stretch : state.level_beg) list(stretch.next);
  }
  const auto is_before = [](const Cell* a, const Cell* b) { return a->ipos < b->ipos; };
  require(cells.size() == nb_nodes && std::is_sorted(cells.begin(), cells.end(), is_before),
          "the list of nodes is broken");
  return cells;
}

/// Calls work(first, end) for one block of indices after the other: small enough for its nodes to
/// stay in the cache while their fields are copied one by one, each in a loop of its own.
template <typename Work>
void by_blocks(std::size_t n, const Work& work) {
  constexpr std::size_t nodes_of_a_block = 256;
  for (std::size_t first = 0; first < n; first += nodes_of_a_block) {
    work(first, std::min(first + nodes_of_a_block, n));
  }
}

std::int32_t code_of(const State& state, const NodeNumbers::Lookup& numbers, NeighbourLink to,
                     int d) {
  if (to.empty()) return no_link;
  if (const Cell* c = to.cell(); c != nullptr) {
    const std::int32_t number = *numbers.place_of(c);
    require(number >= 0, "a link leads out of the mesh");
    return number;
  }
  const auto side = static_cast<std::size_t>(d / 2);
  for (std::int32_t kind = 0; d % 2 == 0 && kind < 3; ++kind) {
    if (state.side_records[side][static_cast<std::size_t>(kind)] == to.boundary()) {
      return side_code(static_cast<Direction>(d), kind);
    }
  }
  refuse("a link designates a record of none of the kinds of its side");
}

/// A bit for each link of level 2.
unsigned doubled_links(const Cell& c) {
  unsigned doubled = 0;
  for (int d = 0; d < nb_directions; ++d) {
    const std::int32_t level = c.*link_level_members[static_cast<std::size_t>(d)];
    require(level == 1 || level == 2, "the level of a link is not 1 or 2");
    if (level == 2) doubled |= 1U << d;
  }
  return doubled;
}

VELMAR_2D_ALWAYS_INLINE void prefetch_node(const Cell& c) {
  const auto* bytes = reinterpret_cast<const std::byte*>(&c);
  for (std::size_t line = 0; line < sizeof(Cell); line += cache_line) prefetch(bytes + line);
}

void take_nodes(const State& state, Snapshot& s) {
  const std::vector<const Cell*> cells = listed_nodes(state, s);
  NodeNumbers numbers;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    *numbers.place_for(cells[i]) = static_cast<std::int32_t>(i);
  }
  const NodeNumbers::Lookup number_of = numbers.lookup();
  const std::size_t n = cells.size();
  for (auto* column : {&s.x, &s.y, &s.area, &s.grad_data, &s.grad2_data}) column->resize(n);
  for (auto* column :
       {&s.link_levels, &s.reserve, &s.on_boundary, &s.wanted_level, &s.signature_set}) {
    column->resize(n);
  }
  s.id.resize(n);
  s.level.resize(n);
  s.used.resize(n);
  s.signature.resize(2 * n);
  s.links.resize(std::size_t{nb_directions} * n);
  const auto nb_values = static_cast<std::size_t>(state.n_cell_data);
  const bool same_size = std::all_of(cells.begin(), cells.end(),
                                     [&](const Cell* c) { return c->data.size() == nb_values; });
  s.data.resize(same_size ? n * nb_values : 0);
  if (!same_size) s.data_sizes.resize(n);

  by_blocks(n, [&](std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i) prefetch_node(*cells[i]);
    const auto copy = [&](auto& column, auto value) {
      using T = std::remove_reference_t<decltype(column[0])>;
      for (std::size_t i = first; i < end; ++i) column[i] = static_cast<T>(value(*cells[i]));
    };
    copy(s.id, [](const Cell& c) { return c.id; });
    copy(s.x, [](const Cell& c) { return c.x; });
    copy(s.y, [](const Cell& c) { return c.y; });
    copy(s.level, [](const Cell& c) { return c.level; });
    copy(s.wanted_level, [](const Cell& c) { return wanted_level(c); });
    copy(s.signature_set, [](const Cell& c) { return load_shared(c.signature_set); });
    copy(s.area, [](const Cell& c) { return load_shared(c.area); });
    copy(s.used, [](const Cell& c) { return c.used; });
    copy(s.grad_data, [](const Cell& c) { return c.grad_data; });
    copy(s.grad2_data, [](const Cell& c) { return c.grad2_data; });
    copy(s.link_levels, [](const Cell& c) { return doubled_links(c); });
    copy(s.reserve, [](const Cell& c) {
      require(c.reserve >= 1 && c.reserve <= 4, "reserve of a node is not 1 to 4");
      return c.reserve;
    });
    copy(s.on_boundary, [](const Cell& c) {
      require(c.on_boundary >= 0 && c.on_boundary <= 2, "on_boundary of a node is not 0 to 2");
      return c.on_boundary;
    });
    for (std::size_t i = first; i < end; ++i) {
      s.signature[i] = load_shared(cells[i]->signature[0]);
      s.signature[n + i] = load_shared(cells[i]->signature[1]);
    }
    for (int d = 0; d < nb_directions; ++d) {
      std::int32_t* column = &s.links[static_cast<std::size_t>(d) * n];
      for (std::size_t i = first; i < end; ++i) {
        column[i] = code_of(state, number_of, link(*cells[i], d), d);
      }
    }
    for (std::size_t k = 0; same_size && k < nb_values; ++k) {
      for (std::size_t i = first; i < end; ++i) s.data[k * n + i] = cells[i]->data[k];
    }
    for (std::size_t i = first; !same_size && i < end; ++i) {
      s.data_sizes[i] = static_cast<std::int32_t>(cells[i]->data.size());
      s.data.insert(s.data.end(), cells[i]->data.begin(), cells[i]->data.end());
    }
  });
}

// ---------------------------------------------------------------------------------------------
// Restoring
// ---------------------------------------------------------------------------------------------

/// The kind that all nodes on a side have, n, e, s, w; -1 where they differ.
std::array<std::int32_t, 4> kinds_of_sides(const Snapshot& s) {
  std::array<std::int32_t, 4> kinds{};
  for (std::size_t side = 0; side < 4; ++side) {
    std::int32_t kind = no_link;
    bool differ = false;
    for (std::size_t i = 0; i < s.size(); ++i) {
      const std::int32_t to = s.links[2 * side * s.size() + i];
      if (!is_side(to)) continue;
      const std::int32_t of_node = kind_of(to);
      differ = differ || (kind != no_link && kind != of_node);
      kind = of_node;
    }
    kinds[side] = differ ? -1 : std::max(kind, 0);
  }
  return kinds;
}

bc_type_function kinds_from(const Snapshot& s) {
  static constexpr std::array<const char*, 4> names = {"North", "East", "South", "West"};
  const std::array<std::int32_t, 4> kinds = kinds_of_sides(s);
  for (std::size_t side = 0; side < 4; ++side) {
    if (kinds[side] < 0) {
      refuse(std::string("the nodes on the side '") + names[side] +
             "' are of several kinds: 'bc_type' must be given");
    }
  }
  return kind_by_side(kinds[0], kinds[1], kinds[2], kinds[3]);
}

void set_mesh(State& state, const Snapshot& s) {
  state.domain = domain_of(s);
  for (std::size_t side = 0; side < 4; ++side) {
    for (std::size_t kind = 0; kind < 3; ++kind) {
      if (!s.has_side_record[side][kind]) continue;
      // Records that the caller has brought along are those of the mesh from now on.
      Boundary*& record = state.side_records[side][kind];
      if (record == nullptr) record = &state.own_side_records[side][kind];
      *record = s.side_records[side][kind];
    }
  }
  state.n_cell_data = s.n_cell_data;
  state.level_max = s.limit;
  make_level_arrays(state, static_cast<std::int32_t>(s.stretch_sizes.size()) - 1);
}

/// Makes the nodes as one list. What was made goes with the state where memory ends.
std::vector<Cell*> make_nodes(State& state, const Snapshot& s) {
  std::vector<Cell*> cells;
  cells.reserve(s.size());
  std::size_t i = 0, value = 0;
  for (std::size_t stretch = 0; stretch < s.stretch_sizes.size(); ++stretch) {
    for (std::int32_t left = s.stretch_sizes[stretch]; left > 0; --left, ++i) {
      Cell* c = new_cell(state, static_cast<std::int32_t>(stretch));
      c->prev = state.mesh_end;
      (c->prev != nullptr ? c->prev->next : state.mesh_beg) = c;
      state.mesh_end = state.level_end[stretch].next = c;
      if (state.level_beg[stretch].next == nullptr) state.level_beg[stretch].next = c;
      cells.push_back(c);
      c->id = s.id[i];
      c->ipos = static_cast<std::int32_t>(stretch);
      if (!s.data_sizes.empty()) {
        const auto size = static_cast<std::size_t>(s.data_sizes[i]);
        c->data = CellData();
        c->data.resize(size);
        std::copy_n(s.data.begin() + static_cast<std::ptrdiff_t>(value), size, c->data.begin());
        value += size;
      }
    }
  }
  return cells;
}

void fill_nodes(State& state, const Snapshot& s, const std::vector<Cell*>& cells) {
  const std::size_t n = cells.size();
  const auto nb_values = s.data_sizes.empty() ? static_cast<std::size_t>(s.n_cell_data) : 0;
  by_blocks(n, [&](std::size_t first, std::size_t end) {
    const auto each = [&](const auto& set) {
      for (std::size_t i = first; i < end; ++i) set(*cells[i], i);
    };
    each([&](Cell& c, std::size_t i) { c.x = s.x[i]; });
    each([&](Cell& c, std::size_t i) { c.y = s.y[i]; });
    each([&](Cell& c, std::size_t i) { c.level = s.level[i]; });
    each([&](Cell& c, std::size_t i) { c.reserve = s.reserve[i]; });
    each([&](Cell& c, std::size_t i) { c.on_boundary = s.on_boundary[i]; });
    each([&](Cell& c, std::size_t i) { c.wanted_level = s.wanted_level[i]; });
    each([&](Cell& c, std::size_t i) { c.signature_set = s.signature_set[i] != 0; });
    each([&](Cell& c, std::size_t i) { c.signature = {s.signature[i], s.signature[n + i]}; });
    each([&](Cell& c, std::size_t i) { c.area = s.area[i]; });
    each([&](Cell& c, std::size_t i) { c.used = s.used[i]; });
    each([&](Cell& c, std::size_t i) { c.grad_data = s.grad_data[i]; });
    each([&](Cell& c, std::size_t i) { c.grad2_data = s.grad2_data[i]; });
    for (std::size_t k = 0; k < nb_values; ++k) {
      each([&](Cell& c, std::size_t i) { c.data[k] = s.data[k * n + i]; });
    }
    for (int d = 0; d < nb_directions; ++d) {
      const std::int32_t* column = &s.links[static_cast<std::size_t>(d) * n];
      each([&](Cell& c, std::size_t i) {
        link_level(c, d) = ((s.link_levels[i] >> d) & 1) != 0 ? 2 : 1;
        const std::int32_t to = column[i];
        if (to >= 0) {
          link(c, d) = cells[static_cast<std::size_t>(to)];
        } else if (to != no_link) {
          const auto kind = static_cast<std::size_t>(kind_of(to));
          link(c, d) = state.side_records[static_cast<std::size_t>(d / 2)][kind];
        }
      });
    }
  });
}

/// Needs: a state without nodes, and a snapshot that has been checked.
void set_state(State& state, const Snapshot& s, const bc_type_function& bc_type) {
  state.bc_type_ptr = bc_type ? bc_type : kinds_from(s);
  set_mesh(state, s);
  fill_nodes(state, s, make_nodes(state, s));
  state.next_id = s.next_id;
  state.mesh_revision = s.revision;
  state.resolved_revision = s.resolved_revision;
  if (s.resolved_revision == s.revision) state.candidate_order = CandidateOrder::by_place;
  state.surplus_has_gone = s.surplus_has_gone;
  state.transfer = s.transfer;
  state.links_may_be_one_way = s.links_may_be_one_way;
  state.update_statistics = s.statistics;
  if (s.list_is_split) split_sublists(state);
  state.level_range = s.level_range;
}

/// Where single steps have left links one-way their caller decided on the geometry, and what must
/// hold has been checked before.
void require_whole(const State& state) {
  if (state.links_may_be_one_way) return;
  std::vector<Finding> findings;
  if (check_mesh(state, findings) == 0) return;
  std::string text = "the mesh is not whole: " + std::string(findings.front().text);
  if (const Cell* c = findings.front().node; c != nullptr) {
    text += " (node " + std::to_string(c->id) + " at " + to_text(c->x) + ", " + to_text(c->y) + ")";
  }
  refuse(text);
}

}  // namespace

Snapshot take_snapshot(const Mesh& mesh) {
  const State& state = SnapshotAccess::state_of(mesh);
  require(state.nb_nodes > 0, "there is no mesh");
  require_idle(state);
  const auto is_cut = [](const auto& records) { return records[bc_type_cut] != nullptr; };
  require(std::none_of(state.side_records.begin(), state.side_records.end(), is_cut),
          "it is the window of a process only, not a mesh");
  Snapshot s;
  const Domain& domain = state.domain;
  s.x_min = domain.x_min;
  s.x_max = domain.x_max;
  s.y_min = domain.y_min;
  s.y_max = domain.y_max;
  s.dist_0 = domain.dist_0;
  s.first_grid_is_whole = std::isfinite(domain.longest_link);
  s.lattice_is_whole = domain.lattice_is_whole;
  s.limit = state.level_max;
  s.n_cell_data = state.n_cell_data;
  s.next_id = state.next_id;
  s.revision = state.mesh_revision;
  s.resolved_revision = state.resolved_revision;
  s.surplus_has_gone = state.surplus_has_gone;
  s.transfer = state.transfer;
  s.level_range = state.level_range;
  s.statistics = state.update_statistics;
  s.list_is_split = state.lists_are_split();
  s.links_may_be_one_way = state.links_may_be_one_way;
  for (std::size_t side = 0; side < 4; ++side) {
    for (std::size_t kind = 0; kind < 3; ++kind) {
      const Boundary* record = state.side_records[side][kind];
      s.has_side_record[side][kind] = record != nullptr;
      s.side_records[side][kind] =
          record != nullptr ? *record : Boundary{0.0, static_cast<std::int32_t>(kind)};
    }
  }
  take_nodes(state, s);
  return s;
}

Mesh restore(const Snapshot& s, const bc_type_function& bc_type, bool check) {
  // check_mesh() looks for one-way links too, and says where.
  check_snapshot(s, !check && !s.links_may_be_one_way);

  std::unique_ptr<State, StateDeleter> owned(new State);
  State& state = *owned;
  state.handlers.defaults = &default_state().handlers;
  set_state(state, s, bc_type);
  if (check) require_whole(state);
  return SnapshotAccess::mesh_of(std::move(owned));
}

void restore_default(const Snapshot& s, const bc_type_function& bc_type, bool check) {
  State& state = default_state();
  require_idle(state);
  restore(s, bc_type, check);  // what can go wrong does so here; its memory is free again
  release_all_nodes(state);
  state.level_beg.clear();
  state.level_end.clear();
  set_state(state, s, bc_type);
}

}  // namespace velmar_2d::detail
