#include "expression_evaluator/rows/reduction_step.hpp"

#include "expression_evaluator/rows/data_nan.hpp"
#include "expression_evaluator/rows/function_output.hpp"
#include "expression_evaluator/signals/signal_pnl.hpp"
#include "expression_evaluator/signals/signal_pool.hpp"
#include "python/call.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;

ReductionStep::ReductionStep(Run& run, const Registers& registers)
    : run_(run), registers_(registers), buffer_(run) {}

void ReductionStep::run_filtration(NodeIndex node, npy_intp row) {
  const Object result = filtration_result(run_, node);
  if (result.is_none()) return;
  const Object passing_ids = attribute(result, run_.space.names.passing_ids);
  buffer_.fill(passing_ids, length(passing_ids), row);
}

void ReductionStep::run_reduction(NodeIndex index, npy_intp row) {
  const Node& node = run_.table.nodes[index];
  if (!node.is_reduction) raise_missing_path(run_, index);
  const Object passing_ids = passing_ids_of(node, row);
  const Py_ssize_t count = length(passing_ids);
  // What the last extraction of this row left is reduced, whichever it was.
  const Object input = buffer_.first_rows(count);
  if (node.instance.empty()) raise_missing_path(run_, index);
  const Object pnl = pnl_of(node, passing_ids, count, row);
  Object output;
  try {
    output = reduce(node, input, pnl);
  } catch (const ErrorSet&) {
    raise_function_failure(run_, index, row);
  }
  output = run_.data_nan.propagate(run_, registers_, index, output);
  store_output(run_, registers_, index, output, row);
}

/// The signals that pass the node's filter; all of them, extracted here, where it has none.
Object ReductionStep::passing_ids_of(const Node& node, npy_intp row) {
  if (node.filtration_child != graph_prep::no_node) {
    const Object result = filtration_result(run_, node.filtration_child);
    if (!result.is_none()) return attribute(result, run_.space.names.passing_ids);
  }
  Object all_ids = sorted_signal_ids(run_);
  const Py_ssize_t count = length(all_ids);
  if (count > 0) buffer_.fill(all_ids, count, row);
  return all_ids;
}

bool ReductionStep::is_stateful(const Node& node) const {
  return truth(attribute(node.instance, run_.space.names.stateful));
}

/// The signals' PnL for a stateful reduction; empty for others.
Object ReductionStep::pnl_of(const Node& node, PyObject* passing_ids, Py_ssize_t count,
                             npy_intp row) const {
  Object column = pnl_column_of(run_, node, Py_None);
  if (is_stateful(node) && !truth(column)) column = run_.space.names.gross_returns;
  if (!is_stateful(node) || !truth(column)) return {};
  return signal_pnl(run_, passing_ids, count, column, row);
}

/// Stateless reductions never reach their instance: they are the mean of the signals.
Object ReductionStep::reduce(const Node& node, PyObject* input, PyObject* pnl) {
  const bool is_mean = !is_stateful(node);
  buffer_.check(input);
  if (is_mean) return buffer_.mean(input);
  if (pnl == nullptr) return call(node.instance, input);
  return call_named(node.instance, run_.space.signal_pnl_keyword, input, pnl);
}

}  // namespace quernbrook::evaluation
