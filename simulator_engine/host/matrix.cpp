#include "host/matrix.hpp"

#include "python/array.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::host {

using namespace python;

Object as_float64(const Namespace& space, PyObject* object) {
  if (is_double_array(object) && has_plain_dtype(object)) return Object::borrow(object);
  return call_named(space.numpy(space.names.asarray), space.dtype_keyword, object,
                    space.numpy(space.names.float64));
}

Object as_contiguous_float64(const Namespace& space, PyObject* object) {
  // ascontiguousarray makes a vector of a scalar array.
  if (is_contiguous_double_array(object) && has_plain_dtype(object) && dimensions(object) > 0) {
    return Object::borrow(object);
  }
  return call_named(space.numpy(space.names.ascontiguousarray), space.dtype_keyword, object,
                    space.numpy(space.names.float64));
}

void publish_last_row(const Namespace& space, PyObject* context, PyObject* weights) {
  const Object shape = attribute(weights, space.names.shape);
  const Object columns = item(shape, integer(1));
  Object registers;
  if (compare(item(shape, integer(0)), integer(0), Py_GT)) {
    const Object key = tuple_of(slice(integer(-1), nullptr), slice(nullptr, nullptr));
    const Object row = item(weights, key);
    registers = as_contiguous_float64(space, row);
  } else {
    registers = zeros(1, array_size(columns));
  }
  set_attribute(context, space.names.registers, registers);
}

}  // namespace quernbrook::host
