// Saved meshes: the same to the last bit and for ever after, whole whatever happens to the file.
#include <fcntl.h>
#include <hdf5.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>

#include "support/error_text.hpp"
#include "support/history.hpp"
#include "support/mesh_view.hpp"
#include "velmar_2D/snapshot.hpp"
#include "velmar_2D/velmar_2D_hdf5.hpp"

namespace velmar_2d::tests {
namespace {

namespace fs = std::filesystem;

std::int32_t mixed_kinds(double x, double y, std::string_view side) {
  return static_cast<std::int32_t>(3.0 * scenarios::position_noise(x, y, side.size()));
}

void expect_error(const std::function<void()>& code, std::string_view part) {
  const std::string text = text_of_error(code);
  EXPECT_NE(text.find(part), std::string::npos) << text << "\n    instead of\n" << part;
  EXPECT_EQ(text.find('\n'), std::string::npos) << text;
}

/// A folder of its own, gone at the end.
class Saving : public MeshTest {
 protected:
  void SetUp() override {
    MeshTest::SetUp();
    // In memory, where there is such a place: nothing here is about the disk, which may be slow.
    const fs::path in_memory = "/dev/shm";
    folder_ = (fs::is_directory(in_memory) ? in_memory : fs::temp_directory_path()) /
              ("velmar_2d_saving_" + std::to_string(getpid()));
    fs::create_directory(folder_);
  }
  void TearDown() override {
    fs::remove_all(folder_);
    MeshTest::TearDown();
  }
  std::string path(const std::string& name) const { return (folder_ / name).string(); }
  std::size_t nb_files() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder_), {}));
  }

 private:
  fs::path folder_;
};

size_function ring_at(double t) {
  return scenarios::ring_spacing(scenarios::travelling_ring(t), 0.3, 0.02, 0.5);
}

Mesh ring_mesh(double t, std::int32_t values = 2, std::int32_t limit = 9) {
  Mesh mesh({0.0, 1.0, 0.0, 1.0}, {.nx = 9, .subdiv_max = limit, .n_cell_data = values});
  mesh.update(ring_at(t), [](double x, double y) { return std::sin(9.0 * x) * y; });
  return mesh;
}

std::uint64_t whole_hash(const Mesh& mesh) {
  std::uint64_t h = state_hash(mesh) + mesh.revision();
  for (const Cell& c : mesh.nodes()) h = h * 31 + c.wanted_level;
  return h;
}

/// Does the same to both, in the ways in which a mesh can change, and compares them on the way.
void expect_same_future(Mesh& a, Mesh& b, std::uint64_t seed, int steps) {
  scenarios::Random random{seed};
  const double width = a.x_max() - a.x_min(), height = a.y_max() - a.y_min();
  for (int i = 0; i < steps; ++i) {
    const scenarios::Ring ring{a.x_min() + width * random.uniform(),
                               a.y_min() + height * random.uniform(), 0.3 * width};
    const auto size = scenarios::ring_spacing(ring, 0.4, 0.2 * a.dist_0(), 2.0 * a.dist_0());
    const int what = random.between(0, 4), limit = random.between(2, 6),
              number = random.between(0, 9);
    const bool odd = random.between(0, 1) == 1;
    for (Mesh* mesh : {&a, &b}) {
      if (what <= 1) mesh->update(size);
      if (what == 2) mesh->resolve(size);
      if (what == 3) mesh->set_limit(limit);
      if (what < 4) continue;
      auto node = mesh->nodes().begin();
      for (std::int64_t k = number % mesh->size(); k > 0; --k) ++node;
      const Proposals proposals = mesh->build_vertex(*node);
      for (const Vertex& v : proposals) {
        if ((v.level % 2 == 1) != odd || v.level > mesh->limit()) continue;
        odd ? mesh->insert_node_odd_level(v) : mesh->insert_node_even_level(v);
        break;
      }
    }
    ASSERT_EQ(whole_hash(a), whole_hash(b)) << "step " << i << " of seed " << seed;
  }
}

