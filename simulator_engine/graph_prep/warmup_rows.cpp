#include "graph_prep/warmup_rows.hpp"

#include <vector>

#include "host/graph_walk.hpp"
#include "host/registry.hpp"
#include "host/state_adapters.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::graph_prep {

using namespace python;
using host::NodePath;

namespace {

/// The children whose rows a node may have to wait for.
class WaitedForChildren {
 public:
  WaitedForChildren(const host::Names& names, host::NodeReader& reader, Object children,
                    const NodePath& path)
      : names_(names), reader_(reader), children_(std::move(children)), path_(path) {}

  Object next() {
    while (true) {
      Object child = children_.next();
      if (child.empty()) return child;
      const Object kind = reader_.type_value(child, host::ChildPath(path_, position()));
      const bool is_literal =
          equal(kind, names_.int_) || equal(kind, names_.float_) || equal(kind, names_.string);
      if (!is_literal) return child;
    }
  }
  Py_ssize_t position() const noexcept { return children_.position(); }

 private:
  const host::Names& names_;
  host::NodeReader& reader_;
  Items children_;
  const NodePath& path_;
};

struct Frame {
  Object node;
  Object child_sequence;
  WaitedForChildren children;
};

/// A child's figure, kept until its parent has been worked out.
struct ChildWarmup {
  Object node;
  Py_ssize_t position;
  Object rows;
};

class WarmupFigure {
 public:
  WarmupFigure(const Namespace& space, PyObject* registry)
      : space_(space), registry_(registry), reader_(space) {}

  Frame enter(PyObject* node, const NodePath& path) {
    Object children = reader_.children(node);
    waited_for_.emplace_back();
    return Frame{Object::borrow(node), children,
                 WaitedForChildren(space_.names, reader_, children, path)};
  }

  void leave(const Frame& frame, Py_ssize_t position, const NodePath& path) {
    const std::vector<ChildWarmup> children = std::move(waited_for_.back());
    waited_for_.pop_back();
    Object rows = rows_of(frame, children, path);
    if (waited_for_.empty()) {
      root_rows_ = std::move(rows);
    } else {
      waited_for_.back().push_back({frame.node, position, std::move(rows)});
    }
  }

  Object root_rows() const { return root_rows_; }

 private:
  Object rows_of(const Frame& frame, const std::vector<ChildWarmup>& children,
                 const NodePath& path) {
    const host::Names& names = space_.names;
    Object largest = integer(0);
    for (const ChildWarmup& child : children) largest = larger(largest, child.rows);

    const Object kind = reader_.type_value(frame.node, path);
    const bool is_rotation = equal(kind, names.rotation);
    if ((!is_rotation && !equal(kind, names.reduction)) || registry_ == Py_None) return largest;
    const Object function_name = reader_.node_value(frame.node, path);
    reader_.foreign_code_ran();
    if (!host::registry_has(space_, registry_, function_name)) return largest;
    const Object entry = host::registry_entry(space_, registry_, function_name);
    if (!truth(attribute_or(entry, names.stateful, Py_False))) return largest;
    const Object window = window_of(frame, path);
    if (!compare(window, integer(1), Py_GT)) return largest;

    Object own = minus(window, integer(1));
    // A reduction starts anew over its pool: its children's rows are not waited for.
    if (!is_rotation) return own;
    Object before = integer(0);
    for (const ChildWarmup& child : children) {
      const host::ChildPath child_path(path, child.position);
      if (equal(reader_.type_value(child.node, child_path), names.rotation)) {
        before = larger(before, child.rows);
      }
    }
    return plus(own, before);
  }

  /// The largest of the int children, whatever they became in the configuration.
  Object window_of(const Frame& frame, const NodePath& path) {
    Object window = integer(0);
    Items children(frame.child_sequence);
    for (const Object& child : children) {
      const host::ChildPath child_path(path, children.position());
      if (!equal(reader_.type_value(child, child_path), space_.names.int_)) continue;
      const Object value = reader_.node_value(child, child_path);
      attempt({PyExc_TypeError, PyExc_ValueError},
              [&] { window = larger(window, as_integer(value)); });
    }
    return window;
  }

  const Namespace& space_;
  PyObject* registry_;
  host::NodeReader reader_;
  std::vector<std::vector<ChildWarmup>> waited_for_;  // for every open node
  Object root_rows_;
};

Object compute_graph_warmup_rows(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<3> parameters{
      "_compute_graph_warmup_rows", {"graph_node", "registry", "path"}, 2};
  const auto [graph_node, registry, path] = parameters.bind(arguments);
  WarmupFigure figure(space, registry);
  const auto enter = [&](PyObject* node, const NodePath& at) { return figure.enter(node, at); };
  const auto leave = [&](const Frame& frame, const host::WalkPath& at) {
    figure.leave(frame, at.position(), at);
  };
  host::walk_graph(graph_node, path == nullptr ? space.names.root.get() : path, enter, leave);
  return figure.root_rows();
}

Object get_warmup_count_for_instance(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_get_warmup_count_for_instance", {"instance"}};
  const auto [instance] = parameters.bind(arguments);
  const host::Names& names = space.names;
  const Object data = host::function_state_data(space, call_method(instance, names.get_state));
  if (!truth(data)) return integer(0);
  Object count = integer(0);
  attempt({PyExc_TypeError, PyExc_ValueError},
          [&] { count = as_integer(call_method(data, names.get, names.count, integer(0))); });
  return count;
}

}  // namespace

PyMethodDef warmup_functions[] = {
    function_definition<compute_graph_warmup_rows>(
        "_compute_graph_warmup_rows",
        "_compute_graph_warmup_rows($module, /, graph_node, registry, path='root')\n--\n\n"
        "Return the number of leading output rows that must remain warmup NaNs."),
    function_definition<get_warmup_count_for_instance>(
        "_get_warmup_count_for_instance",
        "_get_warmup_count_for_instance($module, /, instance)\n--\n\n"
        "Return the number of rows a stateful instance has already consumed.\n"
        "\n"
        "Lets get_state() failures propagate; the call site is responsible for binding\n"
        "instance/node identity to the structured error log."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::graph_prep
