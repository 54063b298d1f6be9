#pragma once

#include "expression_evaluator/run.hpp"

namespace quernbrook::evaluation {

/// An attribute of the run's context that functions may replace between any two calls. It is read
/// each time, except where nobody can tell and no foreign code has run since.
class ContextAttribute {
 public:
  ContextAttribute(const Run& run, PyObject* name) : run_(run), name_(name) {}

  /// The value now; it lives until the next call or forget().
  PyObject* get();
  /// Foreign code ran and may have replaced the value.
  void forget() noexcept { is_current_ = false; }

 private:
  const Run& run_;
  PyObject* name_;
  Object value_;
  bool is_current_ = false;
};

}  // namespace quernbrook::evaluation
