"""Functions whose calls run no interpreted code; calls and copies with nothing between them."""

from cpython.object cimport PyObject
from libc.stdlib cimport free, malloc
from libc.string cimport memcpy
import numpy

cdef extern from "Python.h":
    object PyObject_Vectorcall(
        object function, PyObject *const *arguments, size_t count, PyObject *names
    )

add_rows = numpy.add


def passing(row, context=None):
    return row


def passing_first(*rows, context=None):
    return rows[0]


def adding(left, right, context=None):
    """numpy.add for a caller that passes a context, which that refuses."""
    return add_rows(left, right)


passing.stateful = passing_first.stateful = adding.stateful = False


def call_repeatedly(function, tuple arguments, tuple names, Py_ssize_t times):
    """Calls whose last arguments have these names; nothing stands between one and the next."""
    cdef Py_ssize_t place, total = len(arguments)
    cdef size_t positional = total - len(names)
    cdef PyObject *keywords = <PyObject *>names if names else NULL
    cdef PyObject **stack = <PyObject **>malloc((total + 1) * sizeof(PyObject *))
    if stack == NULL:
        raise MemoryError
    try:
        for place in range(total):
            stack[place] = <PyObject *>arguments[place]
        for place in range(times):
            PyObject_Vectorcall(function, stack, positional, keywords)
    finally:
        free(stack)


def copy_along(size_t address, Py_ssize_t rows, size_t row_bytes, Py_ssize_t times):
    """Copies each row of a matrix into the next, as functions in a chain hand a row on."""
    cdef char *matrix = <char *>address
    cdef Py_ssize_t row, turn
    for turn in range(times):
        for row in range(1, rows):
            memcpy(matrix + row * row_bytes, matrix + (row - 1) * row_bytes, row_bytes)
