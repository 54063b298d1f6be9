#include "fast_paths/eligibility.hpp"

#include "fast_paths/leaf.hpp"
#include "host/graph_node.hpp"
#include "host/graph_walk.hpp"
#include "host/registry.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"

namespace quernbrook::fast_paths {

using namespace python;
using host::ChildIterator;
using host::ChildPath;
using host::LabelPath;
using host::Names;
using host::NodePath;

Object make_longitudinal_names(const Namespace& space) {
  const Names& names = space.names;
  Object known = Object::own(PySet_New(nullptr));
  for (PyObject* name : {names.longitudinal_mean.get(), names.longitudinal_std.get(),
                         names.longitudinal_zscore.get()}) {
    checked(PySet_Add(known, name));
  }
  return known;
}

namespace {

/// The roads know no signals, no transforms and no options.
bool context_has_stages(const Namespace& space, PyObject* context) {
  const Names& names = space.names;
  return truth(attribute(context, names.useful_signals)) ||
         truth(attribute(context, names.transform_pipeline)) ||
         truth(attribute(context, names.metaparameters));
}

bool is_rotation_of(const Namespace& space, PyObject* node, PyObject* name, const NodePath& path) {
  return equal(host::type_value(space, node, path), space.names.rotation) &&
         equal(host::node_value(space, node, path), name);
}

bool has_factory(const Namespace& space, PyObject* registry, PyObject* name) {
  return truth(call_method(registry, space.names.has_factory, name));
}

bool simple_rank_is_open(const Namespace& space, PyObject* graph, PyObject* context,
                         PyObject* function_states, PyObject* data_nan_features) {
  const Names& names = space.names;
  if (truth(data_nan_features) || truth(function_states)) return false;
  if (context_has_stages(space, context)) return false;
  const LabelPath root("root");
  if (!is_rotation_of(space, graph, names.latitudinal_rank, root)) return false;
  const Object children = host::children_of(space, graph);
  if (length(children) != 1) return false;
  const Object leaf = item(children, integer(0));
  if (!is_leaf_kind(space, host::type_value(space, leaf, ChildPath(root, 0)))) return false;
  const Object registry = host::registry_of(space, context);
  return registry.is_none() || !has_factory(space, registry, names.latitudinal_rank);
}

bool is_rank_of_known_leaf(const Namespace& space, PyObject* node, PyObject* context,
                           const NodePath& path) {
  if (!is_rotation_of(space, node, space.names.latitudinal_rank, path)) return false;
  const Object children = host::children_of(space, node);
  if (length(children) != 1) return false;
  const Object leaf = item(children, integer(0));
  const ChildPath leaf_path(path, 0);
  if (!is_leaf_kind(space, host::type_value(space, leaf, leaf_path))) return false;
  const Object name = host::node_value(space, leaf, leaf_path);
  return contains(attribute(context, space.names.feature_index), name);
}

bool rank_multiply_is_open(const Namespace& space, PyObject* graph, PyObject* context,
                           PyObject* function_states, PyObject* bound_function_instances,
                           PyObject* data_nan_features) {
  const Names& names = space.names;
  if (truth(data_nan_features) || truth(function_states) || truth(bound_function_instances)) {
    return false;
  }
  if (context_has_stages(space, context)) return false;
  const LabelPath root("root");
  if (!is_rotation_of(space, graph, names.numerical_multiply, root)) return false;
  const Object registry = host::registry_of(space, context);
  if (!registry.is_none() && (has_factory(space, registry, names.numerical_multiply) ||
                              has_factory(space, registry, names.latitudinal_rank))) {
    return false;
  }
  const Object children = host::children_of(space, graph);
  if (length(children) != 2) return false;
  ChildIterator factors(children);
  for (Object factor = factors.next(); !factor.empty(); factor = factors.next()) {
    const ChildPath path(root, factors.position());
    if (!is_rank_of_known_leaf(space, factor, context, path)) return false;
  }
  return true;
}

/// The registry knows the name but has nothing runnable behind it.
bool registry_holds_stub(const Namespace& space, PyObject* registry, PyObject* name) {
  const Names& names = space.names;
  if (registry == Py_None || !host::registry_has(space, registry, name) ||
      has_factory(space, registry, name)) {
    return false;
  }
  Object entry;
  try {
    entry = host::registry_entry(space, registry, name);
  } catch (const ErrorSet&) {
    if (!error_matches(PyExc_Exception)) throw;
    PyErr_Clear();
    return false;
  }
  const auto member = [&](PyObject* attribute_name) {
    return attribute_or(entry, attribute_name, Py_None);
  };
  if (truth(member(names.module_path)) || truth(member(names.class_name))) return false;
  return member(names.factory).is_none() && member(names.implementation).is_none();
}

bool is_literal_argument(const Namespace& space, PyObject* kind) {
  const Names& names = space.names;
  return equal(kind, names.int_) || equal(kind, names.string) || equal(kind, names.bool_);
}

/// The only data child of a rotation; empty if it has none or several.
Object only_data_child(const Namespace& space, PyObject* children) {
  Object found;
  Py_ssize_t count = 0;
  ChildIterator all(Object::share(children));
  for (Object child = all.next(); !child.empty(); child = all.next()) {
    if (is_literal_argument(space, host::type_value(space, child, LabelPath("fast_path.child")))) {
      continue;
    }
    if (count++ == 0) found = child;
  }
  return count == 1 ? found : Object();
}

/// A chain of rotations that the road computes, each with a window, down to a known leaf.
bool is_supported_chain(const Namespace& space, PyObject* graph, PyObject* context) {
  const Names& names = space.names;
  const LabelPath path("fast_path");
  host::WalkPath levels(names.root);
  for (Object node = Object::share(graph);;) {
    levels.descend(0);
    const Object kind = host::type_value(space, node, path);
    if (is_leaf_kind(space, kind)) {
      const Object name = host::node_value(space, node, path);
      return contains(attribute(context, names.feature_index), name);
    }
    if (!equal(kind, names.rotation)) return false;
    const Object name = host::node_value(space, node, path);
    if (!contains(space.global(names._LONGITUDINAL_FAST_NAMES), name)) return false;
    if (!registry_holds_stub(space, host::registry_of(space, context), name)) return false;
    const Object children = host::children_of(space, node);
    Object data_child = only_data_child(space, children);
    if (data_child.empty()) return false;
    if (call(space.global(names._get_int_window_child), children).is_none()) return false;
    node = std::move(data_child);
  }
}

bool longitudinal_is_open(const Namespace& space, PyObject* graph, PyObject* context,
                          PyObject* function_states, PyObject* rows, PyObject* data_nan_features) {
  if (truth(data_nan_features)) return false;
  if (compare(rows, space.global(space.names._LONGITUDINAL_FAST_MIN_ROWS), Py_LT)) return false;
  if (function_states != Py_None || context_has_stages(space, context)) return false;
  return is_supported_chain(space, graph, context);
}

Object as_bool(bool value) { return Object::own(PyBool_FromLong(value)); }

Object can_use_simple_rank(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<4> parameters{
      "_can_use_simple_rank_fast_path",
      {"graph", "context", "function_states", "data_nan_features"},
      3,
      3};
  const auto [graph, context, states, data_nan] = parameters.bind(arguments);
  return as_bool(simple_rank_is_open(space, graph, context, states, or_none(data_nan)));
}

Object can_use_rank_multiply(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<5> parameters{
      "_can_use_rank_multiply_fast_path",
      {"graph", "context", "function_states", "bound_function_instances", "data_nan_features"},
      3,
      3};
  const auto [graph, context, states, bound, data_nan] = parameters.bind(arguments);
  return as_bool(
      rank_multiply_is_open(space, graph, context, states, or_none(bound), or_none(data_nan)));
}

Object can_use_longitudinal(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<5> parameters{
      "_can_use_longitudinal_fast_path",
      {"graph", "context", "function_states", "T", "data_nan_features"},
      4,
      4};
  const auto [graph, context, states, rows, data_nan] = parameters.bind(arguments);
  return as_bool(longitudinal_is_open(space, graph, context, states, rows, or_none(data_nan)));
}

Object get_int_window_child(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_get_int_window_child", {"children"}};
  const auto [children] = parameters.bind(arguments);
  const LabelPath window("window");
  ChildIterator all(Object::share(children));
  for (Object child = all.next(); !child.empty(); child = all.next()) {
    const ChildPath path(window, all.position());
    if (!equal(host::type_value(space, child, path), space.names.int_)) continue;
    return Object::own(PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyLong_Type),
                                           host::node_value(space, child, path)));
  }
  return Object::none();
}

}  // namespace

