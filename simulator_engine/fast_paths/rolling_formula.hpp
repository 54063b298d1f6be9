#pragma once

#include "host/namespace.hpp"

namespace quernbrook::fast_paths {

/// The rolling statistic by NumPy's own operations. It serves windows below 1, for which no kernel
/// is meant: the result or the error is what NumPy makes of its slices.
Object rolling_by_formula(const Namespace& space, PyObject* data, PyObject* out, PyObject* window,
                          bool is_mean, bool is_standard_deviation);

}  // namespace quernbrook::fast_paths
