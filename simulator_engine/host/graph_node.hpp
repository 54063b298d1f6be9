#pragma once

#include "host/namespace.hpp"
#include "python/text.hpp"

// Reading of graph nodes: the one place that touches a node's attributes.
namespace quernbrook::host {

/// Where a node stands in its graph. Spelt only when a message or a key needs the text.
class NodePath {
 public:
  virtual ~NodePath() = default;
  virtual Object text() const = 0;
};

/// A path that a caller has spelt already.
class SpeltPath final : public NodePath {
 public:
  explicit SpeltPath(PyObject* text) : text_(text) {}
  Object text() const override { return Object::borrow(text_); }

 private:
  PyObject* text_;
};

/// A label of our own code, such as "fast_path".
class LabelPath final : public NodePath {
 public:
  explicit LabelPath(const char* label) : label_(label) {}
  Object text() const override { return python::as_text(label_); }

 private:
  const char* label_;
};

/// Raises SchemaError unless `node` is a FunctionGraphNode.
void require_node_instance(const Namespace& space, PyObject* node, const NodePath& path);
bool has_field(const Namespace& space, PyObject* node, PyObject* key);
/// The attribute `key`; empty where the node lacks it.
Object optional_field(const Namespace& space, PyObject* node, PyObject* key);
/// The attribute `key`; EvaluationError where the node lacks it.
Object require_field(const Namespace& space, PyObject* node, PyObject* key, const NodePath& path);
inline Object type_value(const Namespace& space, PyObject* node, const NodePath& path) {
  return require_field(space, node, space.names.type, path);
}
inline Object node_value(const Namespace& space, PyObject* node, const NodePath& path) {
  return require_field(space, node, space.names.node, path);
}
/// The node's own sequence of children, or a new empty list.
Object children_of(const Namespace& space, PyObject* node);
/// The node's explicit configuration itself, or None.
Object explicit_config(const Namespace& space, PyObject* node);
/// A new dict with the node's explicit configuration.
Object config_of(const Namespace& space, PyObject* node);

/// The functions above for a walk over many nodes: a node of a plain class is no more than its
/// dictionary, so that the class is asked once and not for each attribute. Whoever runs foreign
/// code between two calls says so, but for what is done with a kind or a value that is no plain
/// str.
class NodeReader {
 public:
  explicit NodeReader(const Namespace& space) : space_(space) {}

  void require_instance(PyObject* node, const NodePath& path);
  Object type_value(PyObject* node, const NodePath& path) {
    return require(node, space_.names.type, path);
  }
  Object node_value(PyObject* node, const NodePath& path) {
    return require(node, space_.names.node, path);
  }
  Object optional_field(PyObject* node, PyObject* key);
  /// The node's own sequence of children; empty where it has none.
  Object children(PyObject* node);
  /// A new dict with the node's explicit configuration; None where it has none.
  Object config(PyObject* node);

  void foreign_code_ran() noexcept { plain_class_ = nullptr; }

 private:
  Object require(PyObject* node, PyObject* key, const NodePath& path);
  bool is_plain(PyObject* node);
  Object plain_field(PyObject* node, PyObject* key);

  const Namespace& space_;
  PyTypeObject* plain_class_ = nullptr;  // FunctionGraphNode, while it is known to be plain
  bool only_plain_values_ = true;        // no kind, value or sequence with code of its own was met
};

extern PyMethodDef graph_node_functions[];

}  // namespace quernbrook::host
