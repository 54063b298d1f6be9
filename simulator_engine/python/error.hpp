#pragma once

#include <initializer_list>

#include "python/calling_python.hpp"
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
[[noreturn]] void raise_import_error(PyObject* message, PyObject* module, PyObject* file);
/// Raises a built-in exception with a text made by the rules of PyErr_Format.
template <class... Values>
[[noreturn]] void raise_format(PyObject* type, const char* format, Values... values) {
  calling_python([&] { return PyErr_Format(type, format, values...); });
  throw ErrorSet{};
}

/// True when the pending Python error is an instance of `type`.
inline bool error_matches(PyObject* type) { return PyErr_ExceptionMatches(type) != 0; }
/// True when the exception is an instance of `type`, or of one of a tuple of types.
inline bool exception_matches(PyObject* exception, PyObject* type) {
  return PyErr_GivenExceptionMatches(exception, type) != 0;
}
/// Takes the pending error, to be raised later.
Object take_error();
/// Raises what take_error() took, unchanged.
[[noreturn]] void raise_taken(Object exception);
/// Drops the pending error.
inline void clear_error() {
  calling_python([] { PyErr_Clear(); });
}

/// `try: body()` with an `except` clause for the types that drops the exception; whether `body`
/// came to its end.
template <class Body>
bool attempt(std::initializer_list<PyObject*> types, Body&& body) {
  try {
    body();
    return true;
  } catch (const ErrorSet&) {
    for (PyObject* type : types) {
      if (!error_matches(type)) continue;
      clear_error();
      return false;
    }
    throw;
  }
}

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
  Object traceback() const { return Object::steal_or_empty(PyException_GetTraceback(value_)); }
  /// A bare `raise`: the handled exception goes on, unchanged.
  [[noreturn]] void raise_again();

 private:
  Object value_;
  HandledException outer_;
};

}  // namespace quernbrook::python
