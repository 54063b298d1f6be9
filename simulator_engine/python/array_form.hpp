#pragma once

#include "python/array.hpp"

namespace quernbrook::python {

/// What the owner of an array of one or two dimensions can find changed by others.
struct ArrayForm {
  const void* cells = nullptr;
  const void* dtype = nullptr;  // compared only
  const void* base = nullptr;
  npy_intp rows = 0;  // or the size of a vector
  npy_intp columns = 0;
  npy_intp stride = 0;  // of the first dimension, in bytes
  int dimensions = 0;
  int flags = 0;

  bool operator==(const ArrayForm&) const = default;
};

inline ArrayForm form_of(PyObject* array) {
  const PyArrayObject_fields* fields = array_fields(array);
  ArrayForm form{.cells = fields->data,
                 .dtype = fields->descr,
                 .base = fields->base,
                 .dimensions = fields->nd,
                 .flags = fields->flags};
  if (fields->nd > 0) {
    form.rows = fields->dimensions[0];
    form.stride = fields->strides[0];
  }
  if (fields->nd > 1) form.columns = fields->dimensions[1];
  return form;
}

inline bool is_writeable(PyObject* array) { return PyArray_ISWRITEABLE(as_array(array)); }

/// True if nobody holds the array but the `count` references that the caller knows of.
inline bool has_no_other_holder(PyObject* array, Py_ssize_t count) {
  return Py_REFCNT(array) == count && array_fields(array)->weakreflist == nullptr;
}

}  // namespace quernbrook::python
