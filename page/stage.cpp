#include "page/stage.hpp"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <new>

#include "page/waves.hpp"

namespace velmar_2d::page {
namespace {

using Clock = std::chrono::steady_clock;

/// Leaves an update.
struct TooLong {};
struct TooManyNodes {};

std::string with_commas(std::int64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, ",");
  return digits;
}

std::string too_many_nodes(const Scene& scene) {
  return "More than " + with_commas(scene.most_nodes) +
         " nodes would be needed: choose a larger finest spacing, a lower limit or a steeper "
         "slope.";
}

/// Whether one mesh can be led from the first scene to the second.
bool go_on(const Scene& from, const Scene& to) {
  if (from.columns != to.columns || from.rows != to.rows) return false;
  if (from.field != Field::waves && to.field != Field::waves) return true;
  // What was computed depends on the mesh of every frame before.
  if (from.field != to.field || from.finest != to.finest || from.limit != to.limit ||
      from.method != to.method || from.most_nodes != to.most_nodes) {
    return false;
  }
  const auto before = [&](const Scene& scene) {
    return std::count_if(scene.sparks.begin(), scene.sparks.end(),
                         [&](const Spark& spark) { return spark.frame < from.frame; });
  };
  return to.frame >= from.frame && before(from) == before(to);
}

void make_grid(Stage& stage) {
  const Scene& scene = stage.scene;
  stage.mesh.reset();
  const bool waves = scene.field == Field::waves;
  Grid grid{.nx = scene.columns + 1,
            .ny = scene.rows + 1,
            .subdiv_max = scene.limit,
            .n_cell_data = waves ? 2 : 0,
            .bc_type = same_kind(bc_type_neu)};
  stage.mesh.emplace(Rectangle{0.0, scene.width(), 0.0, scene.height()}, grid);
  if (waves) stage.mesh->set_transfer(Transfer::all);
}

/// One update after the rules of the scene. Its time is added to the report's.
void adapt(Stage& stage, Clock::time_point end) {
  Mesh& mesh = *stage.mesh;
  const Scene& scene = stage.scene;
  mesh.set_progress_handler([end](const Progress&) {
    if (Clock::now() > end) throw TooLong{};
  });
  const auto start = Clock::now();
  try {
    if (scene.method == Method::resolve) {
      const double margin = scene.field == Field::waves ? 1.0 : 0.0;
      mesh.resolve_batched(stage.sizes, {.margin = margin, .most_nodes = scene.most_nodes});
    } else {
      NodeHooks hooks;
      hooks.inserted = [&](Cell&, std::span<Cell* const>) {
        if (mesh.size() > scene.most_nodes) throw TooManyNodes{};
      };
      mesh.set_node_hooks(hooks);
      mesh.update_batched(stage.sizes);
    }
  } catch (const TooManyNodes&) {
    stage.report.message = too_many_nodes(scene);
  } catch (const TooLong&) {
    stage.report.message = "This took longer than " +
                           std::to_string(static_cast<int>(longest_work)) +
                           " seconds and was left: the mesh is whole, and not as fine as wanted.";
  } catch (const Error& error) {
    stage.report.message = mesh.size() >= scene.most_nodes ? too_many_nodes(scene) : error.what();
  }
  mesh.set_node_hooks({});
  const std::chrono::duration<double, std::milli> time = Clock::now() - start;
  const UpdateStatistics& now = mesh.statistics();
  UpdateStatistics& sum = stage.report.statistics;
  sum.visited += now.visited;
  sum.inserted += now.inserted;
  sum.removed += now.removed;
  sum.refused = now.refused;
  stage.report.milliseconds += time.count();
}

int updates_for(const Scene& scene) {
  return scene.method == Method::resolve ? 1 : updates_from_the_grid;
}

/// Looks once more at what every node wants.
void survey(Stage& stage) {
  const Mesh& mesh = *stage.mesh;
  const Scene& scene = stage.scene;
  std::vector<const Cell*> nodes;
  nodes.reserve(static_cast<std::size_t>(mesh.size()));
  for (const Cell& c : mesh.nodes()) nodes.push_back(&c);
  std::vector<double> sizes(nodes.size(), HUGE_VAL);
  if (stage.sizes) stage.sizes(nodes, sizes);

  stage.wanted.resize(nodes.size());
  stage.values.resize(nodes.size());
  Report& report = stage.report;
  report.too_coarse = report.at_limit = 0;
  report.highest_level = 0;
  const double widest = std::log2(mesh.dist_0());
  const double range = std::max(1.0, widest - std::log2(std::max(scene.finest, 1e-6)));
  std::array<double, 64> spacings{};
  for (std::size_t l = 0; l < spacings.size(); ++l) {
    spacings[l] = mesh.spacing_of_level(static_cast<std::int32_t>(l));
  }
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const Cell& c = *nodes[i];
    constexpr double rounding = 1e-9;
    const bool wants_more =
        spacings[static_cast<std::size_t>(c.level)] > sizes[i] * (1.0 + rounding) &&
        sizes[i] >= 0.0;
    const bool is_too_coarse = wants_more && c.level < scene.limit;
    report.too_coarse += is_too_coarse ? 1 : 0;
    report.at_limit += wants_more && !is_too_coarse ? 1 : 0;
    report.highest_level = std::max(report.highest_level, c.level);
    stage.wanted[i] = static_cast<float>(is_too_coarse ? -sizes[i] : std::max(0.0, sizes[i]));
    double value = 0.0;
    if (scene.field == Field::waves) {
      value = c.data[0];
    } else if (scene.field == Field::picture && !scene.picture.grey.empty()) {
      const Picture& picture = scene.picture;
      const auto place = [](double share, int count) {
        return static_cast<std::size_t>(std::clamp(share * count, 0.0, count - 1.0));
      };
      value = 1.0 - picture.grey[place(1.0 - c.y / scene.height(), picture.height) *
                                     static_cast<std::size_t>(picture.width) +
                                 place(c.x / scene.width(), picture.width)] /
                        255.0;
    } else {
      value = (widest - std::log2(std::max(sizes[i], 1e-12))) / range;
    }
    stage.values[i] = static_cast<float>(std::isnan(value) ? 0.0 : std::clamp(value, 0.0, 1.0));
  }
}

