#include "expression_evaluator/signal_batch.hpp"

#include "python/protocol.hpp"
#include "python/string_keys.hpp"

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

}  // namespace

void SignalBatch::add(PyObject* signal) {
  fetch(signal);
  signals_[count_++] = signal;
}

bool SignalBatch::find(PyObject* pool, std::span<PyObject* const> ids) {
  count_ = 0;
  for (PyObject* id : ids) {
    PyObject* signal = PyUnicode_CheckExact(id) ? PyDict_GetItemWithError(pool, id) : nullptr;
    if (signal == nullptr) return false;
    add(signal);
  }
  return count_ > 0;
}

bool SignalBatch::take(PyObject* pool, Py_ssize_t& place) {
  count_ = 0;
  PyObject* signal = nullptr;
  while (count_ < most && PyDict_Next(pool, &place, nullptr, &signal) != 0) add(signal);
  return count_ > 0;
}

bool SignalBatch::read(PyObject* name) {
  const PyTypeObject* plain = nullptr;
  for (std::size_t place = 0; place < count_; ++place) {
    PyTypeObject* type = Py_TYPE(signals_[place]);
    if (type != plain && (type->tp_dictoffset <= 0 || !has_plain_attribute(type, name))) {
      return false;
    }
    plain = type;
    values_[place] = dictionary_of(signals_[place]);
    if (values_[place] == nullptr) return false;
    fetch(values_[place]);
  }
  for (PyObject* dictionary : values()) fetch_table(dictionary);
  for (std::size_t place = 0; place < count_; ++place) {
    if (!has_string_keys(values_[place])) return false;
    values_[place] = PyDict_GetItemWithError(values_[place], name);
    if (values_[place] == nullptr) return false;
    fetch(values_[place]);
  }
  return true;
}

}  // namespace quernbrook::evaluation
