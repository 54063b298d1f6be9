#include "expression_evaluator/run/cold_start.hpp"

#include "expression_evaluator/signals/extraction_buffer.hpp"
#include "expression_evaluator/signals/signal_pnl.hpp"
#include "expression_evaluator/signals/signal_pool.hpp"
#include "host/state_adapters.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/gil.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

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
  return minus(window, count);
}

/// An unknown column selects the first one, unlike in the row loop.
Object pnl_column_index(const Run& run, const Node& node) {
  const host::Names& names = run.space.names;
  const Object column = pnl_column_of(run, node, names.gross_returns);
  Object index = integer(0);
  if (!truth(column) || !truth(attribute(run.context, names.column_labels))) return index;
  const Object labels = attribute(run.context, names.column_labels);
  attempt({PyExc_ValueError}, [&] { index = call_method(labels, names.index, column); });
  return index;
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
      result.is_none() ? sorted_signal_ids(run) : attribute(result, names.passing_ids);
  const Py_ssize_t count = length(passing_ids);
  const Object column = pnl_column_index(run, node);
  const Object tail = minus(run.row_count, rows_needed);
  const npy_intp first = index_value(larger(tail, integer(0)));
  Turns turns;
  for (npy_intp row = first; row < run.rows; ++row) {
    check_signals();
    turns.offer();
    const Object pnl = pnl_row(run, passing_ids, count, column, row);
    const Object block = extract_block(run, passing_ids, count, row);
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
