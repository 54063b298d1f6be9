#pragma once

#include <Python.h>

#include <chrono>

namespace quernbrook::python {

/// Lets other Python threads run while this one computes on plain memory.
///
///     { const GilRelease release; kernels::rolling(...); }
class GilRelease {
 public:
  GilRelease() : state_(PyEval_SaveThread()) {}
  ~GilRelease() { PyEval_RestoreThread(state_); }
  GilRelease(const GilRelease&) = delete;
  GilRelease& operator=(const GilRelease&) = delete;

 private:
  PyThreadState* state_;
};

/// Lets waiting threads have their turn in a long loop that may run no Python code, as often as the
/// interpreter's own loop does.
class Turns {
 public:
  void offer() {
    constexpr unsigned calls_between_looks = 16;  // at the clock
    constexpr std::chrono::milliseconds switch_interval{5};
    if (++calls_ % calls_between_looks != 0) return;
    if (std::chrono::steady_clock::now() - last_ < switch_interval) return;
    {
      const GilRelease release;
    }
    last_ = std::chrono::steady_clock::now();
  }

 private:
  unsigned calls_ = 0;
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

}  // namespace quernbrook::python
