#pragma once

#include "expression_evaluator/context_attribute.hpp"
#include "expression_evaluator/run.hpp"

namespace quernbrook::evaluation {

/// The run's filtration result at the node, resolved when it is first asked for. None where the
/// node is no filtration.
Object filtration_result(Run& run, graph_prep::NodeIndex node);

/// `sorted(useful_signals.keys())`.
Object sorted_signal_ids(const Run& run, PyObject* useful_signals);

}  // namespace quernbrook::evaluation
