#pragma once

#include "expression_evaluator/rows/registers.hpp"
#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// What a function returned for a row, checked, as a vector of N_alloc doubles without gaps.
Object as_row(const Run& run, graph_prep::NodeIndex node, const Object& result, npy_intp row);

/// The steps after a function: what it returned, or NaN where missing data climbs, goes into the
/// node's register once it was checked.
void store_output(Run& run, const Registers& registers, graph_prep::NodeIndex node,
                  const Object& result, npy_intp row);

/// The same for a function that has left its result in the register itself.
void settle_output(Run& run, const Registers& registers, graph_prep::NodeIndex node, npy_intp row);

/// Checks an array that a function returned: its shape against a tuple, which messages show as
/// `spelt`, then its dtype. Raises EvaluationShapeError.
void check_array(const Run& run, graph_prep::NodeIndex node, PyObject* array, PyObject* expected,
                 const Object& spelt, npy_intp row);

/// Turns the pending failure of a guarded call into FunctionExecutionError, with the failure as
/// its cause. What is no Exception passes as it is.
[[noreturn]] void raise_function_failure(const Run& run, graph_prep::NodeIndex node, npy_intp row);

}  // namespace quernbrook::evaluation
