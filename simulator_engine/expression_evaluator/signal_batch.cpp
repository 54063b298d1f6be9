#include "expression_evaluator/signal_batch.hpp"

#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;

namespace {

/// The part of a dict that a look-up reads after the dict itself.
void fetch_table([[maybe_unused]] PyObject* dictionary) {
#if PY_VERSION_HEX < 0x030B0000
  const auto* table = reinterpret_cast<PyDictObject*>(dictionary);
  if (table->ma_values != nullptr) {
    fetch(table->ma_values);
  } else {
    fetch(table->ma_keys);
  }
#endif
}

/// The entry, or empty without an error.
Object find_item(PyObject* dictionary, PyObject* key) {
  PyObject* found = PyDict_GetItemWithError(dictionary, key);
  if (found != nullptr) return Object::share(found);
  PyErr_Clear();
  return {};
}

}  // namespace

bool SignalBatch::find(PyObject* pool, const SequenceIterator& ids) {
  values_.fill({});  // before the ids are seen: what is let go may have a finaliser
  count_ = ids.look_ahead(values_);
  if (count_ == 0 || !PyDict_CheckExact(pool)) return false;
  for (std::size_t place = 0; place < count_; ++place) {
    if (!PyUnicode_CheckExact(values_[place].get())) return false;
    signals_[place] = find_item(pool, values_[place]);
    if (signals_[place].empty()) return false;
    fetch(signals_[place].get());
  }
  return true;
}

bool SignalBatch::take(PyObject* pool, Py_ssize_t& place) {
  PyObject* signal = nullptr;
  for (count_ = 0; count_ < most && PyDict_Next(pool, &place, nullptr, &signal) != 0; ++count_) {
    fetch(signal);
    signals_[count_] = Object::share(signal);
  }
  return count_ > 0;
}

bool SignalBatch::read(PyObject* name) {
  const PyTypeObject* plain = nullptr;
  for (std::size_t place = 0; place < count_; ++place) {
    PyTypeObject* type = Py_TYPE(signals_[place].get());
    if (type != plain && (type->tp_dictoffset <= 0 || !has_plain_attribute(type, name))) {
      return false;
    }
    plain = type;
    PyObject* dictionary = dictionary_of(signals_[place]);
    if (dictionary == nullptr) return false;
    fetch(dictionary);
    values_[place] = Object::share(dictionary);
  }
  for (const Object& dictionary : values()) fetch_table(dictionary);
  for (std::size_t place = 0; place < count_; ++place) {
    values_[place] = find_item(values_[place], name);
    if (values_[place].empty()) return false;
    fetch(values_[place].get());
  }
  return true;
}

}  // namespace quernbrook::evaluation
