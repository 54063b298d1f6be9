#pragma once

#include "host/namespace.hpp"

namespace quernbrook::evaluation {

/// Makes the class EvaluationResult.
Object make_result_class(PyObject* module);

}  // namespace quernbrook::evaluation
