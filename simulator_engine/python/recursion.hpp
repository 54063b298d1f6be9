#pragma once

#include "python/calling_python.hpp"
#include "python/error.hpp"
#include "python/object.hpp"

namespace quernbrook::python {

/// Counts one level against the interpreter's recursion limit, so that endless or very deep
/// structures end in RecursionError.
#if PY_VERSION_HEX >= 0x030C0000
// The interpreter's own count of C calls has a limit of its own there, which is fixed.
inline void enter_level() {
  PyThreadState* thread = PyThreadState_Get();
  if (thread->py_recursion_remaining <= 0) {
    raise_text(PyExc_RecursionError,
               "maximum recursion depth exceeded while walking an expression graph");
  }
  --thread->py_recursion_remaining;
}
inline void leave_level() { ++PyThreadState_Get()->py_recursion_remaining; }
#else
inline void enter_level() {
  checked(calling_python(
      [] { return Py_EnterRecursiveCall(" while walking an expression graph") ? -1 : 0; }));
}
inline void leave_level() { Py_LeaveRecursiveCall(); }
#endif

}  // namespace quernbrook::python
