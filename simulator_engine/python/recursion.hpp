#pragma once

#include "python/object.hpp"

namespace quernbrook::python {

/// Counts one level against the interpreter's recursion limit, so that endless or very deep
/// structures end in RecursionError.
inline void enter_level() {
  checked(Py_EnterRecursiveCall(" while walking an expression graph") ? -1 : 0);
}
inline void leave_level() { Py_LeaveRecursiveCall(); }

}  // namespace quernbrook::python
