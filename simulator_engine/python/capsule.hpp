#pragma once

#include "python/calling_python.hpp"
#include "python/object.hpp"

namespace quernbrook::python {

inline bool is_capsule(PyObject* object) { return PyCapsule_CheckExact(object); }

/// A capsule's name; null where it has none.
inline const char* capsule_name(PyObject* capsule) {
  return calling_python([&] { return PyCapsule_GetName(capsule); });
}

/// What the capsule of that name points to; null for a capsule of another name.
inline const void* capsule_pointer(PyObject* capsule, const char* name) {
  return calling_python([&]() -> const void* {
    return PyCapsule_IsValid(capsule, name) != 0 ? PyCapsule_GetPointer(capsule, name) : nullptr;
  });
}

}  // namespace quernbrook::python
