#include "graph_prep/config_preflight.hpp"

#include "graph_prep/node_table.hpp"
#include "graph_prep/recent.hpp"
#include "host/graph_walk.hpp"
#include "host/parameter_schema.hpp"
#include "host/registry.hpp"
#include "python/error.hpp"
#include "python/observations.hpp"
#include "python/protocol.hpp"
#include "python/string_keys.hpp"
#include "python/text.hpp"

namespace quernbrook::graph_prep {

using namespace python;
using host::NodePath;

namespace {

/// The keys of a dict that fulfil a condition, sorted.
template <class Condition>
Object sorted_keys(PyObject* config, Condition&& condition) {
  Object found = Object::own(PyList_New(0));
  const Object keys = iterator(config);
  while (true) {
    const Object key = next(keys);
    if (key.empty()) break;
    if (condition(key)) checked(PyList_Append(found, key));
  }
  checked(PyList_Sort(found));
  return found;
}

void refuse_if_any(const Namespace& space, PyObject* function_name, const NodePath& path,
                   const char* fault, PyObject* keys) {
  if (PyList_GET_SIZE(keys) == 0) return;
  const Object joined = join(", ", keys);
  raise(space.global(space.names.FunctionExecutionError),
        message("Function '", function_name, "' at node '", path.text(), "' config contains ",
                fault, " parameter(s): ", joined));
}

/// The engine supplies these itself, so that a graph may not set them.
void refuse_engine_only(const Namespace& space, PyObject* function_name, PyObject* config,
                        const NodePath& path) {
  if (PyDict_GET_SIZE(config) == 0) return;
  const Object keys = sorted_keys(config, [&](PyObject* key) {
    return equal(key, space.names.n_alloc) || equal(key, space.names.a);
  });
  refuse_if_any(space, function_name, path, "engine-only", keys);
}

void refuse_unknown(const Namespace& space, PyObject* function_name, PyObject* config,
                    const NodePath& path, PyObject* allowed) {
  const Object keys = sorted_keys(config, [&](PyObject* key) { return !contains(allowed, key); });
  refuse_if_any(space, function_name, path, "unknown", keys);
}

bool is_schema_checked(const Namespace& space, PyObject* entry) {
  const Object family = attribute_or(entry, space.names.family, space.names.empty);
  return equal(family, space.names.virtualization);
}

void check_against_schema(const Namespace& space, PyObject* registry, PyObject* function_name,
                          PyObject* config, const NodePath& path) {
  if (registry == Py_None || !host::registry_has(space, registry, function_name)) return;
  const Object entry = host::registry_entry(space, registry, function_name);
  const Object allowed = host::schema_names(space, entry);
  // An empty schema admits everything here; the merged check refuses it.
  if (is_schema_checked(space, entry) && PySet_GET_SIZE(allowed.get()) > 0 && config != Py_None) {
    refuse_unknown(space, function_name, config, path, allowed);
  }
}

/// The walk over a whole graph that every run begins with.
class Preflight {
 public:
  struct Frame {
    host::ChildIterator children;
  };

  Preflight(const Namespace& space, PyObject* context, Observations* observations)
      : space_(space), context_(context), reader_(space, observations) {}

  Frame enter(PyObject* node, const NodePath& path) {
    reader_.require_instance(node, path);
    const Object kind = reader_.type_value(node, path);
    const Object value = reader_.node_value(node, path);
    if (is_function(kind)) check_function(node, value, path);
    return Frame{host::ChildIterator(reader_.children(node))};
  }

  bool has_noted_all() const noexcept { return reader_.has_noted_all(); }

 private:
  bool is_function(PyObject* kind) const {
    switch (kind_of(space_, kind)) {
      case NodeKind::rotation:
      case NodeKind::reduction:
        return true;
      case NodeKind::compared:
        return equal(kind, space_.names.rotation) || equal(kind, space_.names.reduction);
      default:
        return false;
    }
  }

  void check_function(PyObject* node, PyObject* function_name, const NodePath& path) {
    const Object config = reader_.config(node);
    if (!config.is_none()) refuse_engine_only(space_, function_name, config, path);
    const Object registry = host::registry_of(space_, context_);
    if (!registry.is_none() || !has_plain_attribute(Py_TYPE(context_), space_.names.registry)) {
      reader_.foreign_code_ran();
    }
    check_against_schema(space_, registry, function_name, config, path);
  }

  const Namespace& space_;
  PyObject* context_;
  host::NodeReader reader_;
};

/// Graphs that have passed without a registry, as they were then.
Recent<Observations>& passed_graphs() {
  static Recent<Observations> graphs;
  return graphs;
}

bool has_passed(const Namespace& space, PyObject* graph) {
  PyTypeObject* type = Py_TYPE(graph);
  const Object node_class = space.global(space.names.FunctionGraphNode);
  if (reinterpret_cast<PyObject*>(type) != node_class) return false;
  if (!host::is_plain_node_class(space, type)) return false;
  const Observations* passed = passed_graphs().find(graph);
  return passed != nullptr && passed->hold();
}

}  // namespace

void preflight_explicit_config(const Namespace& space, PyObject* context, PyObject* graph) {
  // Without a registry nothing but the graph decides.
  const bool may_remember =
      Observations::are_possible && silent_attribute(context, space.names.registry).is_none();
  if (may_remember && has_passed(space, graph)) return;
  Observations observations;
  Preflight preflight(space, context, may_remember ? &observations : nullptr);
  const auto enter = [&](PyObject* node, const NodePath& path) {
    return preflight.enter(node, path);
  };
  host::walk_graph(graph, space.names.root, enter, [](const auto&, const NodePath&) {});
  if (preflight.has_noted_all()) passed_graphs().add(graph, std::move(observations));
}

void validate_merged_config(const Namespace& space, PyObject* context, PyObject* function_name,
                            PyObject* config, const NodePath& path) {
  refuse_engine_only(space, function_name, config, path);
  const Object registry = host::registry_of(space, context);
  if (registry.is_none() || !host::registry_has(space, registry, function_name)) return;
  const Object entry = host::registry_entry(space, registry, function_name);
  const Object allowed = host::schema_names(space, entry);
  if (is_schema_checked(space, entry)) {
    refuse_unknown(space, function_name, config, path, allowed);
  }
}

}  // namespace quernbrook::graph_prep
