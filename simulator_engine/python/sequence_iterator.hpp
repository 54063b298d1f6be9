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
  /// Takes down the next items, as many as there is room for, and returns their number: none at the
  /// end, and always where they are not there to be seen before they are asked for.
  std::size_t look_ahead(std::span<Object> items) const;
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