PyMethodDef eligibility_functions[] = {
    function_definition<can_use_simple_rank>(
        "_can_use_simple_rank_fast_path",
        "_can_use_simple_rank_fast_path($module, /, graph, context, function_states, *, "
        "data_nan_features=None)\n--\n\n"
        "Tell whether the graph is latitudinal_rank(leaf) and may skip the row loop."),
    function_definition<can_use_rank_multiply>(
        "_can_use_rank_multiply_fast_path",
        "_can_use_rank_multiply_fast_path($module, /, graph, context, function_states, *, "
        "bound_function_instances=None, data_nan_features=None)\n--\n\n"
        "Tell whether the graph is a product of the ranks of two leaves and may skip the row "
        "loop."),
    function_definition<can_use_longitudinal>(
        "_can_use_longitudinal_fast_path",
        "_can_use_longitudinal_fast_path($module, /, graph, context, function_states, T, *, "
        "data_nan_features=None)\n--\n\n"
        "Tell whether the graph is a chain of rolling means, deviations and z-scores over one\n"
        "leaf, long enough to skip the row loop."),
    function_definition<get_int_window_child>(
        "_get_int_window_child",
        "_get_int_window_child($module, /, children)\n--\n\n"
        "Return the value of the first int child as an int, or None if there is none."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::fast_paths
