#pragma once

#include <iterator>

#include "python/gil.hpp"
#include "python/object.hpp"

namespace quernbrook::python {

/// The items of an iterable, by its own iteration. An empty Object has none.
///
///     Items children(sequence);
///     for (const Object& child : children) { ... children.position() ... }
///
/// However long it goes on, signals and other threads have their turns.
class Items {
 public:
  explicit Items(Object iterable);

  /// The next item, or empty at the end.
  Object next();
  /// The position of the item that next() returned last.
  Py_ssize_t position() const noexcept { return next_position_ - 1; }
  /// True for a list or tuple, whose iteration runs no foreign code.
  bool is_plain() const noexcept { return iterator_.empty(); }

  class Iterator {
   public:
    explicit Iterator(Items& items) : items_(items), item_(items.next()) {}
    const Object& operator*() const noexcept { return item_; }
    Iterator& operator++() {
      item_ = items_.next();
      return *this;
    }
    bool operator==(std::default_sentinel_t) const noexcept { return item_.empty(); }

   private:
    Items& items_;
    Object item_;
  };
  Iterator begin() { return Iterator(*this); }
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  Object sequence_;  // walked by index where that is what its iterator does
  Object iterator_;  // else by its iterator
  Py_ssize_t next_position_ = 0;
  Turns turns_;
};

}  // namespace quernbrook::python
