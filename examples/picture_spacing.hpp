// What spacing a picture asks for.
#pragma once

#include <vector>

#include "io/velmar_2D_io.hpp"

/// Wanted spacing in pixels, one value a pixel, rows from the top.
///
/// Where brightness (0 to 255) changes by `contrast` or more between opposite neighbours it is
/// `finest`; fainter edges get less; and away from an edge the spacing grows steadily, so that
/// coarse nodes learn of edges that lie between them. Cost: linear in the number of pixels.
std::vector<double> spacing_of_pixels(const velmar_2d::io::Image& image, double finest,
                                      double contrast);
