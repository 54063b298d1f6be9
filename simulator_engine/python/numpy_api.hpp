#pragma once

#include <Python.h>

// One translation unit fills the table of NumPy's functions, all others refer to it.
#ifndef EXPRESSION_EVALUATOR_IMPORTS_NUMPY
#define NO_IMPORT_ARRAY
#endif
#include <numpy/arrayobject.h>

namespace quernbrook::python {

/// To be called once, before anything else of NumPy is used; false with a Python error set.
bool import_numpy();

}  // namespace quernbrook::python
