#include "host/graph_walk.hpp"

#include "python/protocol.hpp"
#include "python/recursion.hpp"
#include "python/text.hpp"

namespace quernbrook::host {

using namespace python;

ChildIterator::ChildIterator(Object children) {
  if (PyList_CheckExact(children.get()) || PyTuple_CheckExact(children.get())) {
    children_ = std::move(children);
  } else {
    iterator_ = iterator(children);
  }
}

Object ChildIterator::next() {
  Object child;
  if (!iterator_.empty()) {
    child = python::next(iterator_);
  } else if (next_position_ < PySequence_Fast_GET_SIZE(children_.get())) {
    child = Object::share(PySequence_Fast_GET_ITEM(children_.get(), next_position_));
  }
  if (!child.empty()) ++next_position_;
  return child;
}

Object ChildPath::text() const { return message(parent_.text(), ".c", position_); }

WalkPath::~WalkPath() {
  while (!positions_.empty()) ascend();
}

void WalkPath::descend(Py_ssize_t position) {
  enter_level();
  positions_.push_back(position);
}

void WalkPath::ascend() noexcept {
  positions_.pop_back();
  leave_level();
}

Object WalkPath::text() const {
  Object text = Object::share(root_path_);
  for (std::size_t level = 1; level < positions_.size(); ++level) {
    text = message(text, ".c", positions_[level]);
  }
  return text;
}

}  // namespace quernbrook::host
