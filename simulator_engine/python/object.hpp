#pragma once

#include <Python.h>

#include <utility>

namespace quernbrook::python {

/// Thrown where the C API reports a failure: the Python error indicator is set.
struct ErrorSet {};

/// Lets the last reference go, with whatever code of the host that runs.
void end_object(PyObject* object) noexcept;

/// An owned reference. Empty only by default construction, after a move, or where one of the
/// functions for it met a null pointer.
class Object {
 public:
  Object() noexcept = default;
  Object(const Object& other) noexcept : pointer_(Py_XNewRef(other.pointer_)) {}
  Object(Object&& other) noexcept : pointer_(std::exchange(other.pointer_, nullptr)) {}
  Object& operator=(Object other) noexcept {
    std::swap(pointer_, other.pointer_);
    return *this;
  }
  ~Object() {
    if (pointer_ == nullptr) return;
    if (Py_REFCNT(pointer_) > 1) {
      Py_DECREF(pointer_);
    } else {
      end_object(pointer_);
    }
  }

  /// Takes over a new reference as the C API returns it; null means a Python error is set.
  static Object steal(PyObject* pointer) {
    if (pointer == nullptr) throw ErrorSet{};
    return Object(pointer);
  }
  /// As steal(), for calls whose null is an answer and not a failure.
  static Object steal_or_empty(PyObject* pointer) noexcept { return Object(pointer); }
  /// Adds a reference to a borrowed pointer.
  static Object borrow(PyObject* pointer) noexcept { return Object(Py_XNewRef(pointer)); }
  static Object none() noexcept { return borrow(Py_None); }

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
