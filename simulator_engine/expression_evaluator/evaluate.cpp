#include "expression_evaluator/evaluate.hpp"

#include "expression_evaluator/run/phases.hpp"
#include "python/call.hpp"
#include "python/context_manager.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;

namespace {

constexpr std::array<std::string_view, 6> argument_names{"graph",
                                                         "context",
                                                         "function_states",
                                                         "is_cold_start",
                                                         "bound_function_instances",
                                                         "data_nan_features"};

/// The context's lock, or None where a context of another class has none.
Object lock_of(const Namespace& space, PyObject* context) {
  const host::Names& names = space.names;
  Object lock = attribute_or(context, names._evaluation_lock, Py_None);
  if (lock.is_none() && is_instance(context, space.global(names.EvaluationContext))) {
    lock = call_method(space.global(names.threading), names.RLock);
    set_attribute(context, names._evaluation_lock, lock);
  }
  return lock;
}

Object evaluate(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<6> parameters{"evaluate", argument_names, 2, 4};
  const auto bound = parameters.bind(arguments);
  PyObject* graph = bound[0];
  PyObject* context = bound[1];
  if (!is_instance(graph, space.global(space.names.FunctionGraphNode))) {
    raise(space.global(space.names.SchemaError),
          message("evaluate graph must be FunctionGraphNode; got ", type_name(graph)));
  }
  const auto evaluate_unlocked = [&] {
    return call_named(space.global(space.names._evaluate_unlocked), space.evaluation_keywords,
                      graph, context, or_none(bound[2]), bound[3] == nullptr ? Py_False : bound[3],
                      or_none(bound[4]), or_none(bound[5]));
  };
  const Object lock = lock_of(space, context);
  if (lock.is_none()) return evaluate_unlocked();
  return with(lock, space.names.enter_, space.names.exit_, evaluate_unlocked);
}

Object evaluate_unlocked(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<6> parameters{"_evaluate_unlocked", argument_names, 2, 4};
  const auto bound = parameters.bind(arguments);
  Run run(space);
  run.graph = Object::borrow(bound[0]);
  run.context = Object::borrow(bound[1]);
  run.function_states = Object::borrow(or_none(bound[2]));
  run.is_cold_start = Object::borrow(bound[3] == nullptr ? Py_False : bound[3]);
  run.bound_argument = Object::borrow(or_none(bound[4]));
  run.data_nan_features = Object::borrow(or_none(bound[5]));
  return evaluate_run(run);
}

}  // namespace

PyMethodDef evaluate_functions[] = {
    function_definition<evaluate>(
        "evaluate",
        "evaluate($module, /, graph, context, function_states=None, is_cold_start=False, *, "
        "bound_function_instances=None, data_nan_features=None)\n--\n\n"
        "Run the graph over the context's features, under the context's lock.\n"
        "\n"
        "Parameters\n"
        "----------\n"
        "graph : FunctionGraphNode\n"
        "    The expression graph.\n"
        "context : EvaluationContext\n"
        "    Features of shape (T, N_alloc), universe, registry and signals; or any object with\n"
        "    its attributes.\n"
        "function_states : mapping of state key to FunctionState, optional\n"
        "    States to restore, one for each stateful function of the graph.\n"
        "is_cold_start : bool\n"
        "    True only on the first tick after a restore.\n"
        "bound_function_instances : mapping of node path to instance, optional\n"
        "    Ready-made instances for all function nodes, in place of the registry's.\n"
        "data_nan_features : iterable of str, optional\n"
        "    Names of the features that count as missing data in this run.\n"
        "\n"
        "Returns\n"
        "-------\n"
        "EvaluationResult\n"
        "    Weights of shape (T, N_alloc), float64, and the states of all stateful functions;\n"
        "    it unpacks as (weights, states).\n"
        "\n"
        "Raises\n"
        "------\n"
        "SchemaError\n"
        "    The graph, or a node of it, is no FunctionGraphNode.\n"
        "EvaluationError\n"
        "    Features are missing or do not fit, the graph is malformed or names an unknown\n"
        "    feature, or the states do not match the graph.\n"
        "EvaluationShapeError\n"
        "    A feature or a function's result has the wrong shape or dtype.\n"
        "FunctionExecutionError\n"
        "    A configuration or an instance is at fault, or a function failed in a row; the\n"
        "    failure itself is the cause."),
    function_definition<evaluate_unlocked>(
        "_evaluate_unlocked",
        "_evaluate_unlocked($module, /, graph, context, function_states=None, "
        "is_cold_start=False, *, bound_function_instances=None, data_nan_features=None)\n--\n\n"
        "Run the graph as evaluate() does, without the lock and the test of the graph's type."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::evaluation
