#include "python/observations.hpp"

#include <algorithm>

#include "python/protocol.hpp"

namespace quernbrook::python {

#if PY_VERSION_HEX < 0x030B0000

namespace {

/// No two states of any two dicts have the same version.
std::uint64_t dict_version(PyObject* dict) {
  return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
}

}  // namespace

void Observations::note_instance(PyObject* instance) {
  type_ = Py_TYPE(instance);
  type_version_ = version_of(type_);
  PyObject* attributes = dictionary_of(instance);
  notes_.push_back({instance, attributes, dict_version(attributes)});
}

void Observations::note_dict(PyObject* dict) { notes_.push_back({dict, dict, dict_version(dict)}); }

void Observations::note_items(PyObject* sequence) {
  PyObject** first = PySequence_Fast_ITEMS(sequence);
  const Py_ssize_t count = PySequence_Fast_GET_SIZE(sequence);
  notes_.push_back({sequence, nullptr, static_cast<std::uint64_t>(count)});
  items_.insert(items_.end(), first, first + count);
}

bool Observations::hold() const noexcept {
  if (type_ != nullptr) {
    // The instance that was noted first keeps its class alive, if that is still this one.
    if (Py_TYPE(notes_.front().object) != type_) return false;
    if (type_version_ == 0 || version_of(type_) != type_version_) return false;
  }
  auto item = items_.begin();
  for (const Note& note : notes_) {
    if (note.dict == nullptr) {
      const auto count = static_cast<std::uint64_t>(PySequence_Fast_GET_SIZE(note.object));
      const auto last = item + static_cast<std::ptrdiff_t>(note.number);
      if (count != note.number) return false;
      if (!std::equal(item, last, PySequence_Fast_ITEMS(note.object))) return false;
      item = last;
      continue;
    }
    // A list may hold another object at an address that was free in the meantime.
    const bool is_instance = note.object != note.dict;
    if (is_instance && Py_TYPE(note.object) != type_) return false;
    if (is_instance && dictionary_of(note.object) != note.dict) return false;
    if (dict_version(note.dict) != note.number) return false;
  }
  return true;
}

#else

void Observations::note_instance(PyObject*) {}
void Observations::note_dict(PyObject*) {}
void Observations::note_items(PyObject*) {}
bool Observations::hold() const noexcept { return false; }

#endif

}  // namespace quernbrook::python
