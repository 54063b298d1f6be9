#include "python/error.hpp"

#include "python/call.hpp"

namespace quernbrook::python {
namespace {

void set_error(PyObject* exception) {
  if (!PyExceptionInstance_Check(exception)) {
    PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
    return;
  }
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception)), exception);
}

Object take_pending_error() {
#if PY_VERSION_HEX >= 0x030C0000
  return Object::own(PyErr_GetRaisedException());
#else
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  if (traceback != nullptr) PyException_SetTraceback(value, traceback);
  Py_XDECREF(type);
  Py_XDECREF(traceback);
  return Object::own(value);
#endif
}

void restore_error(Object exception) {
#if PY_VERSION_HEX >= 0x030C0000
  PyErr_SetRaisedException(exception.release());
#else
  PyObject* type = Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(exception.get())));
  PyObject* traceback = PyException_GetTraceback(exception);
  PyErr_Restore(type, exception.release(), traceback);
#endif
}

}  // namespace

void raise(PyObject* type, const Object& message) { raise_object(call(type, message.get())); }

void raise_from(PyObject* type, const Object& message, PyObject* cause) {
  raise_object_from(call(type, message.get()), cause);
}

void raise_object(PyObject* exception) {
  set_error(exception);
  throw ErrorSet{};
}

void raise_object_from(PyObject* exception, PyObject* cause) {
  if (PyExceptionInstance_Check(exception)) PyException_SetCause(exception, Py_NewRef(cause));
  raise_object(exception);
}

void raise_text(PyObject* type, const char* text) {
  PyErr_SetString(type, text);
  throw ErrorSet{};
}

void raise_key_error(PyObject* key) { raise_object(call(PyExc_KeyError, key)); }

Handling::Handling() : value_(take_pending_error()) {
  PyErr_GetExcInfo(&outer_type_, &outer_value_, &outer_traceback_);
  PyErr_SetExcInfo(Py_NewRef(type()), Py_NewRef(value_.get()), PyException_GetTraceback(value_));
}

Handling::~Handling() { PyErr_SetExcInfo(outer_type_, outer_value_, outer_traceback_); }

void Handling::raise_again() {
  restore_error(value_);
  throw ErrorSet{};
}

}  // namespace quernbrook::python
