#pragma once

#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// The result of the first fast road that takes the graph; empty if none does.
Object take_fast_road(Run& run);

}  // namespace quernbrook::evaluation
