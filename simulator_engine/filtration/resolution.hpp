#pragma once

#include "host/namespace.hpp"

namespace quernbrook::filtration {

/// Runs the filtration library on the context's pool of signals and returns its FiltrationResult.
/// Failures become EvaluationError or FiltrationResolutionError with their diagnostics.
Object resolve_filtration(const Namespace& space, PyObject* context, PyObject* filtration_node);

}  // namespace quernbrook::filtration
