#pragma once

#include <Python.h>

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

}  // namespace quernbrook::python
