#include "filtration/filter_tree.hpp"

#include <initializer_list>
#include <vector>

#include "filtration/filter_operands.hpp"
#include "host/graph_walk.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::filtration {

using namespace python;
using host::NodePath;

Object make_filtration_node_types() {
  const Object kinds = new_set();
  for (const char* kind : {"filtration", "gt", "lt", "gte", "lte", "eq", "neq", "between", "in_",
                           "and_", "or_", "not_", "top_pct", "bottom_pct", "top_n", "bottom_n"}) {
    add_to_set(kinds, as_text(kind));
  }
  return frozen_set_of(kinds);
}

namespace {

/// The filter nodes among a node's children; what stands between them is kept as operands.
class FilterChildren {
 public:
  FilterChildren(const Namespace& space, Object children, const NodePath& path)
      : space_(space), children_(std::move(children)), path_(path) {}

  Object next() {
    while (true) {
      Object child = children_.next();
      if (child.empty()) return child;
      const host::ChildPath child_path(path_, position());
      const Object kind = host::type_value(space_, child, child_path);
      if (contains(space_.global(space_.names.FILTRATION_NODE_TYPES), kind)) return child;
      take_operand(child, kind, child_path);
    }
  }
  Py_ssize_t position() const noexcept { return children_.position(); }
  const FilterOperands& operands() const noexcept { return operands_; }

 private:
  void take_operand(PyObject* child, PyObject* kind, const NodePath& path) {
    const host::Names& names = space_.names;
    if (equal(kind, names.string)) {
      operands_.strings.push_back(host::node_value(space_, child, path));
    } else if (equal(kind, names.float_)) {
      operands_.floats.push_back(host::node_value(space_, child, path));
    } else if (equal(kind, names.int_)) {
      operands_.integers.push_back(host::node_value(space_, child, path));
    }
  }

  const Namespace& space_;
  Items children_;
  const NodePath& path_;  // of the node whose children these are, while they are asked for
  FilterOperands operands_;
};

Object convert(const Namespace& space, PyObject* graph_node, PyObject* root_path) {
  struct Frame {
    Object operation;
    FilterChildren children;
  };
  // The converted children of every node that is still open, the innermost last.
  std::vector<Object> converted{new_list()};
  const auto enter = [&](PyObject* node, const NodePath& path) {
    Object operation = host::node_value(space, node, path);
    Frame frame{std::move(operation), FilterChildren(space, host::children_of(space, node), path)};
    converted.push_back(new_list());
    return frame;
  };
  const auto leave = [&](const Frame& frame, const NodePath&) {
    const Object parameters = filter_parameters(frame.operation, frame.children.operands());
    const Object children = std::move(converted.back());
    converted.pop_back();
    const Object filter = call_named(space.global(space.names.FilterNode), space.filter_keywords,
                                     frame.operation, parameters, children);
    append(converted.back(), filter);
  };
  host::walk_graph(graph_node, root_path, enter, leave);
  return Object::borrow(items_of(converted.back())[0]);
}

/// The children that a description goes down to.
class DescribedChildren {
 public:
  DescribedChildren(Object children, Py_ssize_t most)
      : children_(std::move(children)), most_(most) {}

  Object next() { return most_-- > 0 ? children_.next() : Object(); }
  Py_ssize_t position() const noexcept { return children_.position(); }

 private:
  Items children_;
  Py_ssize_t most_;
};

/// Filters as texts for messages: only some operators show what they are applied to.
class Description {
 public:
  struct Frame {
    Object name;
    bool has_operands;
    DescribedChildren children;
  };

  explicit Description(const Namespace& space) : space_(space) {}

  Frame enter(PyObject* node, const NodePath& path) {
    const Object operation = host::node_value(space_, node, path);
    const Object children = host::children_of(space_, node);
    described_.push_back(new_list());
    // An operator of a subclass of str may have a text of its own, which shows for some only.
    if (equal(operation, space_.names.filtration)) return enter_filtration(children);
    const Object gt = as_text("gt");
    if (equal(operation, gt)) return enter_comparison(gt, children, path);
    if (is_logical(operation)) return {operation, true, {children, PY_SSIZE_T_MAX}};
    return {operation, false, {children, 0}};
  }

  void leave(const Frame& frame) {
    const Object parts = std::move(described_.back());
    described_.pop_back();
    append(described_.back(), frame.has_operands ? message(frame.name, "(", join(", ", parts), ")")
                                                 : as_text(frame.name));
  }

  Object text() const { return Object::borrow(items_of(described_.back())[0]); }

 private:
  Frame enter_filtration(const Object& children) const {
    const Object& name = space_.names.filtration;
    if (!truth(children)) return {name, true, {children, 0}};
    return {name, true, {tuple_of(item(children, integer(0))), 1}};
  }

  /// Its operands' values are the parts; it has no filters below it.
  Frame enter_comparison(const Object& name, const Object& children, const NodePath& path) const {
    Items operands(children);
    for (const Object& child : operands) {
      const host::ChildPath child_path(path, operands.position());
      append(described_.back(), as_text(host::node_value(space_, child, child_path)));
    }
    return {name, true, {children, 0}};
  }

  static bool is_logical(PyObject* operation) {
    for (const char* name : {"and_", "or_", "not_"}) {
      if (equal(operation, as_text(name))) return true;
    }
    return false;
  }

  const Namespace& space_;
  // The parts of every filter that is still open, the innermost last, below them the whole.
  std::vector<Object> described_{new_list()};
};

Object describe(const Namespace& space, PyObject* graph_node, PyObject* root_path) {
  Description description(space);
  const auto enter = [&](PyObject* node, const NodePath& path) {
    return description.enter(node, path);
  };
  const auto leave = [&](const Description::Frame& frame, const NodePath&) {
    description.leave(frame);
  };
  host::walk_graph(graph_node, root_path, enter, leave);
  return description.text();
}

Object or_filtration(const Namespace& space, PyObject* path) {
  return path == nullptr ? space.names.filtration : Object::borrow(path);
}

Object dict_to_filter_node(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_dict_to_filter_node", {"graph_node", "path"}, 1};
  const auto [graph_node, path] = parameters.bind(arguments);
  return convert(space, graph_node, or_filtration(space, path));
}

Object describe_dict_filter(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_describe_dict_filter", {"node", "path"}, 1};
  const auto [node, path] = parameters.bind(arguments);
  return describe(space, node, or_filtration(space, path));
}

}  // namespace

PyMethodDef filter_tree_functions[] = {
    function_definition<dict_to_filter_node>(
        "_dict_to_filter_node",
        "_dict_to_filter_node($module, /, graph_node, path='filtration')\n--\n\n"
        "Convert a filter subtree of the graph into the library's FilterNode tree."),
    function_definition<describe_dict_filter>(
        "_describe_dict_filter",
        "_describe_dict_filter($module, /, node, path='filtration')\n--\n\n"
        "Build a human-readable description of a dict-format filter tree."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::filtration
