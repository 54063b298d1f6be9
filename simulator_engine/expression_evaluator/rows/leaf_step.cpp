#include "expression_evaluator/rows/leaf_step.hpp"

#include <algorithm>
#include <limits>

#include "host/universe.hpp"
#include "kernels/universe_mask.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/dict_insides.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using kernels::RowView;

void LeafStep::run(NodeIndex node, npy_intp row) const {
  if (!run_quickly(node, row)) registers_.assign(node, row_values(node, row));
}

/// False where NumPy's own indexing and assignment have the say, or code of the host's.
bool LeafStep::run_quickly(NodeIndex node, npy_intp row) const {
  PyObject* name = run_.space.names.universe;
  if (!has_plain_attribute(type_of(run_.context), name)) return false;
  const Object universe = attribute(run_.context, name);
  const Object feature = Object::borrow(plain_feature(run_, run_.table.nodes[node]));
  const double* first = registers_.row(0);
  const auto readable = [&](PyObject* matrix, RowView& found) {
    found = find_row(matrix, row, run_.columns);
    return found.cells != nullptr && !overlaps(found, first, registers_.cell_count());
  };
  RowView source;
  RowView mask;
  if (feature.empty() || !readable(feature, source)) return false;
  if (!universe.is_none() && !readable(universe, mask)) return false;
  double* target = registers_.row(node);
  if (run_.data_nan.is_marked(node, row)) {  // the mask's own value, so that it changes nothing
    std::fill_n(target, run_.columns, std::numeric_limits<double>::quiet_NaN());
  } else if (universe.is_none()) {
    kernels::copy_row(source, target);
  } else {
    kernels::mask_universe(source, mask, target);
  }
  return true;
}

/// What belongs into the register, by the array library's own indexing.
Object LeafStep::row_values(NodeIndex index, npy_intp row) const {
  const Node& node = run_.table.nodes[index];
  if (node.feature_index.empty()) raise_missing_path(run_, index);
  const Object key = row_key(row);
  const auto universe = [&] { return attribute(run_.context, run_.space.names.universe); };
  // Missing data gives a row of NaNs whatever the matrix holds.
  const bool is_marked = run_.data_nan.is_marked(index, row);
  const bool is_bare = universe().is_none() && !is_marked;
  const Object source = item(item(run_.features, node.feature_index), key);
  if (is_bare) return source;
  Object data = call_method(source, run_.space.names.copy);
  if (is_marked) data = nan_row(run_);
  Object mask = universe();
  if (!mask.is_none()) mask = item(universe(), key);
  return host::apply_universe_mask(run_.space, data, mask);
}

PyObject* plain_feature(const Run& run, const Node& node) {
  if (!is_exact_sequence(run.features) || node.plain_feature_index < 0) return nullptr;
  const std::span features = items_of(run.features);
  const auto place = static_cast<std::size_t>(node.plain_feature_index);
  return place < features.size() ? features[place] : nullptr;
}

}  // namespace quernbrook::evaluation
