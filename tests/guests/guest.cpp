// A solver author's first program, built by each guest project in its own way. It fails where the
// header and the library that it was given do not belong together, or where more than the public
// header was handed out.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <velmar_2D/velmar_2D.hpp>
#ifdef GUEST_DRAWS
#include <velmar_2D/velmar_2D_io.hpp>
#endif

#if defined(GUEST_OF_INSTALLED) && __has_include(<velmar_2D/internal.hpp>)
#error "a private header was installed"
#endif

namespace {

velmar_2d::Boundary north{1.0}, east{1.0}, south{0.0}, west{0.0};

int fail(const char* what) {
  std::printf("guest: %s\n", what);
  return 1;
}

}  // namespace

int main() {
  using namespace velmar_2d;
  if (std::strcmp(version(), EXPECTED_VERSION) != 0) return fail(version());

  north_boundary_dir = &north;
  east_boundary_dir = &east;
  south_boundary_dir = &south;
  west_boundary_dir = &west;
  n_cell_data = 2;  // more than fits into the record: allocated here, released by the library
  double y_max = 0.0;
  init_mesh([](double, double, std::string_view) { return bc_type_dir; }, 9, 9, 6, y_max);
  for (int update = 0; update < 4; ++update) {
    update_mesh_init(
        [](double x, double y, std::span<const double>, double, double) {
          return 0.02 + 0.2 * std::abs(std::hypot(x - 0.5, y - 0.5) - 0.3);
        },
        [](double x, double) { return x; });
  }

  int counted = 0;
  for (Cell* node = mesh_beg; node != nullptr; node = node->next) {
    ++counted;
    node->data.resize(3);
    if (node->ipos > 0 && node->data[0] != node->x) return fail("a new node lacks its data");
  }
  if (counted != nb_nodes) return fail("nodes were lost");
  if (nb_nodes <= 9 * 9) return fail("nothing was refined");
#ifdef GUEST_DRAWS
  for (const std::string& error : {io::draw_mesh("guest.svg"), io::write_vtu("guest.vtu")}) {
    if (!error.empty()) return fail(error.c_str());
  }
#endif
  delete_mesh();
  if (nb_nodes != 0) return fail("nodes are left");
  std::printf("guest: %d nodes with velmar_2d %s\n", counted, version());
  return 0;
}
