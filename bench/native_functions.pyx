"""Functions whose calls run no interpreted code; calls and copies with nothing between them."""

from cpython.object cimport PyObject
from libc.math cimport sqrtl
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


def divide_and_root(Py_ssize_t cells, double divisor, int divisions, bint root):
    """The divisions and roots of extended precision that so many cells take, one after the other."""
    cdef double block[512]
    cdef long double value
    cdef Py_ssize_t cell
    cdef volatile double window = divisor
    for cell in range(512):
        block[cell] = 1.0 + 0.001 * cell
    for cell in range(cells):
        value = block[cell & 511] / <long double>window
        if root:
            value = sqrtl(value) / <long double>window
        if divisions == 3:
            value = value / <long double>window
        block[cell & 511] = 1.0 + <double>value
