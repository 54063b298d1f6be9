#pragma once

#include <unistd.h>

namespace quernbrook::python {

/// Runs a call into the interpreter.
///
/// An interpreter that is about to end doesn't let daemon threads back in: it has the system unwind
/// their stacks, without the interpreter's lock. No destructor of ours may run then, so that the
/// thread rests here until the process is gone. Whatever may run Python code, wait for the lock or
/// set off the garbage collector is called through this.
template <class Work>
decltype(auto) calling_python(Work&& work) {
  try {
    return work();
  } catch (...) {  // the C API throws nothing else
    while (true) pause();
  }
}

}  // namespace quernbrook::python
