#include "failures.hpp"

#include <nanobind/nanobind.h>

namespace quernbrook::row_kernels::binding {

namespace nb = nanobind;

void raise(const quernbrook_failure& failure) {
  PyObject* type = PyExc_RuntimeError;
  switch (failure.kind) {
    case QUERNBROOK_VALUE_ERROR:
      type = PyExc_ValueError;
      break;
    case QUERNBROOK_TYPE_ERROR:
      type = PyExc_TypeError;
      break;
    case QUERNBROOK_MEMORY_ERROR:
      type = PyExc_MemoryError;
      break;
    default:
      break;
  }
  PyErr_SetString(type, failure.text);
  throw nb::python_error();
}

}  // namespace quernbrook::row_kernels::binding
