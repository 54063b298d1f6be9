#pragma once

#include <cstring>

#include "python/object.hpp"

namespace quernbrook::python {

inline bool is_capsule(PyObject* object) { return PyCapsule_CheckExact(object); }

/// A capsule's name; null where it has none.
inline const char* capsule_name(PyObject* capsule) { return PyCapsule_GetName(capsule); }

/// What the capsule of that name points to; null for a capsule of another name.
inline const void* capsule_pointer(PyObject* capsule, const char* name) {
  if (PyCapsule_IsValid(capsule, name) == 0) return nullptr;
  return PyCapsule_GetPointer(capsule, name);
}

}  // namespace quernbrook::python
