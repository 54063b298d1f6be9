#pragma once

#include <cstdint>

#include "python/object.hpp"

namespace quernbrook::python {

/// True if all keys of an exact dict are plain texts: a look-up of one runs no foreign code then.
bool has_string_keys(PyObject* dictionary);

/// True if all items of an exact set are plain texts; false where that can't be seen without
/// running foreign code.
bool has_string_items(PyObject* set);

/// plain_attribute() of an object whose own attributes are named by plain texts only: the look-up
/// runs no foreign code for odd keys either. Empty elsewhere.
Object silent_attribute(PyObject* object, PyObject* name);

/// has_string_keys() for a large dict that is asked for again and again, found out anew when it has
/// changed.
class StringKeys {
 public:
  bool of(PyObject* dictionary);

 private:
  PyObject* dictionary_ = nullptr;  // compared only
  std::uint64_t version_ = 0;
  bool has_string_keys_ = false;
};

}  // namespace quernbrook::python
