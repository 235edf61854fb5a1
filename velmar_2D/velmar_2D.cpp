// The library-wide state, defined once, and the logarithm that ties levels to spacings.
#include <cmath>

#include "velmar_2D/internal.hpp"

namespace velmar_2d {

Cell *mesh_beg = nullptr, *mesh_end = nullptr;
std::vector<Handle> level_beg, level_end;
std::vector<Handle> tmp_beg, tmp_end;
std::array<std::int32_t, 2> level_range{0, 0};
std::int32_t level_max = -1;
std::int32_t next_id = 1;
std::int32_t nb_nodes = 0;
std::uint64_t mesh_revision = 0;
UpdateStatistics update_statistics;
std::int32_t n_cell_data = 0;
double x_min = 0.0, y_min = 0.0;
double dist_0 = 0.0;
double grad_data = 0.0, grad2_data = 0.0;
bool data_interpolation = true;
init_data_function init_data_ptr;
bc_type_function bc_type_ptr;
text_function fatal_handler, message_handler, pause_handler;

Boundary *north_boundary_dir = nullptr, *north_boundary_neu = nullptr,
         *north_boundary_oth = nullptr;
Boundary *east_boundary_dir = nullptr, *east_boundary_neu = nullptr, *east_boundary_oth = nullptr;
Boundary *south_boundary_dir = nullptr, *south_boundary_neu = nullptr,
         *south_boundary_oth = nullptr;
Boundary *west_boundary_dir = nullptr, *west_boundary_neu = nullptr, *west_boundary_oth = nullptr;

namespace detail {

Domain domain;
bool links_may_be_one_way = false;

double log2(double x) { return std::log(x) / log_of_2; }

double power_of_2(std::int32_t level) {
  if (level < 0 || level > 31) return 0.0;
  return static_cast<std::int32_t>(std::uint32_t{1} << level);
}

}  // namespace detail
}  // namespace velmar_2d
