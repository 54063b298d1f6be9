#include "python/sequence_iterator.hpp"

#include <algorithm>

#include "python/protocol.hpp"

namespace quernbrook::python {

SequenceIterator::SequenceIterator(Object iterable) {
  if (iterable.empty()) return;
  if (PyList_CheckExact(iterable.get()) || PyTuple_CheckExact(iterable.get())) {
    sequence_ = std::move(iterable);
  } else {
    iterator_ = iterator(iterable);
  }
}

Object SequenceIterator::next() {
  Object item;
  if (!iterator_.empty()) {
    item = python::next(iterator_);
  } else if (!sequence_.empty() && next_position_ < PySequence_Fast_GET_SIZE(sequence_.get())) {
    item = Object::share(PySequence_Fast_GET_ITEM(sequence_.get(), next_position_));
  }
  if (!item.empty()) ++next_position_;
  return item;
}

std::size_t SequenceIterator::look_ahead(std::span<Object> items) const {
  if (sequence_.empty()) return 0;
  const Py_ssize_t left = PySequence_Fast_GET_SIZE(sequence_.get()) - next_position_;
  const std::size_t count =
      std::min(items.size(), static_cast<std::size_t>(std::max<Py_ssize_t>(left, 0)));
  for (std::size_t place = 0; place < count; ++place) {
    items[place] = Object::share(
        PySequence_Fast_ITEMS(sequence_.get())[next_position_ + static_cast<Py_ssize_t>(place)]);
  }
  return count;
}

}  // namespace quernbrook::python