// Any history, then fifty updates further. Catches a field, counter or flag that is not saved.
TEST_F(Saving, LoadedMeshIsTheSavedOneAndStaysSo) {
  for (std::uint64_t seed = 1; seed <= 24; ++seed) {
    HistoryPlan plan;
    plan.seed = seed;
    plan.steps = seed % 3 == 0 ? Steps::single_nodes : Steps::adapt;
    plan.far_from_origin = seed % 5 == 0;
    plan.by_data = seed % 2 == 0;
    plan.face = seed % 4 == 0 ? Face::free_procedures : Face::object;
    plan.nb_steps = 5;
    History history(plan);
    while (!history.is_over()) history.step();
    Mesh& mesh = history.mesh();
    if (seed % 6 == 0) mesh.resolve(ring_at(0.3));
    if (seed % 7 == 0) mesh.split_sublists();
    mesh.area(*mesh.nodes().begin());
    mesh.nodes().begin()->used = 77;
    const LoadOptions options{.bc_type = mixed_kinds, .check = plan.steps == Steps::adapt};
    Mesh loaded = load_from_memory(save_to_memory(mesh), options);
    EXPECT_EQ(whole_hash(loaded), whole_hash(mesh)) << "seed " << seed;
    EXPECT_EQ(save_to_memory(loaded), save_to_memory(mesh)) << "seed " << seed;
    for (const Direction side : {Direction::north, Direction::east}) {
      EXPECT_EQ(loaded.side_record(side, 1).c, mesh.side_record(side, 1).c);
    }
    if (seed % 7 == 0) {
      for (Mesh* one : {&mesh, &loaded}) one->join_sublists();
    }
    const auto deepest = [limit = mesh.limit()](Mesh& one) {
      const std::string text = text_of_error([&] { one.set_limit(60); });
      one.set_limit(limit);
      return text;
    };
    if (plan.face == Face::object) {
      EXPECT_EQ(deepest(loaded), deepest(mesh)) << "seed " << seed;
    }
    expect_same_future(mesh, loaded, seed, seed == 1 ? 50 : 5);
    history.end();
  }
}

// A front that moves little by little. Catches what a resolve leaves for the next one and what
// values follow: the order in which nodes go shows in values that are conserved.
TEST_F(Saving, EachTransferGoesOnWithTheSameBits) {
  for (const Transfer transfer : {Transfer::first, Transfer::all, Transfer::conservative, Transfer::remap}) {
    Mesh mesh = ring_mesh(0.2, 2, 7);
    mesh.set_transfer(transfer);
    for (Cell& c : mesh.nodes()) c.data[1] = std::cos(20.0 * c.x * c.y);
    mesh.resolve(ring_at(0.2));
    Mesh loaded = load_from_memory(save_to_memory(mesh));
    ASSERT_EQ(loaded.transfer(), transfer);
    for (Mesh* one : {&mesh, &loaded}) {
      for (Cell& c : one->nodes()) c.data[0] = std::tanh(20.0 * (c.x - 0.3 * c.y));
      one->compute_derivatives();  // nodes that are as near are taken in the same order
    }
    ASSERT_EQ(whole_hash(loaded), whole_hash(mesh));
    for (int step = 1; step <= 50; ++step) {
      const auto size = ring_at(0.2 + 0.002 * step);
      for (Mesh* one : {&mesh, &loaded}) step % 10 == 9 ? one->update(size) : one->resolve(size);
      ASSERT_EQ(whole_hash(loaded), whole_hash(mesh)) << "step " << step;
    }
  }
}

TEST_F(Saving, KeepsWhatCallersLeaveInNodesAndRecords) {
  Mesh mesh = ring_mesh(0.2);
  mesh.side_record(Direction::west, bc_type_oth) = {-2.5, bc_type_neu};
  std::int64_t i = 0;
  for (Cell& c : mesh.nodes()) {
    c.data[0] = i % 3 == 0 ? -0.0 : std::nan("7");
    c.data.resize(static_cast<std::size_t>(i++ % 4));
  }
  save(mesh, path("odd.h5"));
  Mesh loaded = load(path("odd.h5"));
  EXPECT_EQ(whole_hash(loaded), whole_hash(mesh));
  EXPECT_EQ(loaded.side_record(Direction::west, bc_type_oth).c, -2.5);
  EXPECT_EQ(loaded.side_record(Direction::west, bc_type_oth).bc_type, bc_type_neu);

  mesh.update([&](double, double, auto...) {
    expect_error([&] { save(mesh, path("odd.h5")); }, "odd.h5: the mesh is in use by update");
    return 1.0;
  });

  // A side need have no record but the Dirichlet one.
  make_grid(4, 3, 5);
  Boundary* const neumann = std::exchange(east_boundary_neu, nullptr);
  loaded = load_from_memory(save_to_memory(default_mesh()));
  east_boundary_neu = neumann;
  EXPECT_EQ(loaded.size(), 12);
  expect_error([&] { loaded.side_record(Direction::east, bc_type_neu); }, "no record of this kind");
}

