#pragma once

#include <cstdint>

#include "python/object.hpp"

namespace quernbrook::python {

/// True if all keys of an exact dict are plain texts: a look-up of one runs no foreign code then.
bool has_string_keys(PyObject* dictionary);

/// The same for a large dict that is asked for again and again, found out anew when it has changed.
class StringKeys {
 public:
  bool of(PyObject* dictionary);

 private:
  PyObject* dictionary_ = nullptr;  // compared only
  std::uint64_t version_ = 0;
  bool has_string_keys_ = false;
};

}  // namespace quernbrook::python
