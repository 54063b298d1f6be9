#include "expression_evaluator/leaf_step.hpp"

#include "expression_evaluator/matrix_row.hpp"
#include "fast_paths/kernels/universe_mask.hpp"
#include "host/universe.hpp"
#include "python/call.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;

LeafStep::LeafStep(const Run& run, const Registers& registers)
    : run_(run), registers_(registers), universe_(run, run.space.names.universe) {}

void LeafStep::run(NodeIndex node, npy_intp row) {
  const Object universe = Object::share(universe_.get());
  if (run_quickly(node, universe, row)) return;
  run_slowly(node, universe, row);
  foreign_code_ran();
}

bool LeafStep::run_quickly(NodeIndex node, PyObject* universe, npy_intp row) const {
  if (is_marked(node)) return false;
  PyObject* feature = plain_feature(run_.table.nodes[node]);
  MatrixRow source;
  const auto readable = [&](PyObject* matrix, MatrixRow& found) {
    return find_matrix_row(matrix, row, run_.columns, found) &&
           !overlaps(found, run_.columns, registers_.row(0), registers_.bytes());
  };
  if (feature == nullptr || !readable(feature, source)) return false;
  if (universe == Py_None) {
    copy_matrix_row(source, run_.columns, registers_.row(node));
    return true;
  }
  MatrixRow mask;
  if (!readable(universe, mask)) return false;
  kernels::mask_universe(source.values(), source.step_in_doubles(), mask.values(),
                         mask.step_in_doubles(), registers_.row(node),
                         static_cast<std::size_t>(run_.columns));
  return true;
}

void LeafStep::run_slowly(NodeIndex index, PyObject* universe, npy_intp row) const {
  const Node& node = run_.table.nodes[index];
  if (node.feature_index.empty()) raise_missing_path(run_, index);
  const Object key = row_key(row);
  const Object register_row = registers_.view(index);
  const Object source = item(item(run_.features, node.feature_index), key);
  if (universe == Py_None && !is_marked(index)) {
    assign(register_row, source);
    return;
  }
  Object data = call_method(source, run_.space.names.copy);
  if (is_marked(index)) data = nan_row(run_);
  Object mask = Object::none();
  if (universe != Py_None) mask = item(attribute(run_.context, run_.space.names.universe), key);
  assign(register_row, host::apply_universe_mask(run_.space, data, mask));
}

/// The leaf's matrix, borrowed, if both the sequence and the index are plain; else null.
PyObject* LeafStep::plain_feature(const Node& node) const {
  PyObject* features = run_.features;
  if (!PyTuple_CheckExact(features) && !PyList_CheckExact(features)) return nullptr;
  const Py_ssize_t place = node.plain_feature_index;
  if (place < 0 || place >= PySequence_Fast_GET_SIZE(features)) return nullptr;
  return PySequence_Fast_GET_ITEM(features, place);
}

/// Missing data gives a row of NaNs whatever the matrix holds.
bool LeafStep::is_marked(NodeIndex node) const {
  return run_.tracks_data_nan && run_.is_data_nan[node] != 0;
}

}  // namespace quernbrook::evaluation
