#include "expression_evaluator/context.hpp"

#include "python/array.hpp"
#include "python/call.hpp"
#include "python/class_statement.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using host::Names;

namespace {

Object resolve_stage_data(const Namespace& space, PyObject* stage_data) {
  if (stage_data == Py_None) return call(space.global(space.names.StageData));
  if (!is_instance(stage_data, space.global(space.names.StageData))) {
    raise(space.global(space.names.SchemaError),
          message("EvaluationContext.stage_data must be StageData or None; got ",
                  type_name(stage_data)));
  }
  return Object::borrow(stage_data);
}

void check_feature_index(const Namespace& space, PyObject* features, PyObject* feature_index) {
  const Object zero = integer(0);
  for (const Object& entry : Items(call_method(feature_index, space.names.items))) {
    const auto [name, index] = unpack_pair(entry);
    if (compare(index, zero, Py_LT) || compare(index, integer(length(features)), Py_GE)) {
      raise(space.evaluation_error(),
            message("feature_index['", name, "'] = ", index, " is out of bounds for ",
                    length(features), " features"));
    }
  }
}

Object context_init(Namespace& space, PyObject* self, const CallArguments& arguments) {
  static constexpr Parameters<17> parameters{
      "EvaluationContext.__init__",
      {"features", "feature_index", "useful_signals", "registry", "universe", "metaparameters",
       "transform_pipeline", "stage_data", "column_labels", "signal_pnl_vectors", "function_states",
       "universe_mask", "current_day_index", "pool_id", "universe_tag",
       "transforms_already_combined", "validate_inputs"},
      2};
  const auto bound = parameters.bind(arguments);
  const auto argument = [&](std::size_t place) { return or_none(bound[place]); };
  const auto set = [&](PyObject* name, PyObject* value) { set_attribute(self, name, value); };
  const Names& names = space.names;

  set(names.feature_index, argument(1));
  set(names.useful_signals, or_new_dict(argument(2)));
  set(names.registry, argument(3));
  set(names.universe, argument(4));
  set(names.metaparameters, or_new_dict(argument(5)));
  set(names.transform_pipeline, or_new_list(argument(6)));
  set(names.stage_data, resolve_stage_data(space, argument(7)));
  set(names.column_labels, or_new_list(argument(8)));
  set(names.signal_pnl_vectors, argument(9));
  set(names.function_states, argument(10));
  set(names.universe_mask, argument(11));
  set(names.current_day_index, bound[12] == nullptr ? integer(0) : Object::borrow(bound[12]));
  set(names.pool_id, argument(13));
  set(names.universe_tag, argument(14));
  set(names.liquidity_feature_hashes, new_list());
  set(names.liquidity_features, new_list());
  set(names.factor_epoch, Py_None);
  set(names.epoch, Py_None);
  set(names.factor_model, Py_None);
  set(names.factor_model_version_id, Py_None);
  set(names.transforms_already_combined, bound[15] == nullptr ? Py_False : bound[15]);

  PyObject* validate_inputs = bound[16] == nullptr ? Py_True : bound[16];
  set(names._skip_evaluation_shape_validation, truth(validate_inputs) ? Py_False : Py_True);
  set(names._evaluation_lock, call_method(space.global(names.threading), names.RLock));
  set(names.registers, Py_None);
  set(names.extraction_buffer, Py_None);
  set(names.features, argument(0));

  if (truth(validate_inputs)) {
    check_feature_index(space, argument(0), argument(1));
    const Object features = attribute(self, names.features);
    const Object universe = attribute(self, names.universe);
    const Object useful_signals = attribute(self, names.useful_signals);
    call(space.global(names._validate_evaluation_shapes), features, universe, useful_signals);
  }

  if (truth(attribute(self, names.useful_signals)) && length(attribute(self, names.features)) > 0) {
    const Py_ssize_t signals = length(attribute(self, names.useful_signals));
    const Object first = item(attribute(self, names.features), integer(0));
    const Object shape = attribute(first, names.shape);
    const Py_ssize_t columns = array_size(item(shape, integer(1)));
    set(names.extraction_buffer, zeros(signals, columns));
  }
  return Object::none();
}

Object context_getstate(Namespace& space, PyObject* self, const CallArguments& arguments) {
  static constexpr Parameters<0> parameters{"EvaluationContext.__getstate__", {}};
  parameters.bind(arguments);
  Object state = call_method(attribute(self, space.names.dict_), space.names.copy);
  call_method(state, space.names.pop, space.names._evaluation_lock, Py_None);
  return state;
}

Object context_setstate(Namespace& space, PyObject* self, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"EvaluationContext.__setstate__", {"state"}};
  const auto [state] = parameters.bind(arguments);
  call_method(attribute(self, space.names.dict_), space.names.update, state);
  set_attribute(self, space.names._evaluation_lock,
                call_method(space.global(space.names.threading), space.names.RLock));
  return Object::none();
}

