#include "expression_evaluator/run/fast_roads.hpp"

#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using host::Names;

namespace {

/// `test(graph, context, function_states, *more, data_nan_features=...)`.
template <class... More>
bool is_open(const Run& run, PyObject* test, PyObject* names, const More&... more) {
  return truth(call_named(run.space.global(test), names, run.graph, run.context,
                          run.function_states, more..., run.data_nan_features));
}

Object evaluate(const Run& run, PyObject* evaluator) {
  return call(run.space.global(evaluator), run.graph, run.context);
}

/// The weights of the first road that yields any; empty if none does.
Object fast_weights(const Run& run) {
  const Names& names = run.space.names;
  PyObject* data_nan = run.space.data_nan_keyword;
  if (is_open(run, names._can_use_leaf_fast_path, data_nan)) {
    return evaluate(run, names._evaluate_leaf_fast);
  }
  if (is_open(run, names._can_use_simple_rank_fast_path, data_nan)) {
    Object weights = evaluate(run, names._evaluate_simple_rank_fast);
    if (!weights.is_none()) return weights;
  }
  if (is_open(run, names._can_use_rank_multiply_fast_path, run.space.rank_multiply_keywords,
              run.bound_argument)) {
    Object weights = evaluate(run, names._evaluate_rank_multiply_fast);
    if (!weights.is_none()) return weights;
  }
  if (is_open(run, names._can_use_longitudinal_fast_path, data_nan, run.row_count)) {
    return evaluate(run, names._evaluate_longitudinal_fast);
  }
  return {};
}

}  // namespace

Object take_fast_road(Run& run) {
  const Object weights = fast_weights(run);
  if (weights.empty()) return {};
  const Object states = new_dict();
  return call(run.space.global(run.space.names.EvaluationResult), weights, states);
}

}  // namespace quernbrook::evaluation
