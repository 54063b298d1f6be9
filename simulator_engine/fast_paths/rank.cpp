#include "fast_paths/rank.hpp"

#include "host/feature.hpp"
#include "host/graph_node.hpp"
#include "host/matrix.hpp"
#include "host/universe.hpp"
#include "kernels/rank.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/gil.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::fast_paths {

using namespace python;

namespace {

bool has_ties(const Namespace& space, PyObject* array) {
  const Object numpy = space.global(space.names.np);
  const Object sorted =
      call_named(attribute(numpy, as_text("sort")), space.axis_keyword, array, integer(1));
  const Object right = item(sorted, columns_key(integer(1), nullptr));
  const Object left = item(sorted, columns_key(nullptr, integer(-1)));
  const Object equal_neighbours = comparison(right, left, Py_EQ);
  const Object finite = call(attribute(numpy, space.names.isfinite), right);
  const Object ties = both(equal_neighbours, finite);
  return truth(call(attribute(numpy, as_text("any")), ties));
}

/// What the array library makes of anything but a matrix: its complaint, unless ties come first.
Object rank_other_dimensions(const Namespace& space, PyObject* masked) {
  if (dimensions(masked) < 2) {
    const Object missing = call(space.numpy(space.names.isnan), masked);
    const Object valid = inverse(missing);
    call_named(space.numpy(space.names.sum), space.axis_keyword, valid, integer(1));
  }
  if (has_ties(space, masked)) return Object::none();
  raise_text(PyExc_ValueError, "too many values to unpack (expected 2)");
}

/// The ranks of a matrix under the context's universe; None if two finite values of a row are
/// equal.
Object rank(const Namespace& space, PyObject* data, PyObject* context) {
  PyObject* name = space.names.universe;
  Object masked = Object::borrow(data);
  Object universe;  // where the kernel is to apply it
  if (!attribute(context, name).is_none()) {
    const Object apply = space.global(space.names._apply_universe_mask);
    universe = attribute(context, name);
    const bool kernel_masks = host::is_own_mask_rule(apply) && is_double_matrix(data) &&
                              is_double_matrix(universe) && have_same_shape(data, universe);
    if (!kernel_masks) {
      masked = host::as_float64(space, call(apply, data, universe));
      universe = {};
    }
  }
  masked = aligned(masked);
  if (dimensions(masked) != 2) return rank_other_dimensions(space, masked);
  const kernels::MatrixView values = view_of(masked);
  const kernels::MatrixView mask = universe.empty() ? kernels::MatrixView{} : view_of(universe);
  Object result = uninitialised(values.rows, values.columns);
  double* const target = doubles(result);
  bool is_ranked = false;
  {
    GilRelease release;
    is_ranked = kernels::rank_rows(values, mask, target, [&] { release.look_at_signals(); });
  }
  return is_ranked ? result : Object::none();
}

Object evaluate_simple_rank_fast(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_evaluate_simple_rank_fast", {"graph", "context"}};
  const auto [graph, context] = parameters.bind(arguments);
  const Object leaf = item(host::children_of(space, graph), integer(0));
  const Object name = host::node_value(space, leaf, host::LabelPath("root.c0"));
  const Object position = host::feature_position(space, context, name);
  const Object data = host::feature_matrix(space, context, position);
  return rank(space, data, context);
}

Object evaluate_rank_multiply_fast(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_evaluate_rank_multiply_fast", {"graph", "context"}};
  const auto [graph, context] = parameters.bind(arguments);
  const Object children = host::children_of(space, graph);
  const auto factor = [&](Py_ssize_t place) {
    const Object evaluate = space.global(space.names._evaluate_simple_rank_fast);
    return call(evaluate, item(children, integer(place)), context);
  };
  const Object left = factor(0);
  if (left.is_none()) return left;
  const Object right = factor(1);
  if (right.is_none()) return right;
  const Object product = times(left, right);
  Object result = host::as_contiguous_float64(space, product);
  host::publish_last_row(space, context, result);
  return result;
}

}  // namespace

PyMethodDef rank_functions[] = {
    function_definition<evaluate_simple_rank_fast>(
        "_evaluate_simple_rank_fast",
        "_evaluate_simple_rank_fast($module, /, graph, context)\n--\n\n"
        "Return the ranks of a leaf's rows, float64 of shape (T, N_alloc), or None.\n"
        "\n"
        "A row's smallest value ranks 0.0, its largest 1.0, a lone one 0.5; NaN stays NaN. None\n"
        "if two finite values of a row are equal."),
    function_definition<evaluate_rank_multiply_fast>(
        "_evaluate_rank_multiply_fast",
        "_evaluate_rank_multiply_fast($module, /, graph, context)\n--\n\n"
        "Return the product of the ranks of two leaves, float64 of shape (T, N_alloc), or None\n"
        "if one of them has ties.\n"
        "\n"
        "Sets `context.registers` to its last row."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::fast_paths
