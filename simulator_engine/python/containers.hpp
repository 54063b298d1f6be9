#pragma once

#include <array>
#include <concepts>
#include <span>

#include "python/calling_python.hpp"
#include "python/error.hpp"
#include "python/exact_types.hpp"
#include "python/object.hpp"

// The built-in containers: making them, filling them, and looking into exact ones.
namespace quernbrook::python {

inline Object new_dict() {
  return Object::steal(calling_python([] { return PyDict_New(); }));
}
inline Object new_list() {
  return Object::steal(calling_python([] { return PyList_New(0); }));
}
inline Object new_set() {
  return Object::steal(calling_python([] { return PySet_New(nullptr); }));
}

/// `dict(mapping)`, `list(iterable)`, `set(iterable)`, `frozenset(iterable)`.
Object dict_of(PyObject* mapping);
inline Object list_of(PyObject* iterable) {
  return Object::steal(calling_python([&] { return PySequence_List(iterable); }));
}
inline Object set_of(PyObject* iterable) {
  return Object::steal(calling_python([&] { return PySet_New(iterable); }));
}
inline Object frozen_set_of(PyObject* iterable) {
  return Object::steal(calling_python([&] { return PyFrozenSet_New(iterable); }));
}

/// The objects as a tuple.
template <class... Items>
  requires(std::convertible_to<Items, PyObject*> && ...)
Object tuple_of(const Items&... items) {
  return Object::steal(calling_python(
      [&] { return PyTuple_Pack(sizeof...(items), static_cast<PyObject*>(items)...); }));
}
/// The items of an exact list as a tuple.
inline Object tuple_of_list(PyObject* list) {
  return Object::steal(calling_python([&] { return PyList_AsTuple(list); }));
}
/// `tuple(sequence)` of an exact list or tuple.
inline Object tuple_of_sequence(PyObject* sequence) {
  return Object::steal(calling_python([&] { return PySequence_Tuple(sequence); }));
}

/// `argument`, or a new container in the place of None.
inline Object or_new_dict(PyObject* argument) {
  return argument == Py_None ? new_dict() : Object::borrow(argument);
}
inline Object or_new_list(PyObject* argument) {
  return argument == Py_None ? new_list() : Object::borrow(argument);
}

/// `dict[key] = value` in the table of a dict itself.
inline void set_dict_item(PyObject* dict, PyObject* key, PyObject* value) {
  checked(calling_python([&] { return PyDict_SetItem(dict, key, value); }));
}
/// The value in the table of a dict itself; empty when the key is absent.
Object dict_item(PyObject* dict, PyObject* key);
/// A copy of an exact dict.
inline Object copy_of_dict(PyObject* dict) {
  return Object::steal(calling_python([&] { return PyDict_Copy(dict); }));
}
inline Py_ssize_t dict_size(PyObject* dict) { return PyDict_GET_SIZE(dict); }

/// Runs `body(key, value)` for every entry of an exact dict, in order.
template <class Body>
void each_entry(const Object& dict, Body&& body) {
  const Py_ssize_t size = dict_size(dict);
  PyObject* key;
  PyObject* value;
  Py_ssize_t position = 0;
  while (PyDict_Next(dict, &position, &key, &value)) {
    body(Object::borrow(key), Object::borrow(value));
    if (dict_size(dict) != size) {
      raise_text(PyExc_RuntimeError, "dictionary changed size during iteration");
    }
  }
}

inline void append(PyObject* list, PyObject* item) {
  checked(calling_python([&] { return PyList_Append(list, item); }));
}
/// `list.sort()` of an exact list.
inline void sort(PyObject* list) {
  checked(calling_python([&] { return PyList_Sort(list); }));
}
inline void add_to_set(PyObject* set, PyObject* item) {
  checked(calling_python([&] { return PySet_Add(set, item); }));
}
inline Py_ssize_t set_size(PyObject* set) { return PySet_GET_SIZE(set); }

/// The items, borrowed, of an exact list or tuple, until foreign code may run.
inline std::span<PyObject* const> items_of(PyObject* sequence) {
  return {PySequence_Fast_ITEMS(sequence),
          static_cast<std::size_t>(PySequence_Fast_GET_SIZE(sequence))};
}

/// `slice(start, stop)`; null stands for None.
inline Object slice(PyObject* start, PyObject* stop) {
  return Object::steal(calling_python([&] { return PySlice_New(start, stop, nullptr); }));
}

}  // namespace quernbrook::python
