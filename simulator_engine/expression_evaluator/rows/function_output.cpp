#include "expression_evaluator/rows/function_output.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
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

bool climbs(Run& run, const Registers& registers, NodeIndex node, npy_intp row) {
  if (!run.data_nan.tracks()) return false;
  return run.data_nan.climbs(run, node, row, [&](NodeIndex child) { return registers.row(child); });
}

void fill(const Registers& registers, NodeIndex node, double value) {
  std::fill_n(registers.row(node), registers.columns(), value);
}

}  // namespace

Object as_row(const Run& run, NodeIndex node, const Object& result, npy_intp row) {
  if (is_plain_row(run, result)) return result;
  if (is_exact_float(result)) return filled_vector(run.columns, float_value(result));
  if (is_ndarray(result)) {
    check_array(run, node, result, run.row_shape, message("(", run.column_count, ",)"), row);
  }
  Object values = empty_vector(run.columns);
  assign(values, result);
  return values;
}

void store_output(Run& run, const Registers& registers, NodeIndex node, const Object& result,
                  npy_intp row) {
  if (climbs(run, registers, node, row)) {
    fill(registers, node, std::numeric_limits<double>::quiet_NaN());
  } else if (is_exact_float(result)) {
    fill(registers, node, float_value(result));
  } else {
    const Object values = as_row(run, node, result, row);
    // A bound function may return a part of the registers.
    std::memmove(registers.row(node), doubles(values), registers.row_bytes());
  }
}

void settle_output(Run& run, const Registers& registers, NodeIndex node, npy_intp row) {
  if (climbs(run, registers, node, row)) {
    fill(registers, node, std::numeric_limits<double>::quiet_NaN());
  }
}

void check_array(const Run& run, NodeIndex node, PyObject* array, PyObject* expected,
                 const Object& spelt, npy_intp row) {
  const host::Names& names = run.space.names;
  const Object& function = run.table.nodes[node].value;
  const Object shape = attribute(array, names.shape);
  if (not_equal(shape, expected)) {
    raise(run.space.global(names.EvaluationShapeError),
          message("Function '", function, "' returned shape ", shape, ", expected ", spelt,
                  " at row ", row));
  }
  const Object dtype = attribute(array, names.dtype);
  if (not_equal(dtype, run.space.numpy(names.float64))) {
    raise(run.space.global(names.EvaluationShapeError),
          message("Function '", function, "' returned dtype ", dtype, ", expected float64 at row ",
                  row));
  }
}

void raise_function_failure(const Run& run, NodeIndex node, npy_intp row) {
  if (!error_matches(PyExc_Exception)) throw ErrorSet{};
  const Handling error;
  const Object text = message("Function '", run.table.nodes[node].value, "' failed at row ", row,
                              ": ", error.value());
  raise_from(run.space.global(run.space.names.FunctionExecutionError), text, error.value());
}

}  // namespace quernbrook::evaluation
