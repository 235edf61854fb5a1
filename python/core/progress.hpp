// Long work tells how far it is, and Ctrl-C leaves it.
#pragma once

#include <chrono>

#include "python/core/core.hpp"

namespace velmar_2d::python {

/// Leaves where Ctrl-C was pressed.
inline void heed_signals() {
  const py::gil_scoped_acquire python;
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

/// While this lasts, what changes the mesh can be interrupted, and tells how far it has come.
class ProgressAtHand {
 public:
  /// @param progress  a function, or none
  ProgressAtHand(Mesh& mesh, py::object progress) : mesh_(mesh), progress_(std::move(progress)) {
    // Keys are answered sooner than eyes need to be told.
    constexpr double seconds_between_looks = 0.02;
    mesh.set_progress_handler([this](const Progress& p) { tell(p); }, seconds_between_looks);
  }
  ~ProgressAtHand() { mesh_.set_progress_handler(nullptr); }
  ProgressAtHand(const ProgressAtHand&) = delete;
  ProgressAtHand& operator=(const ProgressAtHand&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  void tell(const Progress& p) {
    constexpr auto between_calls = std::chrono::milliseconds(100);
    heed_signals();
    const auto now = Clock::now();
    if (progress_.is_none() || now - last_ < between_calls) return;
    last_ = now;
    const py::gil_scoped_acquire python;
    progress_(py::str(p.phase.data(), p.phase.size()), p.done, p.known);
  }

  Mesh& mesh_;
  py::object progress_;
  Clock::time_point last_;
};

}  // namespace velmar_2d::python
