#include "fast_paths/rank.hpp"

#include "fast_paths/kernels/rank.hpp"
#include "host/feature.hpp"
#include "host/graph_node.hpp"
#include "host/matrix.hpp"
#include "host/universe.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/gil.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::fast_paths {

using namespace python;

namespace {

/// A matrix of doubles as the kernels take it.
struct DoubleMatrix {
  const double* data = nullptr;
  std::ptrdiff_t row_step = 0;
  std::ptrdiff_t column_step = 0;
};

bool is_matrix(PyObject* array) { return PyArray_NDIM(as_array(array)) == 2; }

bool is_double_matrix(PyObject* object) { return is_double_array(object) && is_matrix(object); }

DoubleMatrix double_matrix(PyObject* object) {
  constexpr auto size = static_cast<npy_intp>(sizeof(double));
  PyArrayObject* array = as_array(object);
  return {doubles(object), PyArray_STRIDE(array, 0) / size, PyArray_STRIDE(array, 1) / size};
}

bool same_shape(PyObject* left, PyObject* right) {
  return PyArray_DIM(as_array(left), 0) == PyArray_DIM(as_array(right), 0) &&
         PyArray_DIM(as_array(left), 1) == PyArray_DIM(as_array(right), 1);
}

/// `array[:, first:last]`.
Object columns_between(PyObject* array, PyObject* first, PyObject* last) {
  const Object all = Object::own(PySlice_New(nullptr, nullptr, nullptr));
  const Object some = Object::own(PySlice_New(first, last, nullptr));
  return item(array, Object::own(PyTuple_Pack(2, all.get(), some.get())));
}

bool has_ties(const Namespace& space, PyObject* array) {
  const Object numpy = space.global(space.names.np);
  const Object sorted =
      call_named(attribute(numpy, as_text("sort")), space.axis_keyword, array, integer(1));
  const Object right = columns_between(sorted, integer(1), nullptr);
  const Object left = columns_between(sorted, nullptr, integer(-1));
  const Object equal_neighbours = Object::own(PyObject_RichCompare(right, left, Py_EQ));
  const Object finite = call(attribute(numpy, space.names.isfinite), right);
  const Object ties = Object::own(PyNumber_And(equal_neighbours, finite));
  return truth(call(attribute(numpy, as_text("any")), ties));
}

/// What the array library makes of anything but a matrix: its complaint, unless ties come first.
Object rank_other_dimensions(const Namespace& space, PyObject* masked) {
  if (PyArray_NDIM(as_array(masked)) < 2) {
    const Object missing = call(space.numpy(space.names.isnan), masked);
    const Object valid = Object::own(PyNumber_Invert(missing));
    call_named(space.numpy(space.names.sum), space.axis_keyword, valid, integer(1));
  }
  if (has_ties(space, masked)) return Object::none();
  raise_text(PyExc_ValueError, "too many values to unpack (expected 2)");
}

/// The ranks of a matrix under a universe; None if two finite values of a row are equal.
Object rank(const Namespace& space, PyObject* data, PyObject* universe) {
  Object masked = Object::share(data);
  bool masks_itself = true;
  if (universe != Py_None) {
    const Object apply = space.global(space.names._apply_universe_mask);
    masks_itself = host::is_own_mask_rule(apply) && is_double_matrix(data) &&
                   is_double_matrix(universe) && same_shape(data, universe);
    if (!masks_itself) masked = host::as_float64(space, call(apply, data, universe));
  }
  if (!is_matrix(masked)) return rank_other_dimensions(space, masked);
  masked = aligned(masked);
  const DoubleMatrix values = double_matrix(masked);
  const DoubleMatrix mask =
      masks_itself && universe != Py_None ? double_matrix(universe) : DoubleMatrix{};
  PyArrayObject* shape = as_array(masked);
  Object result = Object::own(PyArray_SimpleNew(2, PyArray_DIMS(shape), NPY_DOUBLE));
  bool is_ranked = false;
  {
    const GilRelease release;
    is_ranked = kernels::rank_rows(values.data, values.row_step, values.column_step, mask.data,
                                   mask.row_step, mask.column_step, doubles(result),
                                   static_cast<std::size_t>(PyArray_DIM(shape, 0)),
                                   static_cast<std::size_t>(PyArray_DIM(shape, 1)));
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
  return rank(space, data, attribute(context, space.names.universe));
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
  const Object product = Object::own(PyNumber_Multiply(left, right));
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
