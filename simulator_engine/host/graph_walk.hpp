#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/graph_node.hpp"
#include "python/gil.hpp"
#include "python/items.hpp"

namespace quernbrook::host {

using python::Items;

/// `f"{parent}.c{position}"`.
Object child_path(PyObject* parent, Py_ssize_t position);

/// The path of a child of the node at `parent`.
class ChildPath final : public NodePath {
 public:
  ChildPath(const NodePath& parent, Py_ssize_t position) : parent_(parent), position_(position) {}
  Object text() const override;

 private:
  const NodePath& parent_;
  Py_ssize_t position_;
};

/// The way from the root down to the node that a walk is at. It lives on the heap and every level
/// counts as a recursion: however deep the graph, a walk ends in a result or in RecursionError.
class WalkPath final : public NodePath {
 public:
  explicit WalkPath(PyObject* root_path) : root_path_(root_path) {}
  WalkPath(const WalkPath&) = delete;
  WalkPath& operator=(const WalkPath&) = delete;
  ~WalkPath() override;

  void descend(Py_ssize_t position);
  void ascend() noexcept;
  Object text() const override;
  /// The current node's place among its siblings.
  Py_ssize_t position() const noexcept { return positions_.back(); }

 private:
  PyObject* root_path_;
  std::vector<Py_ssize_t> positions_;  // each node's place among its siblings, the root's too
  // The text below the root as far as it was last asked for, and where each level's part ends.
  mutable std::string spelt_;
  mutable std::vector<std::size_t> ends_;
};

/// Walks a graph depth first. `enter(node, path)` looks at a node before its children and returns
/// a frame with the member `children`, an Items; `leave(frame, path)` follows once all of
/// its children have been left.
template <class Enter, class Leave>
void walk_graph(PyObject* graph, PyObject* root_path, Enter&& enter, Leave&& leave) {
  WalkPath path(root_path);
  path.descend(0);
  // A graph that shares its children has many more paths than nodes.
  python::Turns turns;
  std::vector<decltype(enter(graph, path))> frames;
  frames.push_back(enter(graph, path));
  while (!frames.empty()) {
    turns.offer();
    const Object child = frames.back().children.next();
    if (child.empty()) {
      auto frame = std::move(frames.back());
      frames.pop_back();
      leave(frame, path);
      path.ascend();
    } else {
      path.descend(frames.back().children.position());
      frames.push_back(enter(child, path));
    }
  }
}

}  // namespace quernbrook::host
