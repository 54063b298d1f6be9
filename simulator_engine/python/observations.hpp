#pragma once

#include <cstdint>
#include <vector>

#include "python/object.hpp"

namespace quernbrook::python {

/// What was read of some objects, to find out later whether to read them again would give the same.
///
/// Nothing is kept alive. What leads to an object is noted before it: as long as that has not
/// changed, the object is still there.
class Observations {
 public:
  /// Whether dicts tell here that they have changed.
#if PY_VERSION_HEX < 0x030B0000
  static constexpr bool are_possible = true;
#else
  static constexpr bool are_possible = false;
#endif

  /// An instance that is no more than its dictionary. All are of one class, and if there are any,
  /// one of them is noted before anything else.
  void note_instance(PyObject* instance);
  void note_dict(PyObject* dict);
  /// The items of an exact list or tuple.
  void note_items(PyObject* sequence);

  std::size_t size() const noexcept { return notes_.size() + items_.size(); }
  /// True if nothing has changed. What was noted first must still be there.
  bool hold() const noexcept;

 private:
  struct Note {
    PyObject* object;
    PyObject* dict;        // the object itself or an instance's attributes; null for a sequence
    std::uint64_t number;  // the dict's version, or how many items there were
  };

  PyTypeObject* type_ = nullptr;  // of the instances
  unsigned int type_version_ = 0;
  std::vector<Note> notes_;
  std::vector<PyObject*> items_;  // of all sequences
};

}  // namespace quernbrook::python
