#pragma once

#include "host/namespace.hpp"

namespace quernbrook::fast_paths {

/// The constant _LONGITUDINAL_FAST_NAMES: the rotations that the longitudinal road computes.
Object make_longitudinal_names(const Namespace& space);

/// The smallest number of rows for the longitudinal road: below it the functions' own instances
/// are run, so that runs of a normal size keep going through the registry.
inline constexpr Py_ssize_t longitudinal_min_rows = 100000;

/// The tests of the rank roads and of the longitudinal road, and _get_int_window_child.
extern PyMethodDef eligibility_functions[];

}  // namespace quernbrook::fast_paths
