#pragma once

#include "expression_evaluator/rows/registers.hpp"
#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// Checks what a function returned for a row and stores it in the node's register.
void store_output(const Run& run, const Registers& registers, graph_prep::NodeIndex node,
                  PyObject* result, npy_intp row);

/// Turns the pending failure of a guarded call into FunctionExecutionError, with the failure as
/// its cause. What is no Exception passes as it is.
[[noreturn]] void raise_function_failure(const Run& run, graph_prep::NodeIndex node, npy_intp row);

}  // namespace quernbrook::evaluation
