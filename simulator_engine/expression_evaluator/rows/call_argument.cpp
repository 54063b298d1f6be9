#include "expression_evaluator/rows/call_argument.hpp"

#include <cstring>

#include "python/array.hpp"

namespace quernbrook::evaluation {

using namespace python;

PyObject* CallArgument::copy(const Registers& registers, graph_prep::NodeIndex source) {
  if (!is_untouched()) adopt(empty_vector(registers.columns()));
  std::memcpy(doubles(array_), registers.row(source), registers.row_bytes());
  return array_;
}

PyObject* CallArgument::view(const Registers& registers, graph_prep::NodeIndex source) {
  registers.row(source);
  if (!is_untouched()) adopt(registers.view(source));
  return array_;
}

void CallArgument::end_call(PyObject* result) {
  if (!has_no_other_holder(array_, array_.get() == result ? 2 : 1)) array_ = {};
}

bool CallArgument::is_untouched() const {
  return !array_.empty() && has_no_other_holder(array_, 1) && form_of(array_) == form_;
}

void CallArgument::adopt(Object array) {
  array_ = std::move(array);
  form_ = form_of(array_);
}

}  // namespace quernbrook::evaluation
