#pragma once

#include "host/namespace.hpp"

namespace quernbrook::evaluation {

/// Makes the class EvaluationContext.
Object make_context_class(PyObject* module);

}  // namespace quernbrook::evaluation
