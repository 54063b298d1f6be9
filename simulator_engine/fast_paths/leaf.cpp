#include "fast_paths/leaf.hpp"

#include "host/feature.hpp"
#include "host/graph_node.hpp"
#include "host/matrix.hpp"
#include "python/call.hpp"
#include "python/protocol.hpp"

namespace quernbrook::fast_paths {

using namespace python;

bool is_leaf_kind(const Namespace& space, PyObject* kind) {
  return equal(kind, space.names.feature) || equal(kind, space.names.aggregation);
}

namespace {

bool leaf_road_is_open(const Namespace& space, PyObject* graph, PyObject* context,
                       PyObject* function_states, PyObject* data_nan_features) {
  if (truth(data_nan_features) || truth(function_states)) return false;
  const host::LabelPath root("root");
  if (!is_leaf_kind(space, host::type_value(space, graph, root))) return false;
  const Object name = host::node_value(space, graph, root);
  return contains(attribute(context, space.names.feature_index), name);
}

Object can_use_leaf_fast_path(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<4> parameters{
      "_can_use_leaf_fast_path",
      {"graph", "context", "function_states", "data_nan_features"},
      3,
      3};
  const auto [graph, context, function_states, data_nan_features] = parameters.bind(arguments);
  return Object::own(PyBool_FromLong(
      leaf_road_is_open(space, graph, context, function_states, or_none(data_nan_features))));
}

Object evaluate_leaf_fast(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_evaluate_leaf_fast", {"graph", "context"}};
  const auto [graph, context] = parameters.bind(arguments);
  const host::Names& names = space.names;
  const Object feature_index = attribute(context, names.feature_index);
  const Object index = item(feature_index, host::node_value(space, graph, host::LabelPath("root")));
  const Object data = host::feature_matrix(space, context, index);
  const Object masked =
      call(space.global(names._apply_universe_mask), data, attribute(context, names.universe));
  Object result = host::as_contiguous_float64(space, masked);
  host::publish_last_row(space, context, result);
  return result;
}

}  // namespace

PyMethodDef leaf_functions[] = {
    function_definition<can_use_leaf_fast_path>(
        "_can_use_leaf_fast_path",
        "_can_use_leaf_fast_path($module, /, graph, context, function_states, *, "
        "data_nan_features=None)\n--\n\n"
        "Tell whether the graph is a single known leaf that can be served without a row loop."),
    function_definition<evaluate_leaf_fast>(
        "_evaluate_leaf_fast",
        "_evaluate_leaf_fast($module, /, graph, context)\n--\n\n"
        "Return the masked feature matrix of a leaf, C-contiguous float64 of shape (T, N_alloc).\n"
        "\n"
        "Sets `context.registers` to its last row."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::fast_paths
