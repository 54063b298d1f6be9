#include "expression_evaluator/signal_pool.hpp"

#include "filtration/resolution.hpp"
#include "python/call.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::NodeIndex;

Object filtration_result(Run& run, NodeIndex node) {
  if (!run.filtrations[node].empty()) return run.filtrations[node];
  const Object graph_node = run.table.nodes[node].graph_node;
  // A record altered by the host may hold None.
  if (graph_node.empty() || graph_node.is_none()) return Object::none();
  run.filtrations[node] = filtration::resolve_filtration(run.space, run.context, graph_node);
  return run.filtrations[node];
}

Object sorted_signal_ids(const Run& run, PyObject* useful_signals) {
  Object ids = Object::own(PySequence_List(call_method(useful_signals, run.space.names.keys)));
  checked(PyList_Sort(ids));
  return ids;
}

}  // namespace quernbrook::evaluation
