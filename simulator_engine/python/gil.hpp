#pragma once

#include <Python.h>

#include <chrono>
#include <optional>
#include <utility>

#include "python/calling_python.hpp"
#include "python/object.hpp"

namespace quernbrook::python {

/// Runs the handlers of signals that have come in, in the thread whose business they are.
inline void check_signals() {
  checked(calling_python([] { return PyErr_CheckSignals(); }));
}

/// Lets other Python threads run while this one computes on plain memory.
///
///     { GilRelease release; kernels::rolling(..., [&] { release.look_at_signals(); }); }
class GilRelease {
 public:
  GilRelease() : state_(PyEval_SaveThread()) {}
  ~GilRelease() {
    if (state_ != nullptr) take_back();
  }
  GilRelease(const GilRelease&) = delete;
  GilRelease& operator=(const GilRelease&) = delete;

  /// To be called every some ten thousand cells of long work. Throws, with the lock taken back,
  /// what the handler of a signal raises.
  void look_at_signals() {
    constexpr std::chrono::milliseconds between_looks{50};
    const auto now = std::chrono::steady_clock::now();
    if (now - last_look_ < between_looks) return;
    last_look_ = now;
    take_back();
    check_signals();
    state_ = PyEval_SaveThread();
  }

 private:
  void take_back() {
    PyThreadState* state = std::exchange(state_, nullptr);
    calling_python([state] { PyEval_RestoreThread(state); });
  }

  PyThreadState* state_;
  std::chrono::steady_clock::time_point last_look_ = std::chrono::steady_clock::now();
};

/// Lets signals and waiting threads have their turns in a long loop that may run no Python code.
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
    check_signals();
    const auto now = std::chrono::steady_clock::now();
    if (!last_) last_ = now;
    if (now - *last_ < turn) return;
    {
      const GilRelease release;
    }
    last_ = std::chrono::steady_clock::now();
  }

 private:
  unsigned calls_ = 0;
  std::optional<std::chrono::steady_clock::time_point> last_;
};

}  // namespace quernbrook::python
