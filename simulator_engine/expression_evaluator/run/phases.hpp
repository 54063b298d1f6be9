#pragma once

#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// Evaluates the graph: the phases of a run, in their order.
Object evaluate_run(Run& run);

}  // namespace quernbrook::evaluation