TEST_F(Saving, TheMeshOfTheFreeProceduresIsLoadedInItsPlace) {
  make_grid(9, 9, 6);
  update_mesh_no_init(scenarios::ring_spacing({4.0, 4.0, 2.0}, 0.4, 0.2, 2.0));
  save(default_mesh(), path("default.h5"));
  Mesh twin = load(path("default.h5"));
  const std::uint64_t saved = whole_hash(twin);
  delete_mesh();
  make_grid(4, 3, 5);
  std::ofstream(path("none.h5")) << "none";
  expect_error([&] { load_default_mesh(path("none.h5")); }, "no HDF5 file");
  const auto in_the_middle = [&](double, double, auto...) {
    expect_error([&] { load_default_mesh(path("default.h5")); }, "in use by update_mesh_no_init");
    return -1.0;
  };
  update_mesh_no_init(in_the_middle);
  EXPECT_EQ(nb_nodes, 12);

  Boundary *const own = east_boundary_dir, *const neumann = east_boundary_neu;
  east_boundary_neu = nullptr;
  load_default_mesh(path("default.h5"));
  EXPECT_TRUE(east_boundary_dir == own && own->c == 8.0);
  EXPECT_EQ(whole_hash(default_mesh()), saved);
  expect_same_future(default_mesh(), twin, 1, 10);
  delete_mesh();
  east_boundary_neu = neumann;
}

TEST_F(Saving, KindsOfSidesAreThoseOfTheNodesUnlessTheyDiffer) {
  const auto kinds = kind_by_side(bc_type_neu, bc_type_dir, bc_type_oth, bc_type_neu);
  Mesh mesh({0.0, 1.0, 0.0, 1.0}, {.nx = 5, .subdiv_max = 6, .bc_type = kinds});
  Mesh loaded = load_from_memory(save_to_memory(mesh));
  expect_same_future(mesh, loaded, 1, 8);
  const Mesh mixed({0.0, 1.0, 0.0, 1.0}, {.nx = 5, .subdiv_max = 6, .bc_type = mixed_kinds});
  expect_error([&] { load_from_memory(save_to_memory(mixed)); }, "'bc_type' must be given");
}

