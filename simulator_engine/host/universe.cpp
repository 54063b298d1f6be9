#include "host/universe.hpp"

#include <algorithm>

#include "fast_paths/kernels/universe_mask.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/gil.hpp"
#include "python/protocol.hpp"

namespace quernbrook::host {

using namespace python;

namespace {

bool same_shape(PyObject* left, PyObject* right) {
  PyArrayObject* first = as_array(left);
  PyArrayObject* second = as_array(right);
  return PyArray_NDIM(first) == PyArray_NDIM(second) &&
         std::equal(PyArray_DIMS(first), PyArray_DIMS(first) + PyArray_NDIM(first),
                    PyArray_DIMS(second));
}

Object mask_contiguous(PyObject* data, PyObject* universe) {
  PyArrayObject* source = as_array(data);
  Object result =
      Object::own(PyArray_SimpleNew(PyArray_NDIM(source), PyArray_DIMS(source), NPY_DOUBLE));
  const auto count = static_cast<std::size_t>(PyArray_SIZE(source));
  const double* values = doubles(data);
  const double* mask = doubles(universe);
  double* target = doubles(result);
  {
    const GilRelease release;
    kernels::mask_universe(values, 1, mask, 1, target, count);
  }
  return result;
}

}  // namespace

Object apply_universe_mask(const Namespace& space, PyObject* data, PyObject* universe) {
  if (universe == Py_None) return Object::share(data);
  if (is_contiguous_double_array(data) && is_contiguous_double_array(universe) &&
      PyArray_NDIM(as_array(data)) > 0 && same_shape(data, universe)) {
    return mask_contiguous(data, universe);
  }
  const Names& names = space.names;
  const Object zero = Object::own(PyFloat_FromDouble(0.0));
  const Object is_zero = Object::own(PyObject_RichCompare(universe, zero, Py_EQ));
  const Object is_nan = call(space.numpy(names.isnan), universe);
  const Object inactive = Object::own(PyNumber_Or(is_zero, is_nan));
  return call(space.numpy(names.where), inactive, space.numpy(names.nan), data);
}

Object universe_mask(const Namespace& space, PyObject* context, npy_intp rows, npy_intp columns) {
  const Names& names = space.names;
  if (attribute(context, names.universe).is_none()) {
    npy_intp shape[] = {rows, columns};
    Object mask = Object::own(PyArray_SimpleNew(2, shape, NPY_UINT8));
    std::fill_n(static_cast<npy_uint8*>(PyArray_DATA(as_array(mask))), rows * columns,
                npy_uint8{1});
    return mask;
  }
  const Object is_finite = call(space.numpy(names.isfinite), attribute(context, names.universe));
  const Object zero = Object::own(PyFloat_FromDouble(0.0));
  const Object is_not_zero =
      Object::own(PyObject_RichCompare(attribute(context, names.universe), zero, Py_NE));
  const Object active = Object::own(PyNumber_And(is_finite, is_not_zero));
  const Object bytes = call_method(active, names.astype, space.numpy(names.uint8));
  return call(space.numpy(names.ascontiguousarray), bytes);
}

namespace {

Object call_apply_universe_mask(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_apply_universe_mask", {"data", "universe"}};
  const auto [data, universe] = parameters.bind(arguments);
  return apply_universe_mask(space, data, universe);
}

}  // namespace

PyMethodDef universe_functions[] = {
    function_definition<call_apply_universe_mask>(
        "_apply_universe_mask",
        "_apply_universe_mask($module, /, data, universe)\n--\n\n"
        "Return `data` with NaN where `universe` equals 0.0 or is NaN.\n"
        "\n"
        "Both are arrays of shape (T, N_alloc) or (N_alloc,). The result is a new array, or\n"
        "`data` itself if `universe` is None."),
    {nullptr, nullptr, 0, nullptr},
};

bool is_own_mask_rule(PyObject* function) {
  return PyCFunction_CheckExact(function) &&
         PyCFunction_GET_FUNCTION(function) == universe_functions[0].ml_meth;
}

}  // namespace quernbrook::host
