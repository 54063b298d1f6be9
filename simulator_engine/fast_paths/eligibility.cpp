#include "fast_paths/eligibility.hpp"

#include "host/graph_node.hpp"
#include "host/graph_walk.hpp"
#include "host/registry.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::fast_paths {

using namespace python;
using host::ChildPath;
using host::LabelPath;
using host::Names;
using host::NodePath;

Object make_longitudinal_names(const Namespace& space) {
  const Names& names = space.names;
  Object known = new_set();
  for (PyObject* name : {names.longitudinal_mean.get(), names.longitudinal_std.get(),
                         names.longitudinal_zscore.get()}) {
    add_to_set(known, name);
  }
  return known;
}

bool is_leaf_kind(const Namespace& space, PyObject* kind) {
  return equal(kind, space.names.feature) || equal(kind, space.names.aggregation);
}

bool is_literal_kind(const Namespace& space, PyObject* kind) {
  const Names& names = space.names;
  return equal(kind, names.int_) || equal(kind, names.string) || equal(kind, names.bool_);
}

namespace {

/// Why a road is closed, in words; null where it is open.
using Refusal = const char*;
constexpr Refusal open = nullptr;

Refusal refuse_marks_and_states(PyObject* data_nan_features, PyObject* function_states) {
  if (truth(data_nan_features)) return "features are marked as missing data";
  if (truth(function_states)) return "there are function states to restore";
  return open;
}

/// The roads know no signals, no transforms and no options.
Refusal refuse_stages(const Namespace& space, PyObject* context) {
  const Names& names = space.names;
  if (truth(attribute(context, names.useful_signals))) return "the context has useful signals";
  if (truth(attribute(context, names.transform_pipeline))) {
    return "the context has a transform pipeline";
  }
  if (truth(attribute(context, names.metaparameters))) return "the context has metaparameters";
  return open;
}

bool is_known_feature(const Namespace& space, PyObject* context, PyObject* node,
                      const NodePath& path) {
  const Object name = host::node_value(space, node, path);
  return contains(attribute(context, space.names.feature_index), name);
}

bool is_rotation_of(const Namespace& space, PyObject* node, PyObject* name, const NodePath& path) {
  return equal(host::type_value(space, node, path), space.names.rotation) &&
         equal(host::node_value(space, node, path), name);
}

bool has_factory(const Namespace& space, PyObject* registry, PyObject* name) {
  return truth(call_method(registry, space.names.has_factory, name));
}

Refusal leaf_refusal(const Namespace& space, PyObject* graph, PyObject* context,
                     PyObject* function_states, PyObject* data_nan_features) {
  const Refusal refusal = refuse_marks_and_states(data_nan_features, function_states);
  if (refusal != open) return refusal;
  const LabelPath root("root");
  if (!is_leaf_kind(space, host::type_value(space, graph, root))) return "the root is no leaf";
  return is_known_feature(space, context, graph, root) ? open : "the context lacks the feature";
}

/// The only child of a rank; empty where there are others or none, or it is no leaf.
Object ranked_leaf(const Namespace& space, PyObject* rank, const NodePath& path) {
  const Object children = host::children_of(space, rank);
  if (length(children) != 1) return {};
  Object leaf = item(children, integer(0));
  return is_leaf_kind(space, host::type_value(space, leaf, ChildPath(path, 0))) ? leaf : Object();
}

Refusal simple_rank_refusal(const Namespace& space, PyObject* graph, PyObject* context,
                            PyObject* function_states, PyObject* data_nan_features) {
  const Names& names = space.names;
  Refusal refusal = refuse_marks_and_states(data_nan_features, function_states);
  if (refusal == open) refusal = refuse_stages(space, context);
  if (refusal != open) return refusal;
  const LabelPath root("root");
  if (!is_rotation_of(space, graph, names.latitudinal_rank, root)) return "the root is no rank";
  if (ranked_leaf(space, graph, root).empty()) return "the rank is not of a single leaf";
  const Object registry = host::registry_of(space, context);
  if (!registry.is_none() && has_factory(space, registry, names.latitudinal_rank)) {
    return "the registry has a rank of its own";
  }
  return open;
}

Refusal rank_multiply_refusal(const Namespace& space, PyObject* graph, PyObject* context,
                              PyObject* function_states, PyObject* bound_function_instances,
                              PyObject* data_nan_features) {
  const Names& names = space.names;
  Refusal refusal = refuse_marks_and_states(data_nan_features, function_states);
  if (refusal != open) return refusal;
  if (truth(bound_function_instances)) return "the caller bound instances";
  refusal = refuse_stages(space, context);
  if (refusal != open) return refusal;
  const LabelPath root("root");
  if (!is_rotation_of(space, graph, names.numerical_multiply, root))
    return "the root is no product";
  const Object registry = host::registry_of(space, context);
  if (!registry.is_none() && (has_factory(space, registry, names.numerical_multiply) ||
                              has_factory(space, registry, names.latitudinal_rank))) {
    return "the registry has a rank or a product of its own";
  }
  const Object children = host::children_of(space, graph);
  if (length(children) != 2) return "the product is not of two factors";
  Items factors(children);
  for (const Object& factor : factors) {
    const ChildPath path(root, factors.position());
    if (!is_rotation_of(space, factor, names.latitudinal_rank, path)) return "a factor is no rank";
    const Object leaf = ranked_leaf(space, factor, path);
    if (leaf.empty()) return "a factor is not of a single leaf";
    if (!is_known_feature(space, context, leaf, ChildPath(path, 0))) {
      return "the context lacks a factor's feature";
    }
  }
  return open;
}

/// The registry knows the name but has nothing runnable behind it.
bool registry_holds_stub(const Namespace& space, PyObject* registry, PyObject* name) {
  const Names& names = space.names;
  if (registry == Py_None || !host::registry_has(space, registry, name) ||
      has_factory(space, registry, name)) {
    return false;
  }
  Object entry;
  const bool is_known =
      attempt({PyExc_Exception}, [&] { entry = host::registry_entry(space, registry, name); });
  if (!is_known) return false;
  const auto member = [&](PyObject* attribute_name) {
    return attribute_or(entry, attribute_name, Py_None);
  };
  if (truth(member(names.module_path)) || truth(member(names.class_name))) return false;
  return member(names.factory).is_none() && member(names.implementation).is_none();
}

/// The only data child of a rotation; empty if it has none or several.
Object only_data_child(const Namespace& space, PyObject* children) {
  const LabelPath path("fast_path.child");
  Object found;
  std::size_t count = 0;
  for (const Object& child : Items(Object::borrow(children))) {
    if (is_literal_kind(space, host::type_value(space, child, path))) continue;
    if (count++ == 0) found = child;
  }
  return count == 1 ? found : Object();
}

/// A chain of rotations that the road computes, each with a window, down to a known leaf.
Refusal chain_refusal(const Namespace& space, PyObject* graph, PyObject* context) {
  const Names& names = space.names;
  const LabelPath path("fast_path");
  host::WalkPath levels(names.root);
  for (Object node = Object::borrow(graph);;) {
    levels.descend(0);
    const Object kind = host::type_value(space, node, path);
    if (is_leaf_kind(space, kind)) {
      return is_known_feature(space, context, node, path) ? open : "the context lacks the feature";
    }
    if (!equal(kind, names.rotation)) return "a node is neither a rotation nor a leaf";
    const Object name = host::node_value(space, node, path);
    if (!contains(space.global(names._LONGITUDINAL_FAST_NAMES), name)) {
      return "a function is no rolling mean, deviation or z-score";
    }
    if (!registry_holds_stub(space, host::registry_of(space, context), name)) {
      return "the registry has a function of its own, or none";
    }
    const Object children = host::children_of(space, node);
    Object data_child = only_data_child(space, children);
    if (data_child.empty()) return "a function has not just one data child";
    if (call(space.global(names._get_int_window_child), children).is_none()) {
      return "a function has no int window";
    }
    node = std::move(data_child);
  }
}

Refusal longitudinal_refusal(const Namespace& space, PyObject* graph, PyObject* context,
                             PyObject* function_states, PyObject* rows,
                             PyObject* data_nan_features) {
  if (truth(data_nan_features)) return "features are marked as missing data";
  if (compare(rows, space.global(space.names._LONGITUDINAL_FAST_MIN_ROWS), Py_LT)) {
    return "there are too few rows";
  }
  if (function_states != Py_None) return "there are function states to restore";
  const Refusal refusal = refuse_stages(space, context);
  return refusal == open ? chain_refusal(space, graph, context) : refusal;
}

Object can_use_leaf(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<4> parameters{
      "_can_use_leaf_fast_path",
      {"graph", "context", "function_states", "data_nan_features"},
      3,
      3};
  const auto [graph, context, states, data_nan] = parameters.bind(arguments);
  return boolean(leaf_refusal(space, graph, context, states, or_none(data_nan)) == open);
}

Object can_use_simple_rank(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<4> parameters{
      "_can_use_simple_rank_fast_path",
      {"graph", "context", "function_states", "data_nan_features"},
      3,
      3};
  const auto [graph, context, states, data_nan] = parameters.bind(arguments);
  return boolean(simple_rank_refusal(space, graph, context, states, or_none(data_nan)) == open);
}

Object can_use_rank_multiply(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<5> parameters{
      "_can_use_rank_multiply_fast_path",
      {"graph", "context", "function_states", "bound_function_instances", "data_nan_features"},
      3,
      3};
  const auto [graph, context, states, bound, data_nan] = parameters.bind(arguments);
  return boolean(rank_multiply_refusal(space, graph, context, states, or_none(bound),
                                       or_none(data_nan)) == open);
}

Object can_use_longitudinal(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<5> parameters{
      "_can_use_longitudinal_fast_path",
      {"graph", "context", "function_states", "T", "data_nan_features"},
      4,
      4};
  const auto [graph, context, states, rows, data_nan] = parameters.bind(arguments);
  return boolean(longitudinal_refusal(space, graph, context, states, rows, or_none(data_nan)) ==
                 open);
}

Object get_int_window_child(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_get_int_window_child", {"children"}};
  const auto [children] = parameters.bind(arguments);
  const LabelPath window("window");
  Items all(Object::borrow(children));
  for (const Object& child : all) {
    const ChildPath path(window, all.position());
    if (!equal(host::type_value(space, child, path), space.names.int_)) continue;
    return as_integer(host::node_value(space, child, path));
  }
  return Object::none();
}

}  // namespace

PyMethodDef eligibility_functions[] = {
    function_definition<can_use_leaf>(
        "_can_use_leaf_fast_path",
        "_can_use_leaf_fast_path($module, /, graph, context, function_states, *, "
        "data_nan_features=None)\n--\n\n"
        "Tell whether the graph is a single known leaf that can be served without a row loop."),
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
