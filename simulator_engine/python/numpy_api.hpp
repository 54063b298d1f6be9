#pragma once

#include <Python.h>

// One translation unit fills the table of NumPy's functions, all others refer to it.
#ifndef EXPRESSION_EVALUATOR_IMPORTS_NUMPY
#define NO_IMPORT_ARRAY
#endif
#include <numpy/arrayobject.h>
