#include "expression_evaluator/signals/signal_pool.hpp"

#include "filtration/resolution.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/dict_insides.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::NodeIndex;

Object filtration_result(Run& run, NodeIndex node) {
  if (!run.filtrations[node].empty()) return run.filtrations[node];
  const Object graph_node = run.table.nodes[node].graph_node;
  // A record altered by the host may hold None.
  if (graph_node.empty() || graph_node.is_none()) return Object::none();
  Object result = filtration::resolve_filtration(run.space, run.context, graph_node);
  run.filtrations[node] = result;
  return result;
}

Object sorted_signal_ids(const Run& run) {
  const Object pool = attribute(run.context, run.space.names.useful_signals);
  Object ids = list_of(call_method(pool, run.space.names.keys));
  sort(ids);
  return ids;
}

bool SignalReader::has_plain_pool() {
  if (!pool_.empty()) return true;
  PyObject* name = run_.space.names.useful_signals;
  if (!has_plain_attribute(type_of(run_.context), name)) return false;
  Object pool = attribute(run_.context, name);
  if (!run_.pool_keys.of(pool)) return false;
  pool_ = std::move(pool);
  return true;
}

Object SignalReader::plain(PyObject* id) {
  if (!is_exact_text(id) || !has_plain_pool()) return {};
  const Object signal = dict_item(pool_, id);
  if (signal.empty()) return {};
  if (type_of(signal) != plain_class_) {
    // An odd key of the class's dictionary has its code run, which may change the pool.
    pool_ = {};
    if (!has_plain_attribute(type_of(signal), name_)) return {};
    plain_class_ = type_of(signal);
  }
  return own_attribute(signal, name_);
}

}  // namespace quernbrook::evaluation
