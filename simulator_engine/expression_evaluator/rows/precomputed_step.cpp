#include "expression_evaluator/rows/precomputed_step.hpp"

#include "host/matrix.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::NodeIndex;

bool PrecomputedStep::is_present(PyObject* canonical_id) const {
  PyObject* outputs = run_.precomputed_outputs;
  const bool cannot_be_there =
      is_exact_text(canonical_id) && is_exact_dict(outputs) && dict_size(outputs) == 0;
  return !cannot_be_there && contains(outputs, canonical_id);
}

bool PrecomputedStep::run(NodeIndex index, npy_intp row) const {
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
  registers_.assign(index, vector);
  return true;
}

}  // namespace quernbrook::evaluation
