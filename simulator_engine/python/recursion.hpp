#pragma once

#include "python/calling_python.hpp"
#include "python/error.hpp"
#include "python/object.hpp"

namespace quernbrook::python {

/// Counts one level against the interpreter's recursion limit, so that endless or very deep
/// structures end in RecursionError, whose text ends in `doing`.
#if PY_VERSION_HEX >= 0x030C0000
// The interpreter's own count of C calls has a limit of its own there, which is fixed.
inline void enter_level(const char* doing) {
  PyThreadState* thread = PyThreadState_Get();
  if (thread->py_recursion_remaining <= 0) {
    raise_format(PyExc_RecursionError, "maximum recursion depth exceeded%s", doing);
  }
  --thread->py_recursion_remaining;
}
inline void leave_level() { ++PyThreadState_Get()->py_recursion_remaining; }
#else
inline void enter_level(const char* doing) {
  checked(calling_python([&] { return Py_EnterRecursiveCall(doing) ? -1 : 0; }));
}
inline void leave_level() { Py_LeaveRecursiveCall(); }
#endif

/// A level that lasts as long as the object. A method in C that calls itself through the object
/// protocol takes one, as a function in Python would: the interpreter's own count of C calls lets
/// more of them nest than a small stack holds.
class RecursionLevel {
 public:
  explicit RecursionLevel(const char* doing) { enter_level(doing); }
  ~RecursionLevel() { leave_level(); }
  RecursionLevel(const RecursionLevel&) = delete;
  RecursionLevel& operator=(const RecursionLevel&) = delete;
};

}  // namespace quernbrook::python
