#include "host/universe.hpp"

#include <algorithm>

#include "kernels/universe_mask.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/gil.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::host {

using namespace python;

namespace {

Object mask_contiguous(PyObject* data, PyObject* universe) {
  constexpr npy_intp cells_at_once = 1 << 18;
  Object result = uninitialised_like(data);
  const npy_intp count = cell_count(data);
  const double* values = doubles(data);
  const double* mask = doubles(universe);
  double* target = doubles(result);
  GilRelease release;
  for (npy_intp first = 0; first < count; first += cells_at_once) {
    const npy_intp part = std::min(cells_at_once, count - first);
    kernels::mask_universe({values + first, 1, part}, {mask + first, 1, part}, target + first);
    release.look_at_signals();
  }
  return result;
}

}  // namespace

Object apply_universe_mask(const Namespace& space, PyObject* data, PyObject* universe) {
  if (universe == Py_None) return Object::borrow(data);
  if (is_contiguous_double_array(data) && is_contiguous_double_array(universe) &&
      dimensions(data) > 0 && have_same_shape(data, universe)) {
    return mask_contiguous(data, universe);
  }
  const Names& names = space.names;
  const Object zero = real_number(0.0);
  const Object is_zero = comparison(universe, zero, Py_EQ);
  const Object is_nan = call(space.numpy(names.isnan), universe);
  const Object inactive = either(is_zero, is_nan);
  return call(space.numpy(names.where), inactive, space.numpy(names.nan), data);
}

Object universe_mask(const Namespace& space, PyObject* context, PyObject* rows, PyObject* columns) {
  const Names& names = space.names;
  if (attribute(context, names.universe).is_none()) {
    if (is_exact_int(rows) && is_exact_int(columns)) {
      return byte_ones(array_size(rows), array_size(columns));
    }
    return call_named(space.numpy(names.ones), space.dtype_keyword, tuple_of(rows, columns),
                      space.numpy(names.uint8));
  }
  const Object is_finite = call(space.numpy(names.isfinite), attribute(context, names.universe));
  const Object zero = real_number(0.0);
  const Object is_not_zero = comparison(attribute(context, names.universe), zero, Py_NE);
  const Object active = both(is_finite, is_not_zero);
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
  return is_native_function(function, universe_functions[0]);
}

}  // namespace quernbrook::host
