#pragma once

#include "expression_evaluator/registers.hpp"
#include "expression_evaluator/run.hpp"

// Marks of missing data: they start at leaves and precomputed outputs that the caller names, and
// climb to functions whose inputs are all NaN.
namespace quernbrook::evaluation {

/// Marks the leaves of the named features and the nodes with marked precomputed outputs.
void seed_data_nan(Run& run);

/// The output to store for a function node: `result`, or a row of NaNs where the mark climbs.
Object propagate_data_nan(Run& run, const Registers& registers, graph_prep::NodeIndex node,
                          const Object& result);

}  // namespace quernbrook::evaluation
