#pragma once

#include "python/object.hpp"

namespace quernbrook::python {

/// `raise type(message)`: calls `type` with the one argument and raises what it returns.
[[noreturn]] void raise(PyObject* type, const Object& message);
/// `raise type(message) from cause`.
[[noreturn]] void raise_from(PyObject* type, const Object& message, PyObject* cause);
/// `raise exception`.
[[noreturn]] void raise_object(PyObject* exception);
/// `raise exception from cause`.
[[noreturn]] void raise_object_from(PyObject* exception, PyObject* cause);
/// Raises a built-in exception with a fixed text.
[[noreturn]] void raise_text(PyObject* type, const char* text);
[[noreturn]] void raise_key_error(PyObject* key);

/// True when the pending Python error is an instance of `type`.
inline bool error_matches(PyObject* type) { return PyErr_ExceptionMatches(type) != 0; }

/// The parts of an exception as the interpreter keeps it while it is being handled, owned.
struct HandledException {
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* traceback = nullptr;
};

/// The body of an `except` clause: takes the pending error and makes it the exception being
/// handled, so that errors raised meanwhile carry it as their context.
///
///     try { ... } catch (const ErrorSet&) {
///       if (!error_matches(PyExc_Exception)) throw;
///       Handling error;
///       raise_from(type, message("failed: ", error.value()), error.value());
///     }
class Handling {
 public:
  Handling();
  ~Handling();
  Handling(const Handling&) = delete;
  Handling& operator=(const Handling&) = delete;

  PyObject* value() const noexcept { return value_; }
  PyObject* type() const noexcept { return reinterpret_cast<PyObject*>(Py_TYPE(value_.get())); }
  Object traceback() const { return Object::own_or_empty(PyException_GetTraceback(value_)); }
  /// A bare `raise`: the handled exception goes on, unchanged.
  [[noreturn]] void raise_again();

 private:
  Object value_;
  HandledException outer_;
};

}  // namespace quernbrook::python
