#pragma once

#include <Python.h>

#include <utility>

namespace quernbrook::python {

/// Thrown where the C API reports a failure: the Python error indicator is set.
struct ErrorSet {};

/// An owned reference. Empty only by default construction, after a move, or where
/// own_or_empty() met a null pointer.
class Object {
 public:
  Object() noexcept = default;
  Object(const Object& other) noexcept : pointer_(Py_XNewRef(other.pointer_)) {}
  Object(Object&& other) noexcept : pointer_(std::exchange(other.pointer_, nullptr)) {}
  Object& operator=(Object other) noexcept {
    std::swap(pointer_, other.pointer_);
    return *this;
  }
  ~Object() { Py_XDECREF(pointer_); }

  /// Takes over a new reference as the C API returns it; null means a Python error is set.
  static Object own(PyObject* pointer) {
    if (pointer == nullptr) throw ErrorSet{};
    return Object(pointer);
  }
  /// As own(), for calls whose null is an answer and not a failure.
  static Object own_or_empty(PyObject* pointer) noexcept { return Object(pointer); }
  /// Adds a reference to a borrowed pointer.
  static Object share(PyObject* pointer) noexcept { return Object(Py_XNewRef(pointer)); }
  static Object none() noexcept { return share(Py_None); }

  PyObject* get() const noexcept { return pointer_; }
  operator PyObject*() const noexcept { return pointer_; }
  PyObject* release() noexcept { return std::exchange(pointer_, nullptr); }

  bool empty() const noexcept { return pointer_ == nullptr; }
  bool is_none() const noexcept { return pointer_ == Py_None; }

 private:
  explicit Object(PyObject* pointer) noexcept : pointer_(pointer) {}

  PyObject* pointer_ = nullptr;
};

/// Turns the C API's "negative means an error is set" into an exception.
inline int checked(int status) {
  if (status < 0) throw ErrorSet{};
  return status;
}

}  // namespace quernbrook::python