PyMethodDef context_methods[] = {
    method_definition<context_init>(
        "__init__",
        "__init__($self, /, features, feature_index, useful_signals=None, registry=None, "
        "universe=None, metaparameters=None, transform_pipeline=None, stage_data=None, "
        "column_labels=None, signal_pnl_vectors=None, function_states=None, universe_mask=None, "
        "current_day_index=0, pool_id=None, universe_tag=None, "
        "transforms_already_combined=False, validate_inputs=True)\n--\n\n"
        "Store the inputs by reference and check their shapes."),
    method_definition<context_getstate>(
        "__getstate__",
        "__getstate__($self, /)\n--\n\nReturn a copy of the attributes without the lock."),
    method_definition<context_setstate>(
        "__setstate__",
        "__setstate__($self, /, state)\n--\n\nTake over the attributes and make a new lock."),
    {nullptr, nullptr, 0, nullptr},
};

constexpr const char* context_docstring =
    "EvaluationContext — stores inputs, validates dimensions, allocates extraction buffer.\n"
    "\n"
    "Every attribute is public and writable, and everything is held by reference: no array and\n"
    "no dictionary is copied.\n"
    "\n"
    "Parameters\n"
    "----------\n"
    "features : sequence of arrays of shape (T, N_alloc)\n"
    "    Feature matrices; rows are time steps, columns allocation slots. Any dtype that\n"
    "    converts to float64.\n"
    "feature_index : dict of str to int\n"
    "    Position of each feature name in `features`.\n"
    "useful_signals : dict of str to UsefulSignal, optional\n"
    "    The pool of signals, by id; `weights` of shape (T, N_alloc), `pnl` of T rows or None.\n"
    "registry : RegistryProtocol, optional\n"
    "    Where function names become instances.\n"
    "universe : array of shape (T, N_alloc), optional\n"
    "    Cells that equal 0.0 or are NaN are masked with NaN in every feature.\n"
    "metaparameters : dict, optional\n"
    "    Options of the transform stages, by stage name or by pool id and stage name.\n"
    "transform_pipeline : list of TransformStage, optional\n"
    "    Transforms laid around the graph by the next evaluation.\n"
    "stage_data : StageData, optional\n"
    "    Arrays of earlier stages, offered to the graph as features.\n"
    "column_labels : list of str, optional\n"
    "    Names of the columns of the signals' `pnl`.\n"
    "signal_pnl_vectors : dict of str to dict of str to float, optional\n"
    "    PnL by signal id and column, in place of the `pnl` matrices.\n"
    "function_states, universe_mask, current_day_index, pool_id, universe_tag\n"
    "    Kept for the host and the runs as given.\n"
    "transforms_already_combined : bool\n"
    "    True if the graph already contains its transforms.\n"
    "validate_inputs : bool\n"
    "    False leaves the check of indices and shapes to the caller, here and in every run.\n"
    "\n"
    "Raises\n"
    "------\n"
    "SchemaError\n"
    "    `stage_data` is neither None nor a StageData.\n"
    "EvaluationError\n"
    "    An index lies outside `features`, or two shapes do not fit.";

}  // namespace

Object make_context_class(PyObject* module) {
  return make_class(module, "EvaluationContext", context_docstring, context_methods);
}

}  // namespace quernbrook::evaluation
