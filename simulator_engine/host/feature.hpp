#pragma once

#include "host/namespace.hpp"

// Looking features up by name in a context.
namespace quernbrook::host {

/// `context.feature_index[name]`; EvaluationError for a name that is not there.
Object feature_position(const Namespace& space, PyObject* context, PyObject* name);

/// The matrix at a position as float64, itself where it already is.
Object feature_matrix(const Namespace& space, PyObject* context, PyObject* position);

}  // namespace quernbrook::host
