#include "support/mesh_checker.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <sstream>
#include <unordered_map>

#include "velmar_2D/velmar_2D.hpp"

namespace velmar_2d::tests {
namespace {

constexpr std::size_t most_findings = 30;
constexpr int finest_exponent = 30;  // of the lattice that positions are counted on

// A position is read back from (x - x_min) / dist_0. The first term is what the library's own
// arithmetic may leave near the origin, the second the rounding of a coordinate far from it.
constexpr double offset_tolerance = 1e-10;
constexpr double roundings_of_a_coordinate = 8.0;

struct Step {
  const char* name;
  NeighbourLink Cell::*link;
  std::int32_t Cell::*level;
  int x, y;  // unit step of the direction
};
constexpr Step steps[8] = {
    {"n", &Cell::n, &Cell::nl, 0, 1},  {"ne", &Cell::ne, &Cell::nel, 1, 1},
    {"e", &Cell::e, &Cell::el, 1, 0},  {"se", &Cell::se, &Cell::sel, 1, -1},
    {"s", &Cell::s, &Cell::sl, 0, -1}, {"sw", &Cell::sw, &Cell::swl, -1, -1},
    {"w", &Cell::w, &Cell::wl, -1, 0}, {"nw", &Cell::nw, &Cell::nwl, -1, 1},
};

/// An offset as numerator / 2^exponent of dist_0, in lowest terms.
struct Dyadic {
  std::int64_t numerator = 0;
  int exponent = 0;
  std::int64_t on_finest() const { return numerator << (finest_exponent - exponent); }
};

std::optional<Dyadic> to_dyadic(double offset, double tolerance) {
  for (int exponent = 0; exponent <= finest_exponent; ++exponent) {
    const double scaled = std::ldexp(offset, exponent);
    const double near = std::nearbyint(scaled);
    if (!(std::abs(near) < 1e12)) return std::nullopt;
    if (std::abs(scaled - near) <= std::ldexp(tolerance, exponent))
      return Dyadic{static_cast<std::int64_t>(near), exponent};
  }
  return std::nullopt;
}

/// Both offsets whole: 0. Equal denominators 2^k: centre of a square, 2k - 1. Otherwise: midpoint
/// of a side, twice the larger exponent.
std::int32_t closed_form_ipos(const Dyadic& x, const Dyadic& y) {
  if (x.exponent != y.exponent) return 2 * std::max(x.exponent, y.exponent);
  return x.exponent == 0 ? 0 : 2 * x.exponent - 1;
}

struct Place {
  Dyadic x, y;
  std::int64_t fine_x = 0, fine_y = 0;  // the same on the finest lattice
};

class Checker {
 public:
  std::vector<std::string> run() {
    collect_nodes();
    if (nodes_.empty()) return findings_;
    check_arrays();
    if (!place_nodes()) return findings_;
    for (const Cell* c : nodes_) check_node(*c);
    check_reachable();
    return findings_;
  }

 private:
  template <typename... Parts>
  void report(const Cell* c, const Parts&... parts) {
    if (findings_.size() == most_findings) findings_.emplace_back("... and more");
    if (findings_.size() > most_findings) return;
    std::ostringstream line;
    line.precision(17);
    if (c != nullptr) {
      line << "node " << c->id << " at (" << c->x << ", " << c->y << ") ipos " << c->ipos
           << " level " << c->level << " reserve " << c->reserve << ": ";
    }
    (line << ... << parts);
    findings_.push_back(line.str());
  }

  // The list, joined or one list per stretch. Stops at the first broken `prev`, which also ends
  // every circle.
  void collect_nodes() {
    split_ = mesh_beg == nullptr && nb_nodes > 0;
    if ((mesh_beg == nullptr) != (mesh_end == nullptr)) report(nullptr, "one list end is missing");
    if (split_) {
      for (std::size_t l = 0; l < level_beg.size(); ++l) walk(level_beg[l].next, level_end[l].next);
    } else {
      walk(mesh_beg, mesh_end);
    }
    if (nodes_.size() != static_cast<std::size_t>(nb_nodes))
      report(nullptr, "nb_nodes is ", nb_nodes, ", the list holds ", nodes_.size());
  }

