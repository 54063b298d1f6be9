#pragma once

#include "expression_evaluator/run/run_state.hpp"

// What happens to function instances around the row loop.
namespace quernbrook::evaluation {

/// The rows of warm-up that are left after what the most advanced instance has already seen.
void deduct_rows_seen(Run& run);

/// Collects the states of all stateful instances, unless the host asked for none.
void collect_states(Run& run);

}  // namespace quernbrook::evaluation
