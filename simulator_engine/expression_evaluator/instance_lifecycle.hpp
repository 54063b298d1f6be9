#pragma once

#include "expression_evaluator/run.hpp"

// What happens to function instances around the row loop.
namespace quernbrook::evaluation {

/// Tops up the windows of restored stateful reductions from the tail of the signals' history.
/// Only the first tick after a restore does this.
void prefill_on_cold_start(Run& run);

/// The rows of warm-up that are left after what the most advanced instance has already seen.
void deduct_rows_seen(Run& run);

/// Collects the states of all stateful instances, unless the host asked for none.
void collect_states(Run& run);

}  // namespace quernbrook::evaluation
