#include "expression_evaluator/context_attribute.hpp"

#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;

PyObject* ContextAttribute::get() {
  if (is_read_ && read_at_ == run_.foreign_code_count) return value_;
  value_ = attribute(run_.context, name_);
  if (!is_plain()) ++run_.foreign_code_count;
  is_read_ = is_plain();
  read_at_ = run_.foreign_code_count;
  return value_;
}

}  // namespace quernbrook::evaluation
