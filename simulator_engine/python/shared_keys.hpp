#pragma once

#include <array>
#include <cstdint>

#include "python/object.hpp"

namespace quernbrook::python {

/// Looks names up in the dictionaries of one class's instances. Most of these share one table of
/// keys and differ in their values only, so that a name stands at the same place in all of them.
class SharedKeys {
 public:
  /// The value of `name` in an instance's dictionary; empty where it has none.
  Object item(PyObject* dictionary, PyObject* name);

 private:
#if PY_VERSION_HEX < 0x030B0000
  bool know(PyDictObject* dictionary);
  void learn(PyDictObject* dictionary);

  Object sample_;  // the dictionary that the places were read from; it keeps the keys alive
  std::uint64_t sample_version_ = 0;
  std::array<PyObject*, 8> names_{};  // by place, borrowed from the keys
#endif
};

}  // namespace quernbrook::python
