#pragma once

#include <cstdint>
#include <vector>

#include "python/object.hpp"

namespace quernbrook::python {

/// What was read of some objects, to find out later whether to read them again would give the same.
///
/// Nothing is kept alive. What leads to an object is noted before it and looked at before it: while
/// that is as it was, the object is still there. Instances form a tree, noted depth first: each
/// stands in the sequence of items that was noted for the one above.
class Observations {
 public:
  /// Whether dicts tell here that they have changed.
#if PY_VERSION_HEX < 0x030B0000
  static constexpr bool are_possible = true;
#else
  static constexpr bool are_possible = false;
#endif

  /// An instance that is no more than its dictionary, whose keys are plain texts. All are of one
  /// class.
  void note_instance(PyObject* instance);
  /// A dict, or the items of an exact list or tuple: of the last instance, if there is any.
  void note_dict(PyObject* dict);
  void note_items(PyObject* sequence);
  /// To be called after the last look at an instance.
  void finish_instance();

  /// False if there were changes between the notes: they are of no use then.
  bool are_sound() const noexcept;
  std::size_t bytes() const noexcept {
    return notes_.size() * sizeof(Note) + items_.size() * sizeof(PyObject*);
  }
  /// True if nothing has changed. What was noted first must still be there.
  bool hold() const noexcept;

 private:
  struct Note {
    PyObject* object;
    PyObject* dict;        // the object itself or an instance's attributes; null for a sequence
    std::uint64_t number;  // the dict's version, or how many items there were
  };
  /// The items of a sequence that are still to be noted as instances.
  struct Siblings {
    std::size_t next;
    std::size_t end;
  };

  bool is_as_noted(const Note& instance) const noexcept;

  PyTypeObject* type_ = nullptr;  // of the instances
  std::vector<Note> notes_;
  std::vector<PyObject*> items_;  // of all sequences
  std::vector<Siblings> open_;    // on the way to the last instance
  std::size_t last_instance_ = 0;
  bool are_sound_ = true;
};

}  // namespace quernbrook::python
