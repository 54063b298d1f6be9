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

std::span<PyObject* const> SequenceIterator::ahead(std::size_t most) const {
  if (!is_plain()) return {};
  const Py_ssize_t left = PySequence_Fast_GET_SIZE(sequence_.get()) - next_position_;
  if (left <= 0) return {};
  return {PySequence_Fast_ITEMS(sequence_.get()) + next_position_,
          std::min(most, static_cast<std::size_t>(left))};
}

}  // namespace quernbrook::python
