#include "python/items.hpp"

#include "python/containers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::python {

Items::Items(Object iterable) {
  if (iterable.empty()) return;
  if (is_exact_sequence(iterable)) {
    sequence_ = std::move(iterable);
  } else {
    iterator_ = iterator(iterable);
  }
}

Object Items::next() {
  if (next_position_ > 0) turns_.offer();
  Object item;
  if (!iterator_.empty()) {
    item = python::next(iterator_);
  } else {
    const std::span items = sequence_.empty() ? std::span<PyObject* const>() : items_of(sequence_);
    const auto place = static_cast<std::size_t>(next_position_);
    if (place < items.size()) item = Object::borrow(items[place]);
  }
  if (!item.empty()) ++next_position_;
  return item;
}

}  // namespace quernbrook::python
