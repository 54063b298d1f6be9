#include "expression_evaluator/context_attribute.hpp"

#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;

PyObject* ContextAttribute::get() {
  if (!is_current_) {
    value_ = attribute(run_.context, name_);
    is_current_ = is_plain();
  }
  return value_;
}

bool ContextAttribute::is_plain() const {
  PyTypeObject* type = Py_TYPE(run_.context.get());
  return reinterpret_cast<PyObject*>(type) == run_.space.context_type &&
         type->tp_getattro == PyObject_GenericGetAttr && find_on_type(type, name_) == nullptr;
}

}  // namespace quernbrook::evaluation
