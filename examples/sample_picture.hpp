// A small picture to read where the user has none at hand.
#pragma once

#include <string>

/// Paints an evening at the coast (480 by 360 pixels) and writes it as a PNG file.
/// @return nothing on success; otherwise the path and the reason in one line
std::string write_sample_picture(const std::string& path);
