#include "host/matrix.hpp"

#include "python/array.hpp"
#include "python/call.hpp"
#include "python/protocol.hpp"

namespace quernbrook::host {

using namespace python;

namespace {

/// A dtype of the host's may carry metadata, which a conversion drops.
bool has_plain_dtype(PyObject* array) {
  PyArray_Descr* plain = PyArray_DescrFromType(NPY_DOUBLE);
  const bool is_plain = PyArray_DESCR(as_array(array)) == plain;
  Py_DECREF(plain);
  return is_plain;
}

}  // namespace

Object as_float64(const Namespace& space, PyObject* object) {
  if (is_double_array(object) && has_plain_dtype(object)) return Object::share(object);
  return call_named(space.numpy(space.names.asarray), space.dtype_keyword, object,
                    space.numpy(space.names.float64));
}

Object as_contiguous_float64(const Namespace& space, PyObject* object) {
  // ascontiguousarray makes a vector of a scalar array.
  if (is_contiguous_double_array(object) && has_plain_dtype(object) &&
      PyArray_NDIM(as_array(object)) > 0) {
    return Object::share(object);
  }
  return call_named(space.numpy(space.names.ascontiguousarray), space.dtype_keyword, object,
                    space.numpy(space.names.float64));
}

void publish_last_row(const Namespace& space, PyObject* context, PyObject* weights) {
  const Object shape = attribute(weights, space.names.shape);
  const Object columns = item(shape, integer(1));
  Object registers;
  if (compare(item(shape, integer(0)), integer(0), Py_GT)) {
    const Object last = Object::own(PySlice_New(integer(-1), nullptr, nullptr));
    const Object all = Object::own(PySlice_New(nullptr, nullptr, nullptr));
    const Object row = item(weights, Object::own(PyTuple_Pack(2, last.get(), all.get())));
    registers = as_contiguous_float64(space, row);
  } else {
    registers = zeros(1, index_value(columns));
  }
  set_attribute(context, space.names.registers, registers);
}

}  // namespace quernbrook::host
