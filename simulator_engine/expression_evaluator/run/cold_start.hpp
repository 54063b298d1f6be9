#pragma once

#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// Tops up the windows of restored stateful reductions from the tail of the signals' history.
/// Only the first tick after a restore does this.
void prefill_on_cold_start(Run& run);

}  // namespace quernbrook::evaluation
