#pragma once

#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// Executes every node for every time row, children first, and fills the weights.
void run_rows(Run& run);

}  // namespace quernbrook::evaluation