/// Waves need meshes to begin on, and the meshes need waves.
void begin(Stage& stage, Clock::time_point end) {
  constexpr int rounds = 10;
  for (int i = 0; i < rounds && stage.report.message.empty(); ++i) {
    begin_waves(*stage.mesh);
    adapt(stage, end);
  }
  begin_waves(*stage.mesh);
}

void show_or_throw(Stage& stage, const Scene& scene, bool anew) {
  const auto end = Clock::now() + std::chrono::milliseconds(static_cast<int>(1000 * longest_work));
  const auto pause = Clock::now() + std::chrono::milliseconds(200);
  Report& report = stage.report;
  report = {};
  const bool from_the_grid = anew || !stage.mesh || !go_on(stage.scene, scene);
  int frame = from_the_grid ? 0 : stage.scene.frame;
  stage.scene = scene;
  report.message = make_sizes(scene, stage.sizes);
  if (from_the_grid) make_grid(stage);
  stage.mesh->set_limit(scene.limit);
  if (!report.message.empty()) {
    stage.sizes = {};  // the mesh stays as it is
  } else if (scene.field != Field::waves) {
    const int updates = from_the_grid ? updates_for(scene) : 1;
    for (int i = 0; i < updates && report.message.empty(); ++i) adapt(stage, end);
  } else {
    if (from_the_grid) begin(stage, end);
    for (; frame < scene.frame && report.message.empty(); ++frame) {
      report.statistics = {};
      report.milliseconds = 0.0;
      advance_waves(*stage.mesh, scene, frame);
      adapt(stage, end);
      if (Clock::now() > pause) {  // the frames that are left come with the next call
        ++frame;
        break;
      }
    }
    stage.scene.frame = frame;
  }
  survey(stage);
}

}  // namespace

void show(Stage& stage, const Scene& scene, bool anew) {
  try {
    show_or_throw(stage, scene, anew);
  } catch (const std::bad_alloc&) {
    stage.report.message = "There is no memory left for so many nodes.";
  } catch (const Error& error) {
    stage.report.message = error.what();
  }
}

std::string fingerprint(const Mesh& mesh) {
  std::uint64_t sum = 0;
  for (const Cell& c : mesh.nodes()) {
    // splitmix64
    std::uint64_t hash = 0;
    for (const std::uint64_t part :
         {std::bit_cast<std::uint64_t>(c.x), std::bit_cast<std::uint64_t>(c.y),
          static_cast<std::uint64_t>(c.level)}) {
      hash = (hash ^ part) + 0x9e3779b97f4a7c15;
      hash = (hash ^ (hash >> 30)) * 0xbf58476d1ce4e5b9;
      hash = (hash ^ (hash >> 27)) * 0x94d049bb133111eb;
      hash ^= hash >> 31;
    }
    sum += hash;
  }
  std::array<char, 48> text;
  std::snprintf(text.data(), text.size(), "%lld nodes %016llx", static_cast<long long>(mesh.size()),
                static_cast<unsigned long long>(sum));
  return text.data();
}

}  // namespace velmar_2d::page
