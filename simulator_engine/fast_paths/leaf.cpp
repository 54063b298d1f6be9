#include "fast_paths/leaf.hpp"

#include "host/feature.hpp"
#include "host/graph_node.hpp"
#include "host/matrix.hpp"
#include "python/call.hpp"
#include "python/protocol.hpp"

namespace quernbrook::fast_paths {

using namespace python;

namespace {

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
    function_definition<evaluate_leaf_fast>(
        "_evaluate_leaf_fast",
        "_evaluate_leaf_fast($module, /, graph, context)\n--\n\n"
        "Return the masked feature matrix of a leaf, C-contiguous float64 of shape (T, N_alloc).\n"
        "\n"
        "Sets `context.registers` to its last row."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::fast_paths
