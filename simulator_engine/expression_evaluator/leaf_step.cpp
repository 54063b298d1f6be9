#include "expression_evaluator/leaf_step.hpp"

#include <algorithm>
#include <limits>

#include "expression_evaluator/matrix_row.hpp"
#include "fast_paths/kernels/universe_mask.hpp"
#include "host/universe.hpp"
#include "python/call.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;

LeafStep::LeafStep(Run& run, const Registers& registers)
    : run_(run), registers_(registers), universe_(run, run.space.names.universe) {}

void LeafStep::run(NodeIndex node, npy_intp row) {
  if (universe_.is_plain() && run_quickly(node, universe_.get(), row)) return;
  run_slowly(node, row);
}

bool LeafStep::run_quickly(NodeIndex node, PyObject* universe, npy_intp row) const {
  PyObject* feature = plain_feature(run_.table.nodes[node]);
  MatrixRow source;
  const auto readable = [&](PyObject* matrix, MatrixRow& found) {
    return find_matrix_row(matrix, row, run_.columns, found) &&
           !overlaps(found, run_.columns, registers_.row(0), registers_.bytes());
  };
  if (feature == nullptr || !readable(feature, source)) return false;
  MatrixRow mask;
  if (universe != Py_None && !readable(universe, mask)) return false;
  if (is_marked(node)) {  // the mask's own value, so that it changes nothing
    std::fill_n(registers_.row(node), run_.columns, std::numeric_limits<double>::quiet_NaN());
    return true;
  }
  if (universe == Py_None) {
    copy_matrix_row(source, run_.columns, registers_.row(node));
    return true;
  }
  kernels::mask_universe(source.values(), source.step_in_doubles(), mask.values(),
                         mask.step_in_doubles(), registers_.row(node),
                         static_cast<std::size_t>(run_.columns));
  return true;
}

void LeafStep::run_slowly(NodeIndex node, npy_intp row) {
  const Object values = row_values(node, row);
  foreign_code_ran(run_, registers_);
  assign(registers_.view(node), values);
  foreign_code_ran(run_, registers_);
}

/// What belongs into the register, by the array library's own indexing.
Object LeafStep::row_values(NodeIndex index, npy_intp row) const {
  const Node& node = run_.table.nodes[index];
  if (node.feature_index.empty()) raise_missing_path(run_, index);
  const Object key = row_key(row);
  const auto universe = [&] { return attribute(run_.context, run_.space.names.universe); };
  const bool is_bare = universe().is_none() && !is_marked(index);
  const Object source = item(item(run_.features, node.feature_index), key);
  if (is_bare) return source;
  Object data = call_method(source, run_.space.names.copy);
  if (is_marked(index)) data = nan_row(run_);
  Object mask = universe();
  if (!mask.is_none()) mask = item(universe(), key);
  return host::apply_universe_mask(run_.space, data, mask);
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
