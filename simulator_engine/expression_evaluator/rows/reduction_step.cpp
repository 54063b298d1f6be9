#include "expression_evaluator/rows/reduction_step.hpp"

#include "expression_evaluator/rows/data_nan.hpp"
#include "expression_evaluator/rows/function_output.hpp"
#include "expression_evaluator/signals/signal_pnl.hpp"
#include "expression_evaluator/signals/signal_pool.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;

ReductionStep::ReductionStep(Run& run, const Registers& registers, const RowFunctions& functions)
    : run_(run), registers_(registers), functions_(functions), buffer_(run) {}

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
  int failed = 0;
  quernbrook_failure failure{};
  try {
    const bool is_mean = !is_stateful(node);
    buffer_.check(input);
    if (is_mean) {
      // Stateless reductions never reach their instance: they are the mean of the signals.
      output = buffer_.mean(input);
    } else if (takes_block(index, input, count)) {
      const ReductionKernel& kernel = functions_.of(index).reduction;
      failed = kernel->run(kernel->state, doubles(input), count, run_.columns,
                           pnl.empty() ? nullptr : doubles(pnl), registers_.row(index), &failure);
    } else {
      output = pnl.empty() ? call(node.instance, input)
                           : call_named(node.instance, run_.space.signal_pnl_keyword, input, pnl);
    }
  } catch (const ErrorSet&) {
    raise_function_failure(run_, index, row);
  }
  if (failed != 0) raise_kernel_failure(run_, index, failure, row, 1);
  if (output.empty()) return settle_output(run_, registers_, index, row);
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

/// Whether the node has a kernel and the rows lie as it takes them.
bool ReductionStep::takes_block(NodeIndex index, PyObject* rows, Py_ssize_t count) const {
  return !functions_.of(index).reduction.empty() && is_contiguous_double_array(rows) &&
         dimensions(rows) == 2 && dimension(rows, 0) == count && dimension(rows, 1) == run_.columns;
}

}  // namespace quernbrook::evaluation
