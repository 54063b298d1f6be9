#pragma once

#include "python/object.hpp"

namespace quernbrook::python {

/// Makes the class of the iterators below.
Object make_attribute_iterator_class(PyObject* module);

/// An iterator over two attributes of `object`, each read when it is asked for.
Object attribute_iterator(PyObject* iterator_class, PyObject* object, PyObject* first,
                          PyObject* second);

}  // namespace quernbrook::python
