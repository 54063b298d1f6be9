#pragma once

#include "python/calling_python.hpp"
#include "python/object.hpp"

// Objects of the built-in types themselves, whose operations run no code of the host's.
namespace quernbrook::python {

inline PyTypeObject* type_of(PyObject* object) { return Py_TYPE(object); }

inline bool is_exact_dict(PyObject* object) { return PyDict_CheckExact(object); }
inline bool is_exact_float(PyObject* object) { return PyFloat_CheckExact(object); }
inline bool is_exact_int(PyObject* object) { return PyLong_CheckExact(object); }
inline bool is_exact_set(PyObject* object) { return PySet_CheckExact(object); }
inline bool is_exact_text(PyObject* object) { return PyUnicode_CheckExact(object); }
inline bool is_bool(PyObject* object) { return PyBool_Check(object); }
inline bool is_any_set(PyObject* object) { return PyAnySet_CheckExact(object); }
/// Also objects of classes derived from str.
inline bool is_text(PyObject* object) { return PyUnicode_Check(object); }
inline bool is_type(PyObject* object) { return PyType_Check(object); }
inline PyTypeObject* as_type(PyObject* type) { return reinterpret_cast<PyTypeObject*>(type); }
/// A list or a tuple.
inline bool is_exact_sequence(PyObject* object) {
  return PyList_CheckExact(object) || PyTuple_CheckExact(object);
}

/// Values of which `==`, `hash()` and `float()` run no foreign code.
inline bool is_plain_value(PyObject* object) {
  return is_exact_text(object) || is_exact_int(object) || is_exact_float(object) || is_bool(object);
}

/// `hash(text)` of an exact text.
inline std::size_t text_hash(PyObject* text) {
  return static_cast<std::size_t>(calling_python([&] { return PyObject_Hash(text); }));
}

/// The number of an exact float.
inline double float_value(PyObject* number) { return PyFloat_AS_DOUBLE(number); }

}  // namespace quernbrook::python
