#pragma once

#include "python/call.hpp"
#include "python/error.hpp"

namespace quernbrook::python {

/// The two methods of a context manager, found on its type as the `with` statement finds them.
class ContextManager {
 public:
  ContextManager(PyObject* manager, PyObject* enter_name, PyObject* exit_name);

  void enter();
  void leave();
  /// Leaves with the exception being handled; true if the manager swallows it.
  bool leave_with(const Handling& error);

 private:
  bool exit(PyObject* type, PyObject* value, PyObject* traceback);

  Object exit_;
  Object enter_;
  // Made before the manager is entered: a lock must not stay taken for want of memory.
  Object exit_arguments_;
};

/// `with manager: return body()`. None where the manager swallows an exception of the body. The
/// names are "__enter__" and "__exit__", interned.
template <class Body>
Object with(PyObject* manager, PyObject* enter_name, PyObject* exit_name, Body&& body) {
  ContextManager context(manager, enter_name, exit_name);
  context.enter();
  Object result;
  try {
    result = body();
  } catch (const ErrorSet&) {
    Handling error;
    if (context.leave_with(error)) return Object::none();
    error.raise_again();
  }
  context.leave();
  return result;
}

}  // namespace quernbrook::python
