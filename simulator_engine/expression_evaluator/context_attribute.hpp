#pragma once

#include "expression_evaluator/run.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

/// An attribute of the run's context that functions may replace between any two calls. It is read
/// each time, except where nobody can tell and no foreign code has run since.
class ContextAttribute {
 public:
  ContextAttribute(Run& run, PyObject* name) : run_(run), name_(name) {}

  /// The value now; it lives until the next call.
  PyObject* get();
  /// True where reading the attribute runs no foreign code.
  bool is_plain() const { return python::has_plain_attribute(Py_TYPE(run_.context.get()), name_); }

 private:
  Run& run_;
  PyObject* name_;
  Object value_;
  bool is_read_ = false;
  std::uint64_t read_at_ = 0;  // the run's count of foreign code then
};

}  // namespace quernbrook::evaluation
