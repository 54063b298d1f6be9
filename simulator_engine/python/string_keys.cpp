#include "python/string_keys.hpp"

#include "python/protocol.hpp"

namespace quernbrook::python {

bool has_string_keys(PyObject* dictionary) {
#if PY_VERSION_HEX < 0x030B0000
  // A table shared by the instances of a class has no other keys.
  if (reinterpret_cast<PyDictObject*>(dictionary)->ma_values != nullptr) return true;
#endif
  Py_ssize_t place = 0;
  PyObject* key = nullptr;
  while (PyDict_Next(dictionary, &place, &key, nullptr) != 0) {
    if (!PyUnicode_CheckExact(key)) return false;
  }
  return true;
}

bool has_string_items(PyObject* set) {
#if PY_VERSION_HEX < 0x030B0000
  Py_ssize_t place = 0;
  PyObject* item = nullptr;
  Py_hash_t hash = 0;
  while (_PySet_NextEntry(set, &place, &item, &hash) != 0) {
    if (!PyUnicode_CheckExact(item)) return false;
  }
  return true;
#else
  return PySet_GET_SIZE(set) == 0;
#endif
}

Object silent_attribute(PyObject* object, PyObject* name) {
  if (Py_TYPE(object)->tp_dictoffset <= 0) return {};
  PyObject* attributes = dictionary_of(object);
  if (attributes == nullptr || !has_string_keys(attributes)) return {};
  return plain_attribute(object, name);
}

bool StringKeys::of(PyObject* dictionary) {
  if (!PyDict_CheckExact(dictionary)) return false;
#if PY_VERSION_HEX < 0x030C0000
  // No two states of any two dicts have the same number.
  const std::uint64_t version = reinterpret_cast<PyDictObject*>(dictionary)->ma_version_tag;
  if (dictionary != dictionary_ || version != version_) {
    has_string_keys_ = has_string_keys(dictionary);
    dictionary_ = dictionary;
    version_ = version;
  }
  return has_string_keys_;
#else
  return has_string_keys(dictionary);
#endif
}

}  // namespace quernbrook::python