TEST_F(Saving, SeveralMeshesArraysAndSeries) {
  const Mesh coarse = ring_mesh(0.0, 0), fine = ring_mesh(0.5);
  const std::vector<double> u(static_cast<std::size_t>(fine.size()), 1.5), pairs = {1, 2, 3, 4};
  const MeshToSave both[] = {
      {&coarse, {.name = "coarse"}},
      {&fine, {.name = "fine", .arrays = {{"u", u}, {"pairs", pairs, 2}, {"none", {}}}}}};
  save(both, path("two.h5"));
  EXPECT_EQ(whole_hash(load(path("two.h5"), {.name = "coarse"})), whole_hash(coarse));
  EXPECT_EQ(whole_hash(load(path("two.h5"), {.name = "fine"})), whole_hash(fine));
  const std::vector<LoadedArray> arrays = load_arrays(path("two.h5"), {.name = "fine"});
  ASSERT_EQ(arrays.size(), 3U);
  EXPECT_TRUE(arrays[0].name == "none" && arrays[0].values.empty());
  EXPECT_TRUE(arrays[1].name == "pairs" && arrays[1].columns == 2 && arrays[1].values == pairs);
  EXPECT_TRUE(arrays[2].name == "u" && arrays[2].values == u);

  std::vector<std::uint64_t> hashes;
  for (int i = 0; i < 12; ++i) {
    const Mesh mesh = ring_mesh(0.05 * i);
    hashes.push_back(whole_hash(mesh));
    EXPECT_EQ(save_step(mesh, path("run.h5"), 0.5 * i), i);
  }
  expect_error([&] { save_step(fine, path("run.h5"), 5.5); }, "is not above that of the last step");
  EXPECT_EQ(saved_meshes(path("run.h5")).size(), 12U);
  EXPECT_EQ(saved_meshes(path("run.h5"))[3].time, 1.5);
  EXPECT_EQ(whole_hash(load(path("run.h5"))), hashes[11]);
  for (const int i : {0, 4, 11}) {
    EXPECT_EQ(whole_hash(load(path("run.h5"), {.step = i})), hashes[static_cast<std::size_t>(i)]);
    const LoadOptions later{.time = 0.5 * i + 0.25};
    EXPECT_EQ(whole_hash(load(path("run.h5"), later)), hashes[static_cast<std::size_t>(i)]);
  }
  EXPECT_EQ(nb_files(), 2U) << "nothing is left beside";

  expect_error([&] { load(path("run.h5"), {.step = 12}); }, "no step 12 among the 12 steps");
  expect_error([&] { load(path("run.h5"), {.time = -1.0}); }, "begins after the time");
  expect_error([&] { load(path("two.h5")); }, "it holds 'coarse' 'fine'");
  expect_error([&] { load(path("two.h5"), {.name = "fine", .step = 0}); }, "no series");
  expect_error([&] { save_step(fine, path("two.h5"), 1.0, {.name = "fine"}); }, "no series");
  expect_error([&] { save(fine, path("a/b.h5")); }, "No such file or directory");
  expect_error([&] { save(fine, path("c.h5"), {.name = "a/b"}); }, "cannot be a name");
  expect_error(
      [&] {
        save(fine, path("c.h5"), {.arrays = {{"p", u, 1}, {"p", u, 1}}});
      },
      "two arrays have the name 'p'");
  expect_error([&] { save(fine, path("c.h5"), {.arrays = {{"p", pairs, 3}}}); }, "3 columns");
  expect_error([&] { load(path("c.h5")); }, "No such file or directory");
  expect_error([&] { load(path(".")); }, "no regular file");
  EXPECT_EQ(nb_files(), 2U);
}

TEST_F(Saving, GoesWhereThePathLeads) {
  const Mesh mesh = ring_mesh(0.1);
  fs::create_symlink("real.h5", path("link.h5"));
  for (int twice = 0; twice < 2; ++twice) save(mesh, path("link.h5"));
  EXPECT_TRUE(fs::is_symlink(path("link.h5")));
  EXPECT_EQ(whole_hash(load(path("real.h5"))), whole_hash(mesh));
  fs::permissions(path("real.h5"), fs::perms(0640));
  save_step(mesh, path("real.h5"), 0.0, {.name = "series"});
  EXPECT_EQ(fs::status(path("real.h5")).permissions(), fs::perms(0640));
  EXPECT_EQ(saved_meshes(path("link.h5")).size(), 2U);
  EXPECT_NO_THROW(save(mesh, "/dev/null"));
  const Mesh small({0.0, 1.0, 0.0, 1.0}, {.nx = 3, .subdiv_max = 2});
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_NONBLOCK), 0);  // it holds 64 kB
  save(small, "/dev/fd/" + std::to_string(ends[1]));
  std::vector<std::byte> piped(save_to_memory(small).size());
  EXPECT_EQ(read(ends[0], piped.data(), piped.size()), static_cast<ssize_t>(piped.size()));
  EXPECT_EQ(whole_hash(load_from_memory(piped)), whole_hash(small));
  for (const int end : ends) close(end);
  expect_error([&] { save(mesh, "/dev/full"); }, "No space left on device");
}

