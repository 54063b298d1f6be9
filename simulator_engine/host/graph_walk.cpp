#include "host/graph_walk.hpp"

#include "python/exact_types.hpp"
#include "python/recursion.hpp"
#include "python/text.hpp"

namespace quernbrook::host {

using namespace python;

namespace {

std::string step_down(Py_ssize_t position) { return ".c" + std::to_string(position); }

}  // namespace

Object child_path(PyObject* parent, Py_ssize_t position) {
  const Object step = as_text(step_down(position));
  return is_exact_text(parent) ? appended(parent, step) : message(parent, step);
}

Object ChildPath::text() const { return child_path(parent_.text(), position_); }

WalkPath::~WalkPath() {
  while (!positions_.empty()) ascend();
}

void WalkPath::descend(Py_ssize_t position) {
  enter_level(" while walking an expression graph");
  positions_.push_back(position);
}

void WalkPath::ascend() noexcept {
  positions_.pop_back();
  if (ends_.size() > positions_.size()) ends_.resize(positions_.size());
  leave_level();
}

Object WalkPath::text() const {
  if (ends_.empty()) ends_.push_back(0);  // the root's
  spelt_.resize(ends_.back());
  for (std::size_t level = ends_.size(); level < positions_.size(); ++level) {
    spelt_ += step_down(positions_[level]);
    ends_.push_back(spelt_.size());
  }
  if (spelt_.empty()) return Object::borrow(root_path_);
  return message(root_path_, as_text(spelt_));
}

}  // namespace quernbrook::host
