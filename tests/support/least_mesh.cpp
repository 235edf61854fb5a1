#include "support/least_mesh.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <vector>

namespace velmar_2d::tests {

Lattice::Lattice(const Mesh& mesh)
    : x_min_(mesh.x_min()),
      y_min_(mesh.y_min()),
      dist_0_(mesh.dist_0()),
      limit_(mesh.limit()),
      last_x_(std::lround((mesh.x_max() - x_min_) / dist_0_) << halvings),
      last_y_(std::lround((mesh.y_max() - y_min_) / dist_0_) << halvings) {}

Positions Lattice::grid() const {
  Positions all;
  for (Position p{0, 0}; p.second <= last_y_; p.second += unit) {
    for (p.first = 0; p.first <= last_x_; p.first += unit) all.insert(p);
  }
  return all;
}

Positions Lattice::of(const Mesh& mesh) const {
  Positions all;
  for (const Cell& c : mesh.nodes()) {
    const Position p{index(c.x - x_min_, dist_0_), index(c.y - y_min_, dist_0_)};
    EXPECT_TRUE(all.insert(p).second) << "twice";
  }
  EXPECT_EQ(all.size(), static_cast<std::size_t>(mesh.size()));
  return all;
}

int Lattice::ipos(Position p) {
  const int x = halvings_of(p.first), y = halvings_of(p.second);
  return x == y ? std::max(0, 2 * x - 1) : 2 * std::max(x, y);
}

Positions Lattice::ring(Position p, int level) const {
  const std::int64_t s = unit >> ((level + 1) / 2);
  const Positions diagonal = {{s, s}, {s, -s}, {-s, s}, {-s, -s}};
  const Positions straight = {{s, 0}, {-s, 0}, {0, s}, {0, -s}};
  Positions members;
  for (const auto& [dx, dy] : level % 2 == 1 ? diagonal : straight) {
    const Position q{p.first + dx, p.second + dy};
    if (q.first >= 0 && q.second >= 0 && q.first <= last_x_ && q.second <= last_y_) {
      members.insert(q);
    }
  }
  return members;
}

int Lattice::wanted_level(const size_function& size, Position p, double margin) const {
  return level_of(own_size(size, p) * std::exp2(-0.5 * margin));
}

Positions Lattice::closure(const Positions& start, const size_function& size) const {
  Positions all = start;
  std::vector<Position> open(start.begin(), start.end());
  while (!open.empty()) {
    const Position p = open.back();
    open.pop_back();
    const int lowest = ipos(p), highest = std::max(lowest, wanted_level(size, p));
    for (int l = std::max(1, lowest); l <= highest; ++l) {
      for (const Position& q : ring(p, l)) {
        if (all.insert(q).second) open.push_back(q);
      }
    }
  }
  return all;
}

Positions Lattice::without_surplus(Positions all, const size_function& size, double margin) const {
  std::vector<std::vector<Position>> by_ipos(2 * halvings + 1);
  std::map<Position, int> nb_resting;
  const Positions before = all;
  const auto keeps = [&](Position p, int l) {
    if (std::isnan(own_size(size, p))) return complete_level(before, p) >= l;
    return wanted_level(size, p, margin) >= l;
  };
  for (const Position& p : all) {
    by_ipos[static_cast<std::size_t>(ipos(p))].push_back(p);
    for (const Position& q : parents(p)) ++nb_resting[q];
  }
  for (int l = 2 * halvings; l > 0; --l) {
    for (const Position& q : by_ipos[static_cast<std::size_t>(l)]) {
      const Positions around = parents(q);
      if (nb_resting[q] > 0 ||
          std::any_of(around.begin(), around.end(), [&](Position p) { return keeps(p, l); })) {
        continue;
      }
      all.erase(q);
      for (const Position& p : around) --nb_resting[p];
    }
  }
  return all;
}

Positions Lattice::least_graded(const size_function& size, double slope) const {
  Positions all = grid();
  for (std::size_t before = 0; before != all.size();) {
    before = all.size();
    std::map<Position, double> graded;
    for (const Position& p : all) graded[p] = own_size(size, p);
    for (bool lowered = true; lowered;) {
      lowered = false;
      for (const Position& p : all) {
        const double way = slope * dist_0_ * std::exp2(-0.5 * ipos(p));
        for (const Position& q : ring(p, ipos(p))) {
          for (const auto& [from, to] : {std::pair{p, q}, std::pair{q, p}}) {
            if (graded[to] <= (graded[from] + way) * (1.0 + 1e-13)) continue;
            graded[to] = graded[from] + way;
            lowered = true;
          }
        }
      }
    }
    for (const auto& [p, h] : graded) {
      for (int l = std::max(1, ipos(p)); l <= std::max(ipos(p), level_of(h)); ++l) {
        all.merge(ring(p, l));
      }
    }
  }
  return all;
}

int Lattice::complete_level(const Positions& all, Position p) const {
  int level = ipos(p);
  const auto is_complete = [&](const Positions& ring) {
    return std::all_of(ring.begin(), ring.end(), [&](Position q) { return all.contains(q); });
  };
  while (is_complete(ring(p, level + 1))) ++level;
  return level;
}

double Lattice::own_size(const size_function& size, Position p) const {
  const double own = size(x_min_ + length(p.first), y_min_ + length(p.second), {}, 0.0, 0.0);
  return own >= 0.0 ? own : std::numeric_limits<double>::quiet_NaN();
}

int Lattice::level_of(double h) const {
  int level = 0;
  while (level < limit_ && h < dist_0_ * std::exp2(-0.5 * level) * (1.0 - 1e-9)) ++level;
  return level;
}

int Lattice::halvings_of(std::int64_t offset) {
  int n = 0;
  while (n < halvings && offset % (unit >> n) != 0) ++n;
  return n;
}

std::int64_t Lattice::index(double offset, double dist_0) {
  const double exact = offset / dist_0 * static_cast<double>(unit);
  EXPECT_NEAR(exact, std::round(exact), 1e-2);
  return std::llround(exact);
}

double Lattice::length(std::int64_t index) const {
  return static_cast<double>(index) / static_cast<double>(unit) * dist_0_;
}

std::string difference(const Positions& mesh, const Positions& expected) {
  std::string text;
  const auto list = [&](const char* title, const Positions& a, const Positions& b) {
    text += title;
    for (const Position& p : a) {
      if (b.contains(p) || text.size() > 1000) continue;
      text += " (" + std::to_string(p.first) + ", " + std::to_string(p.second) + ")ipos " +
              std::to_string(Lattice::ipos(p));
    }
  };
  list("surplus:", mesh, expected);
  list("\nmissing:", expected, mesh);
  return text;
}

bool is_in_order(const Mesh& mesh) {
  const std::vector<Finding> findings = mesh.check();
  for (const Finding& finding : findings) ADD_FAILURE() << finding.rule << ": " << finding.text;
  return findings.empty();
}

size_function near_point(double x, double y, double slope, double finest) {
  return [=](double px, double py, auto...) { return finest + slope * std::hypot(px - x, py - y); };
}

}  // namespace velmar_2d::tests
