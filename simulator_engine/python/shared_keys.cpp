#include "python/shared_keys.hpp"

#include "python/protocol.hpp"

namespace quernbrook::python {

#if PY_VERSION_HEX < 0x030B0000

Object SharedKeys::item(PyObject* dictionary, PyObject* name) {
  auto* dict = reinterpret_cast<PyDictObject*>(dictionary);
  if (dict->ma_values != nullptr && know(dict)) {
    for (std::size_t place = 0; place < names_.size(); ++place) {
      if (names_[place] == name) return Object::share(dict->ma_values[place]);
    }
  }
  return dict_item(dictionary, name);
}

/// True if the places hold for the dictionary, too. They are learnt once and hold as long as nobody
/// changes the sample: no two states of any two dicts have the same version.
bool SharedKeys::know(PyDictObject* dictionary) {
  if (sample_.empty()) learn(dictionary);
  const auto* sample = reinterpret_cast<PyDictObject*>(sample_.get());
  return sample->ma_version_tag == sample_version_ && dictionary->ma_keys == sample->ma_keys;
}

void SharedKeys::learn(PyDictObject* dictionary) {
  sample_ = Object::share(reinterpret_cast<PyObject*>(dictionary));
  sample_version_ = dictionary->ma_version_tag;
  // The position of a walk over shared keys is the place among the values.
  Py_ssize_t place = 0;
  PyObject* name = nullptr;
  while (static_cast<std::size_t>(place) < names_.size() &&
         PyDict_Next(sample_, &place, &name, nullptr) != 0) {
    names_[static_cast<std::size_t>(place) - 1] = name;
  }
}

#else

Object SharedKeys::item(PyObject* dictionary, PyObject* name) {
  return dict_item(dictionary, name);
}

#endif

}  // namespace quernbrook::python
