#pragma once

#include "expression_evaluator/registers.hpp"
#include "graph_prep/node_table.hpp"

namespace quernbrook::evaluation {

/// One argument of a function call, over all rows. Its array serves again as long as the function
/// neither kept nor changed it, which nobody can see; else the next row gets a new one.
class CallArgument {
 public:
  CallArgument() = default;
  explicit CallArgument(graph_prep::NodeIndex source) : source_(source) {}

  /// The source's register as a vector of the function's own.
  PyObject* copy(const Registers& registers);
  /// The live view of the source's register.
  PyObject* view(const Registers& registers);

 private:
  bool is_untouched(npy_intp columns, PyObject* base) const;
  void adopt(Object array);

  graph_prep::NodeIndex source_ = graph_prep::no_node;
  Object array_;
  void* data_ = nullptr;
  int flags_ = 0;
  PyArray_Descr* dtype_ = nullptr;  // NumPy's own and immortal
};

}  // namespace quernbrook::evaluation
