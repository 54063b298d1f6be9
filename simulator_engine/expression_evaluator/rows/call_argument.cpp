#include "expression_evaluator/rows/call_argument.hpp"

#include <cstring>

#include "python/array.hpp"

namespace quernbrook::evaluation {

using namespace python;

PyObject* CallArgument::copy(const Registers& registers, graph_prep::NodeIndex source) {
  if (array_.empty()) adopt(empty_vector(registers.columns()));
  std::memcpy(doubles(array_), registers.row(source), registers.row_bytes());
  return array_;
}

PyObject* CallArgument::view(const Registers& registers, graph_prep::NodeIndex source) {
  registers.row(source);
  if (array_.empty()) adopt(registers.view(source));
  return array_;
}

void CallArgument::end_call(PyObject* result) {
  const Py_ssize_t holders = array_.get() == result ? 2 : 1;
  if (!has_no_other_holder(array_, holders) || form_of(array_) != form_) array_ = {};
}

void CallArgument::adopt(Object array) {
  array_ = std::move(array);
  form_ = form_of(array_);
}

}  // namespace quernbrook::evaluation
