#include "expression_evaluator/call_argument.hpp"

#include <cstring>

namespace quernbrook::evaluation {

using namespace python;

PyObject* CallArgument::copy(const Registers& registers, graph_prep::NodeIndex source) {
  if (!is_untouched(registers.columns(), nullptr)) adopt(empty_vector(registers.columns()));
  std::memcpy(data_, registers.row(source), registers.row_bytes());
  return array_;
}

PyObject* CallArgument::view(const Registers& registers, graph_prep::NodeIndex source) {
  if (!is_untouched(registers.columns(), registers.array())) adopt(registers.view(source));
  return array_;
}

void CallArgument::end_call(PyObject* result) {
  const Py_ssize_t own = array_.get() == result ? 2 : 1;
  if (Py_REFCNT(array_.get()) != own || array_fields(array_)->weakreflist != nullptr) array_ = {};
}

bool CallArgument::is_untouched(npy_intp columns, PyObject* base) const {
  if (array_.empty() || Py_REFCNT(array_.get()) != 1) return false;
  const PyArrayObject_fields* fields = array_fields(array_);
  return fields->weakreflist == nullptr && fields->data == data_ && fields->base == base &&
         fields->flags == flags_ && fields->nd == 1 && fields->dimensions[0] == columns &&
         fields->strides[0] == sizeof(double) && fields->descr == dtype_;
}

void CallArgument::adopt(Object array) {
  array_ = std::move(array);
  data_ = array_fields(array_)->data;
  flags_ = array_fields(array_)->flags;
  dtype_ = array_fields(array_)->descr;
}

}  // namespace quernbrook::evaluation
