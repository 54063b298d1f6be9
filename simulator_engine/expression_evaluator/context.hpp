#pragma once

#include "host/namespace.hpp"

namespace quernbrook::evaluation {

/// Makes the class EvaluationContext.
Object make_context_class(PyObject* module);

/// Raises EvaluationError at the first feature, universe or signal whose shape does not fit.
void validate_shapes(const Namespace& space, PyObject* features, PyObject* universe,
                     PyObject* useful_signals);

extern PyMethodDef context_functions[];

}  // namespace quernbrook::evaluation
