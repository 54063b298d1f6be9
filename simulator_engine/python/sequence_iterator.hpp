#pragma once

#include <span>

#include "python/object.hpp"

namespace quernbrook::python {

/// `enumerate(iterable)`: each item with its position, by the iterable's own iteration. An empty
/// Object has no items.
class SequenceIterator {
 public:
  explicit SequenceIterator(Object iterable);

  /// The next item, or empty at the end.
  Object next();
  /// True where the items are there to be seen before they are asked for, so that next() runs no
  /// foreign code.
  bool is_plain() const noexcept { return !sequence_.empty(); }
  /// The next items of a plain sequence, at most `most`, borrowed; empty at its end, and always
  /// where it isn't plain.
  std::span<PyObject* const> ahead(std::size_t most) const;
  /// Passes over items that were seen ahead.
  void skip(std::size_t count) noexcept { next_position_ += static_cast<Py_ssize_t>(count); }
  /// The position of the item that next() returned last.
  Py_ssize_t position() const noexcept { return next_position_ - 1; }

 private:
  Object sequence_;  // walked by index where that is what its iterator does
  Object iterator_;  // else by its iterator
  Py_ssize_t next_position_ = 0;
};

}  // namespace quernbrook::python
