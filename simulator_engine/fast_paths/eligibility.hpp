#pragma once

#include "host/namespace.hpp"

namespace quernbrook::fast_paths {

/// The constant _LONGITUDINAL_FAST_NAMES: the rotations that the longitudinal road computes.
Object make_longitudinal_names(const Namespace& space);

/// The smallest number of rows for the longitudinal road: below it the functions' own instances
/// are run, so that runs of a normal size keep going through the registry.
inline constexpr Py_ssize_t longitudinal_min_rows = 100000;

/// True for the kinds "feature" and "aggregation".
bool is_leaf_kind(const Namespace& space, PyObject* kind);
/// True for the kinds of a rotation's children that are not its data: "int", "string", "bool".
bool is_literal_kind(const Namespace& space, PyObject* kind);

/// The tests of the roads, and _get_int_window_child.
extern PyMethodDef eligibility_functions[];

}  // namespace quernbrook::fast_paths