// Two hundred processes are killed while they save one mesh over the other, every fourth adds
// steps.
TEST_F(Saving, AKillLeavesTheOldFileOrTheNewOne) {
  const Mesh one = ring_mesh(0.0, 2, 2), other = ring_mesh(1.0, 2, 2);
  const std::uint64_t hash_of_one = whole_hash(one), hash_of_other = whole_hash(other);
  ASSERT_NE(hash_of_one, hash_of_other);
  save(one, path("file.h5"));
  save_step(one, path("series.h5"), 0.0);
  int nb_in_the_middle = 0, nb_of_other = 0;
  scenarios::Random random{1};
  for (int kill_number = 0; kill_number < 200; ++kill_number) {
    const pid_t child = fork();
    if (child == 0) {
      for (double time = 1e3 * kill_number + 1.0;; ++time) {
        if (kill_number % 4 == 0) {
          save_step(other, path("series.h5"), time);
        } else {
          save(other, path("file.h5"));
          save(one, path("file.h5"));
        }
      }
    }
    ASSERT_GT(child, 0);
    usleep(static_cast<useconds_t>(random.between(0, 8'000)));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    for (const auto& file : fs::directory_iterator(fs::path(path("x")).parent_path())) {
      if (file.path().extension() != ".part") continue;
      ++nb_in_the_middle;
      fs::remove(file.path());
    }
    const std::uint64_t hash = whole_hash(load(path("file.h5")));
    ASSERT_TRUE(hash == hash_of_one || hash == hash_of_other) << kill_number;
    nb_of_other += hash == hash_of_other ? 1 : 0;
    if (kill_number % 4 != 0) continue;
    const std::uint64_t last = whole_hash(load(path("series.h5")));
    ASSERT_TRUE(last == hash_of_one || last == hash_of_other) << kill_number;
    if (saved_meshes(path("series.h5")).size() > 20) fs::remove(path("series.h5"));
    if (!fs::exists(path("series.h5"))) save_step(one, path("series.h5"), 1e3 * kill_number + 999);
  }
  EXPECT_GT(nb_in_the_middle, 20) << "kills between two files tell nothing";
  EXPECT_GT(nb_of_other, 5);
}

// Whatever happens to the bytes: one clear error, or the very same mesh where they did not matter.
TEST_F(Saving, ADamagedFileIsRefused) {
  const Mesh mesh = ring_mesh(0.4, 2, 3);
  const std::uint64_t hash = whole_hash(mesh);
  const std::vector<double> u(100, 0.1);
  std::vector<std::byte> sound = save_to_memory(mesh, {.arrays = {{"u", u}}});
  scenarios::Random random{7};
  const auto place = [&] {
    // The head of the file is hit as often as the rest.
    const auto size = static_cast<int>(random.between(0, 1) == 0 ? 2048 : sound.size());
    return static_cast<std::size_t>(random.between(0, size - 1));
  };
  int nb_refused = 0;
  testing::internal::CaptureStderr();
  for (int i = 0; i < 1000; ++i) {
    // The last hundred show HDF5 what it is saved from otherwise.
    constexpr std::size_t bytes_of_trailer = 24;
    if (i == 900) sound.resize(sound.size() - bytes_of_trailer);
    std::vector<std::byte> file = sound;
    const int nb_hits = random.between(1, 3);
    switch (i % 4) {
      case 0:
        for (int k = 0; k < nb_hits; ++k) file[place()] ^= std::byte(1 << random.between(0, 7));
        break;
      case 1:
        for (int k = 0; k < nb_hits; ++k) file[place()] = std::byte(random.between(0, 255));
        break;
      case 2: file.resize(place()); break;
      default: {
        const std::size_t from = place(), to = std::min(from + place() / 8 + 1, file.size());
        for (std::size_t k = from; k < to; ++k) file[k] = std::byte(i % 8 == 3 ? 0 : 255);
      }
    }
    try {
      EXPECT_EQ(whole_hash(load_from_memory(file)), hash) << i;
    } catch (const Error& error) {
      ++nb_refused;
      EXPECT_EQ(std::string_view(error.what()).find('\n'), std::string_view::npos) << error.what();
    }
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_GT(nb_refused, 900);
}

/// Replaces an array of a saved mesh by one of another size that holds nothing.
void claim(const std::string& path, const char* name, hid_t type, int rank, const hsize_t* size,
           const hsize_t* chunk) {
  const hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  const hid_t space = H5Screate_simple(rank, size, nullptr);
  const hid_t creation = H5Pcreate(H5P_DATASET_CREATE);
  H5Pset_chunk(creation, rank, chunk);
  H5Pset_shuffle(creation);
  H5Pset_deflate(creation, 1);
  H5Ldelete(file, name, H5P_DEFAULT);
  const hid_t dataset = H5Dcreate2(file, name, type, space, H5P_DEFAULT, creation, H5P_DEFAULT);
  EXPECT_GE(dataset, 0);
  H5Dclose(dataset);
  H5Pclose(creation);
  H5Sclose(space);
  H5Fclose(file);
}

TEST_F(Saving, AbsurdClaimsAreRefusedBeforeMemoryIsTaken) {
  const Mesh mesh = ring_mesh(0.4);
  const auto n = static_cast<hsize_t>(mesh.size());
  const std::string file = path("hostile.h5");
  const auto refuses = [&](const char* name, hid_t type, int rank, std::array<hsize_t, 2> size,
                           std::array<hsize_t, 2> chunk, std::string_view text) {
    save(mesh, file);
    claim(file, name, type, rank, size.data(), chunk.data());
    expect_error([&] { load(file); }, text);
  };
  constexpr hsize_t huge = hsize_t{1} << 60;
  const std::string_view too_much = "claims to hold more than the file can";
  refuses("mesh/x", H5T_IEEE_F64LE, 1, {huge, 1}, {1, 1}, too_much);
  refuses("mesh/x", H5T_IEEE_F64LE, 1, {n, 1}, {n, 1}, too_much);
  refuses("mesh/links", H5T_STD_I32LE, 2, {n, huge}, {n, 1}, too_much);
  refuses("mesh/stretches", H5T_STD_I32LE, 1, {huge, 1}, {1, 1}, too_much);
  refuses("mesh/x", H5T_IEEE_F32LE, 1, {n, 1}, {n, 1}, "of another type");
  refuses("mesh/x", H5T_IEEE_F64LE, 1, {0, 1}, {1, 1}, "another size than the mesh");

  save(mesh, file);
  const hid_t opened = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  const hid_t group = H5Gopen2(opened, "mesh", H5P_DEFAULT);
  const hid_t attribute = H5Aopen(group, "nodes", H5P_DEFAULT);
  const std::int64_t most = std::numeric_limits<std::int32_t>::max();
  EXPECT_GE(H5Awrite(attribute, H5T_NATIVE_INT64, &most), 0);
  H5Aclose(attribute);
  H5Gclose(group);
  H5Fclose(opened);
  expect_error([&] { load(file); }, "another size than the mesh");
  std::ofstream(file) << "no file of ours";
  expect_error([&] { load(file); }, "no HDF5 file");
}

// Arrays that fit together and make no mesh: found out before a node is made, or by the check.
TEST_F(Saving, ArraysThatMakeNoMeshAreRefused) {
  const Mesh mesh = ring_mesh(0.6, 1, 3);
  const detail::Snapshot sound = detail::take_snapshot(mesh);
  scenarios::Random random{3};
  const auto spoil = [&](auto& values) {
    using T = std::remove_reference_t<decltype(values[0])>;
    const auto i = static_cast<std::size_t>(random.between(0, static_cast<int>(values.size()) - 1));
    const T odd[] = {T(0),
                     T(1),
                     T(-1),
                     T(5),
                     T(values[i] + T(1)),
                     T(-2),
                     T(200),
                     std::numeric_limits<T>::max(),
                     std::numeric_limits<T>::lowest(),
                     T(-13)};
    values[i] = odd[random.between(0, 9)];
  };
  int nb_refused = 0;
  for (int i = 0; i < 600; ++i) {
    detail::Snapshot s = sound;
    switch (random.between(0, 12)) {
      case 0: spoil(s.links); break;
      case 1: spoil(s.id); break;
      case 2: spoil(s.x); break;
      case 3: spoil(s.y); break;
      case 4: spoil(s.stretch_sizes); break;
      case 5: spoil(s.level); break;
      case 6: spoil(s.reserve); break;
      case 7: spoil(s.on_boundary); break;
      case 8: s.limit = random.between(-1, 20); break;
      case 9: s.next_id = random.between(0, 1) == 0 ? 5 : -1; break;
      case 10: s.data.pop_back(); break;
      case 11: s.dist_0 *= random.uniform() < 0.5 ? 0.0 : -1.0; break;
      default: s.links.resize(random.next() % s.links.size());
    }
    for (const bool check : {true, false}) {
      try {
        Mesh made = detail::restore(s, {}, check);
        EXPECT_TRUE(!check || made.check().empty());
        // Unchecked it may be no good mesh, but it can be walked, and goes without harm.
        made.split_sublists();
        made.join_sublists();
        EXPECT_NE(whole_hash(made), 0U);
      } catch (const Error&) {
        nb_refused += check ? 1 : 0;
      }
    }
  }
  EXPECT_GT(nb_refused, 400);
}

}  // namespace
}  // namespace velmar_2d::tests
