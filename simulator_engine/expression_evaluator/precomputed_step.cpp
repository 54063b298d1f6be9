#include "expression_evaluator/precomputed_step.hpp"

#include <cstring>

#include "host/matrix.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::NodeIndex;

bool PrecomputedStep::is_present(PyObject* canonical_id) const {
  PyObject* outputs = run_.precomputed_outputs;
  const bool cannot_be_there = PyUnicode_CheckExact(canonical_id) && PyDict_CheckExact(outputs) &&
                               PyDict_GET_SIZE(outputs) == 0;
  if (cannot_be_there) return false;
  const bool is_there = contains(outputs, canonical_id);
  foreign_code_ran(run_, registers_);
  return is_there;
}

bool PrecomputedStep::run(NodeIndex index, npy_intp row) {
  const Object& canonical_id = run_.table.nodes[index].canonical_id;
  if (canonical_id.is_none() || !is_present(canonical_id)) return false;
  const Object stored = item(run_.precomputed_outputs, canonical_id);
  const Object matrix = host::as_float64(run_.space, stored);
  const Object vector = call_method(matrix, run_.space.names.reshape, integer(-1));
  const Object shape = attribute(vector, run_.space.names.shape);
  if (not_equal(shape, run_.row_shape)) {
    raise(run_.space.global(run_.space.names.EvaluationShapeError),
          message("Precomputed node '", canonical_id, "' returned shape ", shape, ", expected (",
                  run_.column_count, ",) at row ", row));
  }
  assign(registers_.view(index), vector);
  foreign_code_ran(run_, registers_);
  return true;
}

}  // namespace quernbrook::evaluation
