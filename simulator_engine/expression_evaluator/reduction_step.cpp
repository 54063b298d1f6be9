#include "expression_evaluator/reduction_step.hpp"

#include "expression_evaluator/data_nan.hpp"
#include "expression_evaluator/function_output.hpp"
#include "expression_evaluator/signal_pnl.hpp"
#include "expression_evaluator/signal_pool.hpp"
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
  const host::Names& names = run_.space.names;
  const Node& node = run_.table.nodes[index];
  if (!node.is_reduction) raise_missing_path(run_, index);

  Object result = Object::none();
  if (node.filtration_child != graph_prep::no_node) {
    result = filtration_result(run_, node.filtration_child);
  }
  Object passing_ids;
  Py_ssize_t count = 0;
  if (result.is_none()) {
    ++run_.foreign_code_count;  // the filter's, and what the pool has of its own
    passing_ids = sorted_signal_ids(run_, buffer_.useful_signals());
    ++run_.foreign_code_count;
    count = length(passing_ids);
    if (count > 0) buffer_.fill(passing_ids, count, row);
  } else {
    // What the last extraction of this row left is reduced, whichever it was.
    passing_ids = attribute(result, names.passing_ids);
    count = length(passing_ids);
  }
  const Object input = buffer_.first_rows(count);

  if (node.instance.empty()) raise_missing_path(run_, index);
  Object pnl_column = configured_pnl_column(run_, node);
  if (pnl_column.empty()) pnl_column = Object::none();
  const auto is_stateful = [&] { return truth(attribute(node.instance, names.stateful)); };
  if (is_stateful() && !truth(pnl_column)) pnl_column = names.gross_returns;
  Object pnl;
  if (is_stateful() && truth(pnl_column)) {
    pnl = signal_pnl(run_, passing_ids, count, pnl_column, row);
  }

  Object output;
  try {
    output = reduce(node, input, pnl);
  } catch (const ErrorSet&) {
    raise_function_failure(run_, index, row);
  }
  foreign_code_ran(run_, registers_);
  store_output(run_, registers_, index, propagate_data_nan(run_, registers_, index, output), row);
}

/// Stateless reductions never reach their instance: they are the mean of the signals.
Object ReductionStep::reduce(const Node& node, PyObject* input, PyObject* pnl) {
  if (!truth(attribute(node.instance, run_.space.names.stateful))) return buffer_.mean(input);
  buffer_.give_away();
  if (pnl == nullptr) return call(node.instance, input);
  return call_named(node.instance, run_.space.signal_pnl_keyword, input, pnl);
}

}  // namespace quernbrook::evaluation
