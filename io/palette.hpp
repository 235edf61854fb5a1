// Colours of a picture.
#pragma once

#include "velmar_2D/velmar_2D_io.hpp"

namespace velmar_2d::io {

/// Red, green and blue from 0 to 1.
struct Colour {
  double red = 0.0, green = 0.0, blue = 0.0;
};

namespace palette {
inline constexpr Colour paper{1.0, 1.0, 1.0};
inline constexpr Colour ink{0.13, 0.15, 0.20};
inline constexpr Colour faint_ink{0.45, 0.48, 0.55};
inline constexpr Colour hairline{0.86, 0.87, 0.90};
}  // namespace palette

/// Colour of a value from 0 to 1 on a scale of even steps to the eye. But for the two-way one,
/// lightness falls all the way, so that it also reads in grey.
Colour on_scale(double value, Palette palette);

/// The i-th of n colours (i from 1) that differ in hue alone.
Colour on_wheel(int i, int n);

/// Colour of a level in a mesh whose levels reach from lowest to highest.
Colour level_colour(int level, int lowest, int highest, Palette palette);

}  // namespace velmar_2d::io
