#include "graph_prep/config_preflight.hpp"

#include "graph_prep/node_table.hpp"
#include "host/graph_walk.hpp"
#include "host/parameter_schema.hpp"
#include "host/registry.hpp"
#include "python/containers.hpp"
#include "python/dict_insides.hpp"
#include "python/error.hpp"
#include "python/items.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::graph_prep {

using namespace python;
using host::NodePath;

namespace {

/// The keys of a dict that fulfil a condition, sorted.
template <class Condition>
Object sorted_keys(PyObject* config, Condition&& condition) {
  Object found = new_list();
  for (const Object& key : Items(Object::borrow(config))) {
    if (condition(key)) append(found, key);
  }
  sort(found);
  return found;
}

void refuse_if_any(const Namespace& space, PyObject* function_name, const NodePath& path,
                   const char* fault, PyObject* keys) {
  if (items_of(keys).empty()) return;
  const Object joined = join(", ", keys);
  raise(space.global(space.names.FunctionExecutionError),
        message("Function '", function_name, "' at node '", path.text(), "' config contains ",
                fault, " parameter(s): ", joined));
}

/// The engine supplies these itself, so that a graph may not set them.
void refuse_engine_only(const Namespace& space, PyObject* function_name, PyObject* config,
                        const NodePath& path) {
  if (dict_size(config) == 0) return;
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
  if (is_schema_checked(space, entry) && set_size(allowed) > 0 && config != Py_None) {
    refuse_unknown(space, function_name, config, path, allowed);
  }
}

/// The walk over a whole graph that every run begins with.
class Preflight {
 public:
  struct Frame {
    Items children;
  };

  Preflight(const Namespace& space, PyObject* context)
      : space_(space), context_(context), reader_(space) {}

  Frame enter(PyObject* node, const NodePath& path) {
    reader_.require_instance(node, path);
    const Object kind = reader_.type_value(node, path);
    const Object value = reader_.node_value(node, path);
    if (is_function(kind)) check_function(node, value, path);
    return Frame{Items(reader_.children(node))};
  }

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
    if (!registry.is_none() || !has_plain_attribute(type_of(context_), space_.names.registry)) {
      reader_.foreign_code_ran();
    }
    check_against_schema(space_, registry, function_name, config, path);
  }

  const Namespace& space_;
  PyObject* context_;
  host::NodeReader reader_;
};

}  // namespace

void preflight_explicit_config(const Namespace& space, PyObject* context, PyObject* graph) {
  Preflight preflight(space, context);
  const auto enter = [&](PyObject* node, const NodePath& path) {
    return preflight.enter(node, path);
  };
  host::walk_graph(graph, space.names.root, enter, [](const auto&, const NodePath&) {});
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
