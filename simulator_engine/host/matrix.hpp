#pragma once

#include "host/namespace.hpp"

// Conversions of the host's matrices, by NumPy's rules and without a copy where none is needed.
namespace quernbrook::host {

/// `np.asarray(object, dtype=np.float64)`.
Object as_float64(const Namespace& space, PyObject* object);
/// `np.ascontiguousarray(object, dtype=np.float64)`.
Object as_contiguous_float64(const Namespace& space, PyObject* object);

/// Leaves the last row of `weights`, or a row of zeros, in `context.registers`.
void publish_last_row(const Namespace& space, PyObject* context, PyObject* weights);

}  // namespace quernbrook::host
