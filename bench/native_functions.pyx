"""Functions whose calls run no interpreted code; calls and copies with nothing between them."""

from cpython.object cimport PyObject
from libc.math cimport sqrtl
from libc.stdint cimport uint32_t
from libc.stdlib cimport free, malloc
from libc.string cimport memcpy, memset
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


def radix_passes(const uint32_t[::1] keys, Py_ssize_t rows, int first_bit, int digit_bits):
    """Sorts the same keys by two digits, row for row: counts, then a pass for each digit."""
    cdef Py_ssize_t digits = 1 << digit_bits, count = keys.shape[0], row, place, digit
    cdef uint32_t mask = digits - 1, key, low_begin, high_begin, size
    cdef int second_bit = first_bit + digit_bits
    cdef uint32_t *counters = <uint32_t *>malloc((2 * digits + 2 * count) * sizeof(uint32_t))
    if counters == NULL:
        raise MemoryError
    cdef uint32_t *low = counters
    cdef uint32_t *high = low + digits
    cdef uint32_t *spare = high + digits
    cdef uint32_t *ordered = spare + count
    for row in range(rows):
        memset(counters, 0, 2 * digits * sizeof(uint32_t))
        for place in range(count):
            key = keys[place]
            low[(key >> first_bit) & mask] += 1
            high[(key >> second_bit) & mask] += 1
        low_begin = high_begin = 0
        for digit in range(digits):
            size = low[digit]
            low[digit] = low_begin
            low_begin += size
            size = high[digit]
            high[digit] = high_begin
            high_begin += size
        for place in range(count):
            key = keys[place]
            digit = (key >> first_bit) & mask
            spare[low[digit]] = key
            low[digit] += 1
        for place in range(count):
            key = spare[place]
            digit = (key >> second_bit) & mask
            ordered[high[digit]] = key
            high[digit] += 1
    free(counters)
