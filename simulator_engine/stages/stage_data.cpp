#include "stages/stage_data.hpp"

#include "host/matrix.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::stages {

using namespace python;
using host::Names;

namespace {

bool is_matrix(const Namespace& space, PyObject* value) {
  if (!is_instance(value, array_type())) return false;
  return equal(attribute(value, space.names.ndim), integer(2));
}

void attach(const Namespace& space, PyObject* graph, PyObject* context) {
  const Names& names = space.names;
  const Object stage_data = attribute(context, names.stage_data);
  if (truth(call_method(stage_data, names.is_empty))) return;
  const Object leaf_names = call(space.global(names.extract_feature_leaf_names), graph);
  const Object features = list_of(attribute(context, names.features));
  // Sorted, so that the positions do not hang on the order of the walk.
  const Object sorted_names = list_of(leaf_names);
  sort(sorted_names);
  for (const Object& name : Items(sorted_names)) {
    if (contains(attribute(context, names.feature_index), name)) continue;
    const Object value = call_method(stage_data, names.value, name, Py_None);
    if (!is_matrix(space, value)) continue;
    set_item(attribute(context, names.feature_index), name, integer(length(features)));
    append(features, host::as_contiguous_float64(space, value));
  }
  set_attribute(context, names.features, tuple_of_list(features));
}

Object attach_stage_data_feature_leaves(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_attach_stage_data_feature_leaves",
                                            {"graph", "context"}};
  const auto [graph, context] = parameters.bind(arguments);
  attach(space, graph, context);
  return Object::none();
}

}  // namespace

PyMethodDef stage_data_functions[] = {
    function_definition<attach_stage_data_feature_leaves>(
        "_attach_stage_data_feature_leaves",
        "_attach_stage_data_feature_leaves($module, /, graph, context)\n--\n\n"
        "Expose 2D stage_data arrays as normal feature leaves for DAG evaluation."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::stages
