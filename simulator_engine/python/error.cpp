#include "python/error.hpp"

#include <utility>

#include "python/call.hpp"

namespace quernbrook::python {
namespace {

void set_error(PyObject* exception) {
  if (!PyExceptionInstance_Check(exception)) {
    calling_python(
        [] { PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException"); });
    return;
  }
  calling_python(
      [&] { PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception)), exception); });
}

void restore_error(Object exception) {
#if PY_VERSION_HEX >= 0x030C0000
  calling_python([&] { PyErr_SetRaisedException(exception.release()); });
#else
  PyObject* type = Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(exception.get())));
  PyObject* traceback = PyException_GetTraceback(exception);
  calling_python([&] { PyErr_Restore(type, exception.release(), traceback); });
#endif
}

}  // namespace

Object take_error() {
#if PY_VERSION_HEX >= 0x030C0000
  return Object::steal(calling_python([] { return PyErr_GetRaisedException(); }));
#else
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* traceback = nullptr;
  calling_python([&] {
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    if (traceback != nullptr) PyException_SetTraceback(value, traceback);
  });
  Object::steal_or_empty(type);
  Object::steal_or_empty(traceback);
  return Object::steal(value);
#endif
}

void raise_taken(Object exception) {
  restore_error(std::move(exception));
  throw ErrorSet{};
}

void raise(PyObject* type, const Object& message) { raise_object(call(type, message.get())); }

void raise_from(PyObject* type, const Object& message, PyObject* cause) {
  raise_object_from(call(type, message.get()), cause);
}

void raise_object(PyObject* exception) {
  set_error(exception);
  throw ErrorSet{};
}

void raise_object_from(PyObject* exception, PyObject* cause) {
  if (PyExceptionInstance_Check(exception)) {
    calling_python([&] { PyException_SetCause(exception, Py_NewRef(cause)); });
  }
  raise_object(exception);
}

void raise_text(PyObject* type, const char* text) {
  calling_python([&] { PyErr_SetString(type, text); });
  throw ErrorSet{};
}

void raise_import_error(PyObject* message, PyObject* module, PyObject* file) {
  calling_python([&] { PyErr_SetImportError(message, module, file); });
  throw ErrorSet{};
}

void raise_key_error(PyObject* key) { raise_object(call(PyExc_KeyError, key)); }

namespace {

/// Puts an exception, or none, into the place of the one being handled. It is the current frame's
/// own place: the topmost handled exception may be that of a frame further out.
#if PY_VERSION_HEX >= 0x030B0000
HandledException exchange_handled(HandledException next) {
  return {nullptr, std::exchange(PyThreadState_Get()->exc_info->exc_value, next.value), nullptr};
}
#else
HandledException exchange_handled(HandledException next) {
  _PyErr_StackItem* place = PyThreadState_Get()->exc_info;
  return {std::exchange(place->exc_type, next.type), std::exchange(place->exc_value, next.value),
          std::exchange(place->exc_traceback, next.traceback)};
}
#endif

}  // namespace

Handling::Handling() : value_(take_error()) {
#if PY_VERSION_HEX >= 0x030B0000
  outer_ = exchange_handled({nullptr, Py_NewRef(value_.get()), nullptr});
#else
  outer_ = exchange_handled(
      {Py_NewRef(type()), Py_NewRef(value_.get()), PyException_GetTraceback(value_)});
#endif
}

Handling::~Handling() {
  const HandledException handled = exchange_handled(outer_);
  for (PyObject* part : {handled.type, handled.value, handled.traceback}) {
    Object::steal_or_empty(part);
  }
}

void Handling::raise_again() { raise_taken(value_); }

}  // namespace quernbrook::python
