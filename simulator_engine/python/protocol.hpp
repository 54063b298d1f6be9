#pragma once

#include "python/calling_python.hpp"
#include "python/exact_types.hpp"
#include "python/object.hpp"

// Python's own operations on any object, with failures thrown.
namespace quernbrook::python {

/// `object.name`.
inline Object attribute(PyObject* object, PyObject* name) {
  return Object::steal(calling_python([&] { return PyObject_GetAttr(object, name); }));
}
/// The attribute, or empty where reading it raises AttributeError.
Object optional_attribute(PyObject* object, PyObject* name);
/// `getattr(object, name, fallback)`.
Object attribute_or(PyObject* object, PyObject* name, PyObject* fallback);
/// `hasattr(object, name)`.
inline bool has_attribute(PyObject* object, PyObject* name) {
  return !optional_attribute(object, name).empty();
}
/// `object.name = value`.
inline void set_attribute(PyObject* object, PyObject* name, PyObject* value) {
  checked(calling_python([&] { return PyObject_SetAttr(object, name, value); }));
}

/// `bool(object)`.
inline bool truth(PyObject* object) {
  return checked(calling_python([&] { return PyObject_IsTrue(object); })) != 0;
}
inline Object boolean(bool value) { return Object::borrow(value ? Py_True : Py_False); }

/// `isinstance(object, type)`.
inline bool is_instance(PyObject* object, PyObject* type) {
  return checked(calling_python([&] { return PyObject_IsInstance(object, type); })) != 0;
}
inline bool is_instance(PyObject* object, PyTypeObject& type) {
  return is_instance(object, reinterpret_cast<PyObject*>(&type));
}
inline bool is_dict(PyObject* object) { return is_instance(object, PyDict_Type); }
inline bool is_str(PyObject* object) { return is_instance(object, PyUnicode_Type); }
inline bool is_tuple(PyObject* object) { return is_instance(object, PyTuple_Type); }
/// `callable(object)`.
inline bool is_callable(PyObject* object) { return PyCallable_Check(object) != 0; }

/// `left <operation> right`, an object of any kind.
inline Object comparison(PyObject* left, PyObject* right, int operation) {
  return Object::steal(
      calling_python([&] { return PyObject_RichCompare(left, right, operation); }));
}
/// `bool(left <operation> right)`, without the short cut for identical objects.
bool compare(PyObject* left, PyObject* right, int operation);
inline bool equal(PyObject* left, PyObject* right) {
  if (left == right && is_exact_text(left)) return true;
  return compare(left, right, Py_EQ);
}
inline bool not_equal(PyObject* left, PyObject* right) { return compare(left, right, Py_NE); }
/// `max(first, second)`.
Object larger(const Object& first, const Object& second);
/// `min(first, second)`.
Object smaller(const Object& first, const Object& second);
/// `item in container`.
inline bool contains(PyObject* container, PyObject* item) {
  return checked(calling_python([&] { return PySequence_Contains(container, item); })) != 0;
}

/// `container[key]`.
inline Object item(PyObject* container, PyObject* key) {
  return Object::steal(calling_python([&] { return PyObject_GetItem(container, key); }));
}
/// `container[key] = value`.
inline void set_item(PyObject* container, PyObject* key, PyObject* value) {
  checked(calling_python([&] { return PyObject_SetItem(container, key, value); }));
}

/// `len(object)`.
inline Py_ssize_t length(PyObject* object) {
  const Py_ssize_t size = calling_python([&] { return PyObject_Size(object); });
  if (size < 0) throw ErrorSet{};
  return size;
}
inline Object iterator(PyObject* object) {
  return Object::steal(calling_python([&] { return PyObject_GetIter(object); }));
}
/// The next item, or empty at the end.
Object next(PyObject* iterator);
/// The two items of `first, second = pair`.
std::pair<Object, Object> unpack_pair(PyObject* pair);

}  // namespace quernbrook::python
