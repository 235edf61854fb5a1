#include "support/mesh_hash.hpp"

#include <bit>
#include <cstdint>
#include <sstream>
#include <type_traits>

namespace velmar_2d::tests {

namespace {

/// By value, not by bytes: the same on machines of either byte order.
template <typename Part>
std::uint64_t mix(std::uint64_t h, Part part) {
  std::uint64_t bits = 0;
  if constexpr (std::is_same_v<Part, double>) {
    bits = std::bit_cast<std::uint64_t>(part);
  } else if constexpr (std::is_same_v<Part, bool>) {
    bits = part ? 1 : 0;
  } else {
    bits = std::make_unsigned_t<Part>(part);
  }
  h = (h ^ bits) * 0x9e3779b97f4a7c15U;
  return h ^ (h >> 29);
}

std::uint64_t place(const Cell& c) { return mix(mix(1, c.x), c.y); }

}  // namespace

std::string fingerprint(const Mesh& mesh) {
  std::uint64_t sum = 0;
  for (const Cell& c : mesh.nodes()) {
    std::uint64_t h = mix(mix(mix(place(c), c.ipos), c.level), c.reserve);
    for (const Direction d : directions) {
      const NeighbourLink there = link(c, d);
      const Boundary* side = there.boundary();
      h = mix(h, there.cell() != nullptr ? place(*there.cell())
                 : side != nullptr       ? static_cast<std::uint64_t>(side->bc_type) + 2
                                         : 1U);
    }
    for (const double value : c.data) h = mix(h, value);
    sum += mesh.n_cell_data() > 0 ? mix(mix(h, c.grad_data), c.grad2_data) : h;
  }
  std::ostringstream text;
  text << mesh.size() << " nodes, " << std::hex << sum;
  return text.str();
}

std::uint64_t state_hash(const Mesh& mesh) {
  std::uint64_t h = 0;
  const auto add = [&h](auto... parts) { ((h = mix(h, parts)), ...); };
  const auto id_of = [](const Cell* c) { return c == nullptr ? std::int64_t{0} : c->id; };
  const UpdateStatistics& did = mesh.statistics();
  add(mesh.size(), mesh.limit(), mesh.n_cell_data(), mesh.next_id());
  add(did.visited, did.inserted, did.removed, did.refused);
  add(mesh.x_min(), mesh.x_max(), mesh.y_min(), mesh.y_max(), mesh.dist_0());
  for (const Cell& c : mesh.nodes()) {
    add(c.id, c.x, c.y, c.level, c.reserve, c.ipos, c.on_boundary, c.used);
    add(c.signature_set, c.area, id_of(c.prev), id_of(c.next), c.data.size());
    if (c.signature_set) add(c.signature[0], c.signature[1]);
    for (const double value : c.data) add(value);
    add(c.grad_data, c.grad2_data, c.nl, c.nel, c.el, c.sel, c.sl, c.swl, c.wl, c.nwl);
    for (const Direction d : directions) {
      const NeighbourLink there = link(c, d);
      const Boundary* side = there.boundary();
      add(id_of(there.cell()), there.empty());
      if (side != nullptr) add(side->bc_type, side == &mesh.side_record(d, side->bc_type));
    }
  }
  return h;
}

}  // namespace velmar_2d::tests
