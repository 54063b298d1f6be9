#include "expression_evaluator/context_attribute.hpp"

#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;

PyObject* ContextAttribute::get() {
  if (!is_current_) {
    value_ = attribute(run_.context, name_);
    is_current_ = has_plain_attribute(Py_TYPE(run_.context.get()), name_);
  }
  return value_;
}

}  // namespace quernbrook::evaluation
