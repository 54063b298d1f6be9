#include "expression_evaluator/run/instance_lifecycle.hpp"

#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;

namespace {

bool is_stateful(const Run& run, const Node& node) {
  return truth(attribute(node.instance, run.space.names.stateful));
}

/// Logs the failure of a state and passes it on.
[[noreturn]] void log_state_failure(const Run& run, NodeIndex index) {
  if (!error_matches(PyExc_Exception)) throw ErrorSet{};
  Handling error;
  const host::Names& names = run.space.names;
  const Node& node = run.table.nodes[index];
  const Object log = attribute(run.space.global(names._logger), names.error);
  const Object id = identity(node.instance);
  call_named(log, run.space.state_failure_keywords,
             as_text("expression_evaluator.get_state_failed"), id, run.table.path(run.space, index),
             node.value);
  error.raise_again();
}

/// Runs `body` for every stateful instance, in order.
template <class Body>
void for_each_stateful(const Run& run, Body&& body) {
  for (const NodeIndex index : run.table.functions) {
    const Node& node = run.table.nodes[index];
    if (!is_stateful(run, node)) continue;
    try {
      body(index, node);
    } catch (const ErrorSet&) {
      log_state_failure(run, index);
    }
  }
}

}  // namespace

void deduct_rows_seen(Run& run) {
  if (!compare(run.warmup_rows, integer(0), Py_GT)) return;
  Object rows_seen = integer(0);
  for_each_stateful(run, [&](NodeIndex, const Node& node) {
    const Object count =
        call(run.space.global(run.space.names._get_warmup_count_for_instance), node.instance);
    rows_seen = larger(rows_seen, count);
  });
  const Object rest = minus(run.warmup_rows, rows_seen);
  run.warmup_rows = larger(rest, integer(0));
}

void collect_states(Run& run) {
  run.states = new_dict();
  if (!truth(attribute_or(run.context, run.space.names._collect_states, Py_True))) return;
  for_each_stateful(run, [&](NodeIndex index, const Node& node) {
    const Object state = call_method(node.instance, run.space.names.get_state);
    set_dict_item(run.states, run.table.state_key(run.space, index), state);
  });
}

}  // namespace quernbrook::evaluation