  void walk(const Cell* first, const Cell* last) {
    const Cell* before = nullptr;
    for (const Cell* c = first; c != nullptr; before = c, c = c->next) {
      if (c->prev != before) return report(c, "prev is not the node before it in the list");
      if (!index_.emplace(c, nodes_.size()).second) return report(c, "is in the list twice");
      nodes_.push_back(c);
    }
    if (before != last) report(before, "ends the list, but is not the end given for it");
  }

  // Stretches ascending, their ends where level_beg and level_end say, no others.
  void check_arrays() {
    if (level_beg.size() != level_end.size() ||
        level_beg.size() < static_cast<std::size_t>(level_max) + 1)
      return report(nullptr, "level arrays of ", level_beg.size(), " and ", level_end.size(),
                    " entries for the limit ", level_max);
    std::vector<const Cell*> first(level_beg.size()), last(level_beg.size());
    const Cell* before = nullptr;
    for (const Cell* c : nodes_) {
      if (c->ipos < 0 || c->ipos > level_max) return report(c, "ipos outside 0 to the limit");
      if (before != nullptr && c->ipos < before->ipos) report(c, "stretches do not ascend");
      const auto stretch = static_cast<std::size_t>(c->ipos);
      if (first[stretch] == nullptr) first[stretch] = c;
      last[stretch] = c;
      before = c;
    }
    for (std::size_t l = 0; l < level_beg.size(); ++l) {
      if (level_beg[l].next != first[l]) report(first[l], "level_beg(", l, ") is another node");
      if (level_end[l].next != last[l]) report(last[l], "level_end(", l, ") is another node");
    }
  }

  bool place_nodes() {
    const double x_max = east_boundary_dir->c, y_max = north_boundary_dir->c;
    const double largest =
        std::max({std::abs(x_min), std::abs(x_max), std::abs(y_min), std::abs(y_max)});
    const double tolerance = offset_tolerance + roundings_of_a_coordinate *
                                                    std::numeric_limits<double>::epsilon() *
                                                    largest / dist_0;
    const auto east = to_dyadic((x_max - x_min) / dist_0, tolerance);
    const auto north = to_dyadic((y_max - y_min) / dist_0, tolerance);
    if (!east || east->exponent != 0 || !north || north->exponent != 0) {
      report(nullptr, "the domain is no whole number of dist_0 wide and high");
      return false;
    }
    east_ = east->on_finest();
    north_ = north->on_finest();
    for (const Cell* c : nodes_) {
      const auto x = to_dyadic((c->x - x_min) / dist_0, tolerance);
      const auto y = to_dyadic((c->y - y_min) / dist_0, tolerance);
      if (!x || !y) {
        report(c, "not on the dyadic lattice");
        return false;
      }
      places_.push_back({*x, *y, x->on_finest(), y->on_finest()});
    }
    return true;
  }

  const Place& place(const Cell& c) const { return places_[index_.at(&c)]; }

  void check_node(const Cell& c) {
    const Place& here = place(c);
    if (c.id < 1 || c.id >= next_id) report(&c, "id outside 1 to next_id ", next_id);
    if (!ids_.insert(c.id).second) report(&c, "shares its id");
    if (!taken_.insert({here.fine_x, here.fine_y}).second) report(&c, "shares its place");
    if (c.ipos != closed_form_ipos(here.x, here.y))
      report(&c, "ipos should be ", closed_form_ipos(here.x, here.y));
    if (c.level < 0 || c.level > level_max) report(&c, "level outside 0 to the limit ", level_max);
    if (c.reserve < 1 || c.reserve > 4) report(&c, "reserve outside 1 to 4");
    if (c.data.size() != static_cast<std::size_t>(n_cell_data)) report(&c, "number of data values");
    if (here.fine_x < 0 || here.fine_x > east_ || here.fine_y < 0 || here.fine_y > north_)
      report(&c, "outside the domain");
    const int sides =
        (here.fine_x == 0) + (here.fine_x == east_) + (here.fine_y == 0) + (here.fine_y == north_);
    if (c.on_boundary != sides) report(&c, "on_boundary ", c.on_boundary, " on ", sides, " sides");
    for (int d = 0; d < 8; ++d) check_link(c, here, d);
  }

