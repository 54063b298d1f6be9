#pragma once

#include "expression_evaluator/rows/registers.hpp"
#include "graph_prep/node_table.hpp"

namespace quernbrook::evaluation {

/// One argument of a function call. Its array serves again as long as the function neither kept nor
/// changed it, which nobody can see; else the next call gets a new one.
class CallArgument {
 public:
  /// A node's register as a vector of the function's own.
  PyObject* copy(const Registers& registers, graph_prep::NodeIndex source);
  /// The live view of a node's register, the same one in every call.
  PyObject* view(const Registers& registers, graph_prep::NodeIndex source);

  /// After the call: lets go of an array that others may still reach or whose form they changed.
  /// Its end may run foreign code, which must find no argument of the next call.
  void end_call(PyObject* result);

 private:
  void adopt(python::Object array);

  python::Object array_;
  python::ArrayForm form_;
};

}  // namespace quernbrook::evaluation
