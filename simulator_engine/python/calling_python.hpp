#pragma once

#include <unistd.h>

#include <type_traits>

namespace quernbrook::python {

/// Keeps the thread here, should its stack be unwound before the call is back.
class Rest {
 public:
  Rest() = default;
  ~Rest() {
    while (!is_back_) pause();
  }
  Rest(const Rest&) = delete;
  Rest& operator=(const Rest&) = delete;

  void call_is_back() { is_back_ = true; }

 private:
  bool is_back_ = false;
};

/// Runs a call into the interpreter.
///
/// An interpreter that is about to end doesn't let daemon threads back in: it has the system unwind
/// their stacks, without the interpreter's lock. No destructor of ours may run then, so that the
/// thread rests here until the process is gone. It rests in a destructor, not in a handler: what
/// unwinds the stack is no C++ exception, and within another handler one for it would end the
/// process. Whatever may run Python code, wait for the lock or set off the garbage collector is
/// called through this.
template <class Work>
auto calling_python(Work&& work) {
  Rest rest;
  if constexpr (std::is_void_v<decltype(work())>) {
    work();
    rest.call_is_back();
  } else {
    auto result = work();
    rest.call_is_back();
    return result;
  }
}

}  // namespace quernbrook::python