  void check_link(const Cell& c, const Place& here, int d) {
    const Step& step = steps[d];
    const NeighbourLink link = c.*step.link;
    if (c.*step.level != 1 && c.*step.level != 2) report(&c, "link level of ", step.name);

    const bool leaves = leaves_domain(here, step);
    const NeighbourLink side = leaves && d % 2 == 0 ? side_record(c, d) : NeighbourLink{};
    if ((leaves || link.boundary() != nullptr) && link != side)
      return report(&c, "link ", step.name, " to the wrong side record");
    const Cell* other = link.cell();
    if (other == nullptr) return;
    const auto found = index_.find(other);
    if (found == index_.end()) return report(&c, "link ", step.name, " to no node of the mesh");
    const Place& there = places_[found->second];
    const std::int64_t dx = there.fine_x - here.fine_x, dy = there.fine_y - here.fine_y;
    const std::int64_t length = std::max(std::abs(dx), std::abs(dy));
    if (length == 0 || dx != length * step.x || dy != length * step.y)
      report(&c, "link ", step.name, " leads to node ", other->id, " at (", other->x, ", ",
             other->y, "), which lies elsewhere");
    if ((other->*steps[(d + 4) % 8].link).cell() != &c)
      report(&c, "link ", step.name, " to node ", other->id, " at (", other->x, ", ", other->y,
             ") is not returned");
  }

  bool leaves_domain(const Place& here, const Step& step) const {
    return (step.x > 0 && here.fine_x == east_) || (step.x < 0 && here.fine_x == 0) ||
           (step.y > 0 && here.fine_y == north_) || (step.y < 0 && here.fine_y == 0);
  }

  // What the caller's own choice gives for a straight link across a side.
  static NeighbourLink side_record(const Cell& c, int d) {
    static constexpr const char* names[] = {"North", "East", "South", "West"};
    Boundary* const records[4][3] = {{north_boundary_dir, north_boundary_neu, north_boundary_oth},
                                     {east_boundary_dir, east_boundary_neu, east_boundary_oth},
                                     {south_boundary_dir, south_boundary_neu, south_boundary_oth},
                                     {west_boundary_dir, west_boundary_neu, west_boundary_oth}};
    const std::int32_t kind = bc_type_ptr(c.x, c.y, names[d / 2]);
    return kind < 0 || kind > 2 ? nullptr : records[d / 2][kind];
  }

  void check_reachable() {
    std::vector<bool> seen(nodes_.size());
    std::vector<const Cell*> open = {nodes_.front()};
    std::size_t reached = 1;
    seen[0] = true;
    while (!open.empty()) {
      const Cell* c = open.back();
      open.pop_back();
      for (const Step& step : steps) {
        const auto found = index_.find((c->*step.link).cell());
        if (found == index_.end() || seen[found->second]) continue;
        seen[found->second] = true;
        ++reached;
        open.push_back(found->first);
      }
    }
    for (std::size_t i = 0; i < nodes_.size() && reached < nodes_.size(); ++i)
      if (!seen[i]) report(nodes_[i], "cannot be reached over links");
  }

  bool split_ = false;
  std::vector<const Cell*> nodes_;
  std::vector<Place> places_;
  std::unordered_map<const Cell*, std::size_t> index_;
  std::set<std::int64_t> ids_;
  std::set<std::pair<std::int64_t, std::int64_t>> taken_;
  std::int64_t east_ = 0, north_ = 0;  // upper right corner on the finest lattice
  std::vector<std::string> findings_;
};

}  // namespace

std::vector<std::string> find_faults() { return Checker().run(); }

testing::AssertionResult mesh_is_whole() {
  const auto findings = find_faults();
  if (findings.empty()) return testing::AssertionSuccess();
  auto result = testing::AssertionFailure();
  for (const std::string& finding : findings) result << "\n  " << finding;
  return result;
}

}  // namespace velmar_2d::tests
