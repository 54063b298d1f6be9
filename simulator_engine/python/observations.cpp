#include "python/observations.hpp"

#include <algorithm>

#include "python/protocol.hpp"

namespace quernbrook::python {

#if PY_VERSION_HEX < 0x030B0000

namespace {

/// No two states of any two dicts have the same version.
std::uint64_t version_of(PyObject* dict) {
  return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
}

}  // namespace

void Observations::note_instance(PyObject* instance) {
  while (!open_.empty() && open_.back().next == open_.back().end) open_.pop_back();
  // The garbage collector may have run code of the host since the items were noted.
  if (type_ != nullptr && (open_.empty() || items_[open_.back().next++] != instance)) {
    are_sound_ = false;
  }
  type_ = Py_TYPE(instance);
  PyObject* attributes = dictionary_of(instance);
  last_instance_ = notes_.size();
  notes_.push_back({instance, attributes, version_of(attributes)});
}

void Observations::note_dict(PyObject* dict) {
  finish_instance();
  notes_.push_back({dict, dict, version_of(dict)});
}

void Observations::note_items(PyObject* sequence) {
  finish_instance();
  PyObject** first = PySequence_Fast_ITEMS(sequence);
  const Py_ssize_t count = PySequence_Fast_GET_SIZE(sequence);
  notes_.push_back({sequence, nullptr, static_cast<std::uint64_t>(count)});
  items_.insert(items_.end(), first, first + count);
  if (type_ != nullptr)
    open_.push_back({items_.size() - static_cast<std::size_t>(count), items_.size()});
}

void Observations::finish_instance() {
  if (type_ != nullptr && !is_as_noted(notes_[last_instance_])) are_sound_ = false;
}

bool Observations::are_sound() const noexcept {
  const auto were_all_noted = [](const Siblings& siblings) {
    return siblings.next == siblings.end;
  };
  return are_sound_ && std::ranges::all_of(open_, were_all_noted);
}

bool Observations::is_as_noted(const Note& instance) const noexcept {
  return Py_TYPE(instance.object) == type_ && dictionary_of(instance.object) == instance.dict &&
         version_of(instance.dict) == instance.number;
}

bool Observations::hold() const noexcept {
  auto item = items_.begin();
  for (const Note& note : notes_) {
    if (note.dict == nullptr) {
      const auto count = static_cast<std::uint64_t>(PySequence_Fast_GET_SIZE(note.object));
      const auto last = item + static_cast<std::ptrdiff_t>(note.number);
      if (count != note.number) return false;
      if (!std::equal(item, last, PySequence_Fast_ITEMS(note.object))) return false;
      item = last;
    } else if (note.dict == note.object) {
      if (version_of(note.dict) != note.number) return false;
    } else if (!is_as_noted(note)) {
      // A list may hold another object at an address that was free in the meantime.
      return false;
    }
  }
  return true;
}

#else

void Observations::note_instance(PyObject*) {}
void Observations::note_dict(PyObject*) {}
void Observations::note_items(PyObject*) {}
void Observations::finish_instance() {}
bool Observations::are_sound() const noexcept { return false; }
bool Observations::hold() const noexcept { return false; }

#endif

}  // namespace quernbrook::python
