#include "stages/transform_merge.hpp"

#include "host/graph_caches.hpp"
#include "host/graph_walk.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/items.hpp"
#include "python/protocol.hpp"

namespace quernbrook::stages {

using namespace python;
using host::Names;

Object merge_transforms(const Namespace& space, PyObject* graph, PyObject* context) {
  const Names& names = space.names;
  const Object copy = call(space.global(names.deepcopy), graph);
  call(space.global(names.invalidate_graph_evaluation_caches), copy);
  call(space.global(names._annotate_state_identities), copy);

  const Object combine = space.global(names.combine_signal_and_transforms);
  const Object pipeline = attribute(context, names.transform_pipeline);
  const Object metaparameters = attribute(context, names.metaparameters);
  const Object registry = attribute(context, names.registry);
  Object merged = call(combine, copy, pipeline, metaparameters, registry, context);
  call(space.global(names.invalidate_graph_evaluation_caches), merged);
  set_attribute(context, names.transform_pipeline, new_list());
  return merged;
}

namespace {

void annotate(const Namespace& space, PyObject* graph, PyObject* root_path) {
  struct Frame {
    Items children;
  };
  const Names& names = space.names;
  const auto enter = [&](PyObject* node, const host::WalkPath& path) {
    const Object kind = host::type_value(space, node, path);
    if (equal(kind, names.rotation) || equal(kind, names.reduction)) {
      host::graph_cache_set(space, node, names._state_identity, path.text());
    }
    return Frame{Items(host::children_of(space, node))};
  };
  host::walk_graph(graph, root_path, enter, [](const Frame&, const host::WalkPath&) {});
}

Object annotate_state_identities(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_annotate_state_identities", {"node", "path"}, 1};
  const auto [node, path] = parameters.bind(arguments);
  annotate(space, node, path == nullptr ? space.names.root.get() : path);
  return Object::none();
}

}  // namespace

PyMethodDef transform_merge_functions[] = {
    function_definition<annotate_state_identities>(
        "_annotate_state_identities",
        "_annotate_state_identities($module, /, node, path='root')\n--\n\n"
        "Preserve clear-graph state keys after transforms wrap the graph."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::stages
