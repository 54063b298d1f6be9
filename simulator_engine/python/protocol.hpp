#pragma once

#include "python/finalization.hpp"
#include "python/object.hpp"

// Python's own operations on any object, with failures thrown.
namespace quernbrook::python {

/// `object.name`.
inline Object attribute(PyObject* object, PyObject* name) {
  return Object::own(entered([&] { return PyObject_GetAttr(object, name); }));
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
  checked(entered([&] { return PyObject_SetAttr(object, name, value); }));
}

/// `bool(object)`.
inline bool truth(PyObject* object) {
  return checked(entered([&] { return PyObject_IsTrue(object); })) != 0;
}
/// `isinstance(object, type)`.
inline bool is_instance(PyObject* object, PyObject* type) {
  return checked(entered([&] { return PyObject_IsInstance(object, type); })) != 0;
}
inline bool is_instance(PyObject* object, PyTypeObject& type) {
  return is_instance(object, reinterpret_cast<PyObject*>(&type));
}
inline bool is_dict(PyObject* object) { return is_instance(object, PyDict_Type); }
inline bool is_str(PyObject* object) { return is_instance(object, PyUnicode_Type); }
inline bool is_tuple(PyObject* object) { return is_instance(object, PyTuple_Type); }

/// `bool(left <operation> right)`, without the short cut for identical objects.
bool compare(PyObject* left, PyObject* right, int operation);
inline bool equal(PyObject* left, PyObject* right) {
  if (left == right && PyUnicode_CheckExact(left)) return true;
  return compare(left, right, Py_EQ);
}
inline bool not_equal(PyObject* left, PyObject* right) { return compare(left, right, Py_NE); }
/// `max(first, second)`.
Object larger(const Object& first, const Object& second);
/// `item in container`.
inline bool contains(PyObject* container, PyObject* item) {
  return checked(entered([&] { return PySequence_Contains(container, item); })) != 0;
}

/// `container[key]`.
inline Object item(PyObject* container, PyObject* key) {
  return Object::own(entered([&] { return PyObject_GetItem(container, key); }));
}
/// `container[key] = value`.
inline void set_item(PyObject* container, PyObject* key, PyObject* value) {
  checked(entered([&] { return PyObject_SetItem(container, key, value); }));
}
/// The value of an exact or derived dict's own table; empty when the key is absent.
Object dict_item(PyObject* dict, PyObject* key);

/// `len(object)`.
inline Py_ssize_t length(PyObject* object) {
  const Py_ssize_t size = entered([&] { return PyObject_Size(object); });
  if (size < 0) throw ErrorSet{};
  return size;
}
inline Object iterator(PyObject* object) {
  return Object::own(entered([&] { return PyObject_GetIter(object); }));
}
/// The next item, or empty at the end.
Object next(PyObject* iterator);
/// The two items of `first, second = pair`.
std::pair<Object, Object> unpack_pair(PyObject* pair);

inline Object integer(Py_ssize_t value) { return Object::own(PyLong_FromSsize_t(value)); }
/// `operator.index(object)` as a machine integer; OverflowError beyond its range.
Py_ssize_t index_value(PyObject* object);

/// `float(object)`.
double as_double(PyObject* object);

/// True where reading the attribute of the type's instances runs no foreign code: it is a look into
/// their dictionaries, and the class itself has nothing to say about the name.
bool has_plain_attribute(PyTypeObject* type, PyObject* name);
/// The attribute where reading it runs no foreign code; empty elsewhere and where it is missing.
Object plain_attribute(PyObject* object, PyObject* name);
/// The dictionary, borrowed, of an object whose type keeps it at a positive offset; null where it
/// has none yet.
inline PyObject* dictionary_of(PyObject* object) {
  return *reinterpret_cast<PyObject**>(reinterpret_cast<char*>(object) +
                                       Py_TYPE(object)->tp_dictoffset);
}

/// The version of a type: it changes whenever the type or a base of it does, and no two types have
/// the same. 0 where it has none at present.
inline unsigned int version_of(PyTypeObject* type) {
  return PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG) ? type->tp_version_tag : 0;
}

/// The entry of `name` on the type or its bases, not bound and borrowed; null when there is none.
PyObject* find_on_type(PyTypeObject* type, PyObject* name);

}  // namespace quernbrook::python
