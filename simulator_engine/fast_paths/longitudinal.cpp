#include "fast_paths/longitudinal.hpp"

#include <algorithm>
#include <limits>
#include <vector>

#include "fast_paths/eligibility.hpp"
#include "fast_paths/rolling_formula.hpp"
#include "host/feature.hpp"
#include "host/graph_node.hpp"
#include "host/graph_walk.hpp"
#include "host/matrix.hpp"
#include "kernels/rolling.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/gil.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::fast_paths {

using namespace python;
using host::LabelPath;
using host::Names;
using kernels::RollingStatistic;

namespace {

Object feature_matrix_for_fast_path(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_feature_matrix_for_fast_path", {"node", "context"}};
  const auto [node, context] = parameters.bind(arguments);
  const Names& names = space.names;
  const Object name = host::node_value(space, node, LabelPath("fast_path.feature"));
  const Object position = host::feature_position(space, context, name);
  const Object data = host::feature_matrix(space, context, position);
  const Object masked =
      call(space.global(names._apply_universe_mask), data, attribute(context, names.universe));
  return host::as_contiguous_float64(space, masked);
}

Object nan_matrix(npy_intp rows, npy_intp columns) {
  Object matrix = uninitialised(rows, columns);
  std::fill_n(doubles(matrix), rows * columns, std::numeric_limits<double>::quiet_NaN());
  return matrix;
}

RollingStatistic statistic_of(const Namespace& space, PyObject* name) {
  if (equal(name, space.names.longitudinal_mean)) return RollingStatistic::mean;
  if (equal(name, space.names.longitudinal_std)) return RollingStatistic::standard_deviation;
  return RollingStatistic::z_score;
}

Object rolling_by_kernel(PyObject* matrix, npy_intp window, RollingStatistic statistic) {
  const kernels::MatrixView data = view_of(matrix);
  Object result = uninitialised(data.rows, data.columns);
  double* const target = doubles(result);
  GilRelease release;
  kernels::rolling(statistic, data, static_cast<std::size_t>(window), target,
                   [&] { release.look_at_signals(); });
  return result;
}

Object rolling_longitudinal_fast(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<3> parameters{"_rolling_longitudinal_fast",
                                            {"data", "window", "name"}};
  const auto [input, window, name] = parameters.bind(arguments);
  const Object data = host::as_float64(space, input);
  const auto [rows, columns] = unpack_pair(attribute(data, space.names.shape));
  if (compare(rows, window, Py_LT)) {
    return nan_matrix(array_size(rows), array_size(columns));
  }
  const RollingStatistic statistic = statistic_of(space, name);
  if ((is_exact_int(window) || is_bool(window)) && compare(window, integer(1), Py_GE)) {
    const Object matrix = aligned(data);
    if (is_double_matrix(matrix) && compare(integer(dimension(matrix, 0)), window, Py_GE)) {
      return rolling_by_kernel(matrix, index_value(window), statistic);
    }
  }
  const Object out = nan_matrix(array_size(rows), array_size(columns));
  return rolling_by_formula(space, data, out, window, statistic == RollingStatistic::mean,
                            statistic == RollingStatistic::standard_deviation);
}

/// The first child that is no literal; None if there is none, which graph access then refuses.
Object first_data_child(const Namespace& space, PyObject* children) {
  const LabelPath parent("fast_path.eval");
  Items all(Object::borrow(children));
  for (const Object& child : all) {
    const Object kind = host::type_value(space, child, host::ChildPath(parent, all.position()));
    if (!is_literal_kind(space, kind)) return child;
  }
  return Object::none();
}

Object evaluate_longitudinal_fast_node(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_evaluate_longitudinal_fast_node",
                                            {"node", "context"}};
  const auto [graph, context] = parameters.bind(arguments);
  const Names& names = space.names;
  const LabelPath path("fast_path.eval");
  struct Rotation {
    Object node;
    Object children;
  };
  // Down the chain to its leaf, then up again.
  std::vector<Rotation> chain;
  host::WalkPath levels(names.root);
  Object node = Object::borrow(graph);
  while (true) {
    levels.descend(0);
    if (is_leaf_kind(space, host::type_value(space, node, path))) break;
    const Object children = host::children_of(space, node);
    Object data_child = first_data_child(space, children);
    chain.push_back({std::move(node), children});
    node = std::move(data_child);
  }
  Object data = call(space.global(names._feature_matrix_for_fast_path), node, context);
  for (; !chain.empty(); chain.pop_back()) {
    const Rotation& rotation = chain.back();
    const Object window = call(space.global(names._get_int_window_child), rotation.children);
    const Object name = host::node_value(space, rotation.node, path);
    data = call(space.global(names._rolling_longitudinal_fast), data, window, name);
  }
  return data;
}

Object evaluate_longitudinal_fast(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_evaluate_longitudinal_fast", {"graph", "context"}};
  const auto [graph, context] = parameters.bind(arguments);
  const Object evaluate = space.global(space.names._evaluate_longitudinal_fast_node);
  return host::as_contiguous_float64(space, call(evaluate, graph, context));
}

}  // namespace

PyMethodDef longitudinal_functions[] = {
    function_definition<feature_matrix_for_fast_path>(
        "_feature_matrix_for_fast_path",
        "_feature_matrix_for_fast_path($module, /, node, context)\n--\n\n"
        "Return a leaf's masked matrix, C-contiguous float64 of shape (T, N_alloc)."),
    function_definition<rolling_longitudinal_fast>(
        "_rolling_longitudinal_fast",
        "_rolling_longitudinal_fast($module, /, data, window, name)\n--\n\n"
        "Return a rolling statistic of every column, float64 of shape (T, N_alloc).\n"
        "\n"
        "`name` is \"longitudinal_mean\", \"longitudinal_std\" (population) or\n"
        "\"longitudinal_zscore\". A cell is NaN unless the whole window that ends at its row is\n"
        "free of NaN. Window sums are differences of running totals in extended precision."),
    function_definition<evaluate_longitudinal_fast_node>(
        "_evaluate_longitudinal_fast_node",
        "_evaluate_longitudinal_fast_node($module, /, node, context)\n--\n\n"
        "Evaluate a chain of rolling rotations from its leaf up."),
    function_definition<evaluate_longitudinal_fast>(
        "_evaluate_longitudinal_fast",
        "_evaluate_longitudinal_fast($module, /, graph, context)\n--\n\n"
        "Evaluate a chain of rolling rotations into C-contiguous float64 of shape (T, N_alloc)."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::fast_paths
