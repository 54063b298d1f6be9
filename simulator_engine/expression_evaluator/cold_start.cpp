#include "expression_evaluator/instance_lifecycle.hpp"
#include "expression_evaluator/matrix_row.hpp"
#include "expression_evaluator/signal_batch.hpp"
#include "expression_evaluator/signal_pnl.hpp"
#include "expression_evaluator/signal_pool.hpp"
#include "expression_evaluator/signal_rows.hpp"
#include "host/state_adapters.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/sequence_iterator.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

namespace {

/// The rows that the restored window is short of; empty where it is full or has no state.
Object missing_rows(const Run& run, NodeIndex index) {
  const host::Names& names = run.space.names;
  const Node& node = run.table.nodes[index];
  const Object key = run.table.state_key(run.space, index);
  if (!contains(run.function_states, key)) return {};
  const Object data = host::function_state_data(run.space, item(run.function_states, key));
  if (!truth(data)) return {};
  const Object count = call_method(data, names.get, names.count, integer(0));
  // Read in every case: an instance without a window cannot be topped up.
  const Object own_window = attribute(node.instance, names.window);
  const Object window = call_method(data, names.get, names.window, own_window);
  if (compare(count, window, Py_GE)) return {};
  return Object::own(PyNumber_Subtract(window, count));
}

/// An unknown column selects the first one, unlike in the row loop.
Object pnl_column_index(const Run& run, const Node& node) {
  const host::Names& names = run.space.names;
  Object column = configured_pnl_column(run, node);
  if (column.empty()) column = names.gross_returns;
  if (!truth(column) || !truth(attribute(run.context, names.column_labels))) return integer(0);
  try {
    return call_method(attribute(run.context, names.column_labels), names.index, column);
  } catch (const ErrorSet&) {
    if (!error_matches(PyExc_ValueError)) throw;
    PyErr_Clear();
    return integer(0);
  }
}

/// The weights of the passing signals in a row, as a new block.
Object extract(const Run& run, PyObject* passing_ids, Py_ssize_t count, npy_intp row) {
  const host::Names& names = run.space.names;
  Object block = zeros(count, run.columns);
  SequenceIterator ids(Object::share(passing_ids));
  const bool is_plain = has_plain_attribute(Py_TYPE(run.context.get()), names.useful_signals);
  const auto pool = [&] { return attribute(run.context, names.useful_signals); };
  const auto ahead = [&] {
    if (is_plain) copy_signal_rows(run, pool(), ids, row, block, nullptr);
  };
  const auto one = [&](PyObject* id) {
    const Object values = item(attribute(item(pool(), id), names.weights), row_key(row));
    set_item(block, row_key(ids.position()), values);
  };
  visit_signals(ids, ahead, one);
  return block;
}

Object pnl_of_row(const Run& run, PyObject* passing_ids, Py_ssize_t count, PyObject* column,
                  npy_intp row) {
  Object pnl = filled_vector(count, 0.0);
  store_pnl_row(run, pnl, passing_ids, column, row);
  return pnl;
}

void prefill(Run& run, NodeIndex index, PyObject* rows_needed) {
  if (!run.table.nodes[index].is_reduction) raise_missing_path(run, index);
  const host::Names& names = run.space.names;
  const Node& node = run.table.nodes[index];
  Object result = Object::none();
  if (node.filtration_child != graph_prep::no_node) {
    result = filtration_result(run, node.filtration_child);
  }
  const Object passing_ids =
      result.is_none() ? sorted_signal_ids(run, attribute(run.context, names.useful_signals))
                       : attribute(result, names.passing_ids);
  const Py_ssize_t count = length(passing_ids);
  const Object column = pnl_column_index(run, node);
  const Object tail = Object::own(PyNumber_Subtract(run.row_count, rows_needed));
  const npy_intp first = index_value(larger(tail, integer(0)));
  for (npy_intp row = first; row < run.rows; ++row) {
    checked(PyErr_CheckSignals());
    const Object pnl = pnl_of_row(run, passing_ids, count, column, row);
    const Object block = extract(run, passing_ids, count, row);
    call_named(node.instance, run.space.signal_pnl_keyword, block, pnl);
  }
}

}  // namespace

void prefill_on_cold_start(Run& run) {
  if (run.function_states.is_none() || !truth(run.is_cold_start)) return;
  for (const NodeIndex index : run.table.functions) {
    const Node& node = run.table.nodes[index];
    if (!truth(attribute(node.instance, run.space.names.stateful)) ||
        !graph_prep::is_kind(run.space, node, NodeKind::reduction)) {
      continue;
    }
    const Object rows_needed = missing_rows(run, index);
    if (!rows_needed.empty()) prefill(run, index, rows_needed);
  }
}

}  // namespace quernbrook::evaluation
