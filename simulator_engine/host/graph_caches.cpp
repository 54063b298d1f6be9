#include "host/graph_caches.hpp"

#include "host/graph_walk.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/items.hpp"
#include "python/protocol.hpp"

namespace quernbrook::host {

using namespace python;

Object graph_cache_get(const Namespace& space, PyObject* graph, PyObject* key) {
  require_node_instance(space, graph, LabelPath("cache"));
  return attribute_or(graph, key, Py_None);
}

void graph_cache_set(const Namespace& space, PyObject* graph, PyObject* key, PyObject* value) {
  require_node_instance(space, graph, LabelPath("cache"));
  attempt({PyExc_AttributeError, PyExc_TypeError}, [&] { set_attribute(graph, key, value); });
}

namespace {

struct Frame {
  Items children;
};

Object node_identities(const Namespace& space, PyObject* graph) {
  PyObject* slot = space.names._node_identities;
  Object cached = graph_cache_get(space, graph, slot);
  if (!cached.is_none()) return cached;

  Object identities = new_dict();
  const auto enter = [&](PyObject* node, const WalkPath& path) {
    const Object value = node_value(space, node, path);
    set_dict_item(identities, path.text(), value);
    return Frame{Items(children_of(space, node))};
  };
  walk_graph(graph, space.names.root, enter, [](const Frame&, const WalkPath&) {});
  graph_cache_set(space, graph, slot, identities);
  return identities;
}

void invalidate(const Namespace& space, PyObject* graph) {
  const auto enter = [&](PyObject* node, const WalkPath&) {
    if (!is_instance(node, space.global(space.names.FunctionGraphNode))) {
      return Frame{Items(tuple_of())};
    }
    set_attribute(node, space.names._collect_nodes_cache, Py_None);
    set_attribute(node, space.names._node_identities, Py_None);
    return Frame{Items(children_of(space, node))};
  };
  walk_graph(graph, space.names.root, enter, [](const Frame&, const WalkPath&) {});
}

Object call_graph_cache_get(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_graph_cache_get", {"graph", "key"}};
  const auto [graph, key] = parameters.bind(arguments);
  return graph_cache_get(space, graph, key);
}

Object call_graph_cache_set(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<3> parameters{"_graph_cache_set", {"graph", "key", "value"}};
  const auto [graph, key, value] = parameters.bind(arguments);
  graph_cache_set(space, graph, key, value);
  return Object::none();
}

Object generate_node_identities(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"generate_node_identities", {"graph"}};
  const auto [graph] = parameters.bind(arguments);
  return node_identities(space, graph);
}

Object invalidate_graph_evaluation_caches(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"invalidate_graph_evaluation_caches", {"graph"}};
  const auto [graph] = parameters.bind(arguments);
  invalidate(space, graph);
  return Object::none();
}

}  // namespace

PyMethodDef graph_cache_functions[] = {
    function_definition<call_graph_cache_get>("_graph_cache_get",
                                              "_graph_cache_get($module, /, graph, key)\n--\n\n"
                                              "Read a per-graph evaluator cache slot."),
    function_definition<call_graph_cache_set>(
        "_graph_cache_set",
        "_graph_cache_set($module, /, graph, key, value)\n--\n\n"
        "Write a per-graph evaluator cache slot."),
    function_definition<generate_node_identities>(
        "generate_node_identities",
        "generate_node_identities($module, /, graph)\n--\n\n"
        "Generate tree node identity strings for all nodes in the graph.\n"
        "\n"
        "The root is \"root\", child i of the node p is \"p.c{i}\".\n"
        "\n"
        "Returns Dict[str, Any] mapping tree node identity strings to node names/values.\n"
        "Parents stand before their children. The dict is kept on the graph and returned again\n"
        "until the caches are invalidated.\n"
        "\n"
        "Raises SchemaError for anything that is no FunctionGraphNode, and EvaluationError for a\n"
        "node without the attribute `node`."),
    function_definition<invalidate_graph_evaluation_caches>(
        "invalidate_graph_evaluation_caches",
        "invalidate_graph_evaluation_caches($module, /, graph)\n--\n\n"
        "Clear graph-local evaluator caches after structural graph mutation.\n"
        "\n"
        "Covers the whole tree; what is no FunctionGraphNode is passed over."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::host
