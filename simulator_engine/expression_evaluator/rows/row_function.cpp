#include "expression_evaluator/rows/row_function.hpp"

#include <algorithm>
#include <cstring>

#include "expression_evaluator/rows/function_output.hpp"
#include "python/call.hpp"
#include "python/capsule.hpp"
#include "python/error.hpp"
#include "python/special_method.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

namespace {

[[noreturn]] void refuse(const Run& run, NodeIndex node, const Object& reason) {
  raise(
      run.space.global(run.space.names.FunctionExecutionError),
      message("Function '", run.table.nodes[node].value, "' at node '",
              run.table.path(run.space, node), "' offers a kernel that cannot be used: ", reason));
}

/// The method that opts in; empty where the type has none, or None to take back an inherited one.
Object offer_of(PyObject* instance, PyObject* name) {
  Object method = special_method(instance, name);
  return method.is_none() ? Object{} : method;
}

/// The kernel that the method `name` of the instance's type hands out.
template <class Structure>
Kernel<Structure> ask(const Run& run, NodeIndex node, PyObject* name, const char* capsule_name) {
  const Object method = offer_of(run.table.nodes[node].instance, name);
  if (method.empty()) return {};
  Object capsule = call(method);
  if (capsule.is_none()) return {};
  if (!is_capsule(capsule)) {
    refuse(
        run, node,
        message("expected a capsule named '", capsule_name, "' or None; got ", type_name(capsule)));
  }
  const auto* offered = static_cast<const Structure*>(capsule_pointer(capsule, capsule_name));
  if (offered == nullptr) {
    const char* other = python::capsule_name(capsule);
    refuse(run, node,
           message("its capsule is named '", decoded(other == nullptr ? "" : other), "' and not '",
                   capsule_name, "'"));
  }
  if (offered->size < sizeof(Structure)) {
    refuse(run, node,
           message("its structure has a size of ", static_cast<npy_intp>(offered->size),
                   " bytes; at least ", static_cast<npy_intp>(sizeof(Structure)), " are needed"));
  }
  if (offered->run == nullptr) refuse(run, node, as_text("it has no function to run"));
  return {std::move(capsule), *offered};
}

PyObject* exception_type(std::int32_t kind) {
  switch (kind) {
    case QUERNBROOK_VALUE_ERROR:
      return PyExc_ValueError;
    case QUERNBROOK_TYPE_ERROR:
      return PyExc_TypeError;
    case QUERNBROOK_ZERO_DIVISION_ERROR:
      return PyExc_ZeroDivisionError;
    case QUERNBROOK_OVERFLOW_ERROR:
      return PyExc_OverflowError;
    case QUERNBROOK_FLOATING_POINT_ERROR:
      return PyExc_FloatingPointError;
    case QUERNBROOK_MEMORY_ERROR:
      return PyExc_MemoryError;
    default:
      return PyExc_RuntimeError;
  }
}

}  // namespace

RowFunctions::RowFunctions(const Run& run) : functions_(run.table.nodes.size()) {
  const host::Names& names = run.space.names;
  for (const NodeIndex index : run.table.functions) {
    const Node& node = run.table.nodes[index];
    if (node.instance.empty()) continue;
    RowFunction& function = functions_[index];
    if (node.kind == NodeKind::reduction) {
      function.reduction = ask<quernbrook_reduction_kernel>(run, index, names.reduction_kernel_,
                                                            QUERNBROOK_REDUCTION_KERNEL_CAPSULE);
    } else if (node.kind == NodeKind::rotation) {
      function.kernel =
          ask<quernbrook_row_kernel>(run, index, names.row_kernel_, QUERNBROOK_ROW_KERNEL_CAPSULE);
      if (function.kernel.empty()) {
        function.block = offer_of(node.instance, names.row_block_);
      }
    }
    any_ |= !function.kernel.empty() || !function.reduction.empty() || !function.block.empty();
  }
}

void raise_kernel_failure(const Run& run, NodeIndex node, const quernbrook_failure& failure,
                          npy_intp first, npy_intp count) {
  const auto size = static_cast<std::size_t>(
      std::find(failure.text, failure.text + sizeof failure.text, '\0') - failure.text);
  const Object told = decoded({failure.text, size});
  const bool is_possible = failure.row >= 0 && failure.row < count;
  try {
    if (is_possible) raise(exception_type(failure.kind), told);
    raise(PyExc_RuntimeError,
          message("the kernel told of row offset ", failure.row, " of ", count, " rows: ", told));
  } catch (const ErrorSet&) {
    raise_function_failure(run, node, is_possible ? first + failure.row : first);
  }
}

}  // namespace quernbrook::evaluation
