#pragma once

#include <Python.h>

#include <chrono>

#include "python/finalization.hpp"

namespace quernbrook::python {

/// Lets other Python threads run while this one computes on plain memory.
///
///     { const GilRelease release; kernels::rolling(...); }
class GilRelease {
 public:
  GilRelease() : state_(PyEval_SaveThread()) {}
  ~GilRelease() {
    entered([this] { PyEval_RestoreThread(state_); });
  }
  GilRelease(const GilRelease&) = delete;
  GilRelease& operator=(const GilRelease&) = delete;

 private:
  PyThreadState* state_;
};

/// Lets waiting threads have their turn in a long loop that may run no Python code.
///
/// A thread that has waited for the interpreter's switch interval, 5 ms by default, asks for its
/// turn, and only then does giving up the interpreter wait until the other has it. Given up more
/// often, it would be back here before the other woke, and the other's wait would begin anew: hence
/// twice the interval.
class Turns {
 public:
  void offer() {
    constexpr unsigned calls_between_looks = 16;  // at the clock
    constexpr std::chrono::milliseconds turn{10};
    if (++calls_ % calls_between_looks != 0) return;
    if (std::chrono::steady_clock::now() - last_ < turn) return;
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
