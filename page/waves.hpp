// Waves in an excitable medium, computed on the mesh that follows them. What burns is the first
// data value, what it leaves behind and has to recover from is the second.
#pragma once

#include "page/scene.hpp"
#include "velmar_2D/mesh.hpp"

namespace velmar_2d::page {

/// Fine where the first value changes.
batch_size_function wave_sizes(const Scene& scene);

/// A broken wave, which will roll up into spirals.
void begin_waves(Mesh& mesh);

/// One picture further: some steps in time, and the sparks of this frame.
void advance_waves(Mesh& mesh, const Scene& scene, int frame);

}  // namespace velmar_2d::page
