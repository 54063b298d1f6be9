#include "expression_evaluator/rows/function_output.hpp"

#include <algorithm>
#include <cstring>

#include "python/array.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;

namespace {

/// One row of doubles without gaps, nearly every function's result.
bool is_plain_row(const Run& run, PyObject* result) {
  return is_contiguous_double_array(result) && dimensions(result) == 1 &&
         dimension(result, 0) == run.columns;
}

bool is_ndarray(PyObject* object) {
  if (is_exact_float(object) || is_exact_int(object)) return false;
  return is_array(object) || is_instance(object, array_type());
}

void check_array(const Run& run, const Node& node, PyObject* result, npy_intp row) {
  const Object shape = attribute(result, run.space.names.shape);
  if (not_equal(shape, run.row_shape)) {
    raise(run.space.global(run.space.names.EvaluationShapeError),
          message("Function '", node.value, "' returned shape ", shape, ", expected (",
                  run.column_count, ",) at row ", row));
  }
  const Object dtype = attribute(result, run.space.names.dtype);
  if (not_equal(dtype, run.space.numpy(run.space.names.float64))) {
    raise(run.space.global(run.space.names.EvaluationShapeError),
          message("Function '", node.value, "' returned dtype ", dtype,
                  ", expected float64 at row ", row));
  }
}

}  // namespace

void store_output(const Run& run, const Registers& registers, NodeIndex node, PyObject* result,
                  npy_intp row) {
  if (is_plain_row(run, result)) {
    // A bound function may return a part of the registers.
    std::memmove(registers.row(node), doubles(result), registers.row_bytes());
    return;
  }
  if (is_exact_float(result)) {
    std::fill_n(registers.row(node), run.columns, float_value(result));
    return;
  }
  if (is_ndarray(result)) check_array(run, run.table.nodes[node], result, row);
  registers.assign(node, result);
}

void raise_function_failure(const Run& run, NodeIndex node, npy_intp row) {
  if (!error_matches(PyExc_Exception)) throw ErrorSet{};
  const Handling error;
  const Object text = message("Function '", run.table.nodes[node].value, "' failed at row ", row,
                              ": ", error.value());
  raise_from(run.space.global(run.space.names.FunctionExecutionError), text, error.value());
}

}  // namespace quernbrook::evaluation
