#include "arrays.hpp"

#include <numpy/arrayobject.h>

#include <string>

namespace quernbrook::row_kernels::binding {
namespace {

PyArrayObject* as_array(nb::handle object) noexcept {
  return reinterpret_cast<PyArrayObject*>(object.ptr());
}

nb::object to_array(nb::handle object, int dimensions, const char* name, const char* what) {
  if (PyArray_CheckExact(object.ptr()) && PyArray_TYPE(as_array(object)) == NPY_DOUBLE &&
      PyArray_NDIM(as_array(object)) == dimensions && PyArray_ISCARRAY_RO(as_array(object))) {
    return nb::borrow(object);
  }
  constexpr int form = NPY_ARRAY_CARRAY_RO | NPY_ARRAY_FORCECAST | NPY_ARRAY_ENSUREARRAY;
  PyObject* array =
      PyArray_FromAny(object.ptr(), PyArray_DescrFromType(NPY_DOUBLE), 0, 0, form, nullptr);
  if (array == nullptr) throw nb::python_error();
  nb::object owner = nb::steal(array);
  const int found = PyArray_NDIM(as_array(owner));
  if (found != dimensions) {
    const std::string text = std::string(name) + ": " + what + " must have " +
                             std::to_string(dimensions) + " dimension(s); got " +
                             std::to_string(found);
    throw nb::value_error(text.c_str());
  }
  return owner;
}

}  // namespace

void import_numpy() {
  if (PyArray_ImportNumPyAPI() < 0) throw nb::python_error();
}

Array row_of(nb::handle object, const char* name) {
  nb::object owner = to_array(object, 1, name, "a row");
  PyArrayObject* array = as_array(owner);
  const auto* cells = static_cast<const double*>(PyArray_DATA(array));
  return {std::move(owner), cells, 1, PyArray_DIM(array, 0)};
}

Array block_of(nb::handle object, const char* name) {
  nb::object owner = to_array(object, 2, name, "a block of signals");
  PyArrayObject* array = as_array(owner);
  const auto* cells = static_cast<const double*>(PyArray_DATA(array));
  return {std::move(owner), cells, PyArray_DIM(array, 0), PyArray_DIM(array, 1)};
}

WritableBlock writable_block_of(nb::object object, const char* name) {
  auto* array = reinterpret_cast<PyArrayObject*>(object.ptr());
  if (!PyArray_Check(object.ptr()) || PyArray_TYPE(array) != NPY_DOUBLE ||
      PyArray_NDIM(array) != 2 || !PyArray_ISCARRAY(array)) {
    const std::string text = std::string(name) +
                             " needs a writable, C-ordered float64 array of two dimensions; got " +
                             Py_TYPE(object.ptr())->tp_name;
    throw nb::type_error(text.c_str());
  }
  auto* cells = static_cast<double*>(PyArray_DATA(array));
  return {std::move(object), cells, PyArray_DIM(array, 0), PyArray_DIM(array, 1)};
}

NewRow new_row(std::ptrdiff_t columns) {
  npy_intp shape = columns;
  PyObject* array = PyArray_SimpleNew(1, &shape, NPY_DOUBLE);
  if (array == nullptr) throw nb::python_error();
  auto* cells = static_cast<double*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(array)));
  return {nb::steal(array), cells};
}

nb::list to_lists(const double* cells, std::size_t rows, std::size_t columns) {
  const auto new_list = [](std::size_t length) {
    PyObject* list = PyList_New(static_cast<Py_ssize_t>(length));
    if (list == nullptr) throw nb::python_error();
    return nb::steal<nb::list>(list);
  };
  nb::list lists = new_list(rows);
  for (std::size_t row = 0; row < rows; ++row) {
    nb::list numbers = new_list(columns);
    for (std::size_t column = 0; column < columns; ++column) {
      PyObject* number = PyFloat_FromDouble(*cells++);
      if (number == nullptr) throw nb::python_error();
      PyList_SET_ITEM(numbers.ptr(), static_cast<Py_ssize_t>(column), number);
    }
    PyList_SET_ITEM(lists.ptr(), static_cast<Py_ssize_t>(row), numbers.release().ptr());
  }
  return lists;
}

std::vector<double> from_lists(nb::handle lists, std::size_t rows, std::size_t& columns,
                               const char* name) {
  std::vector<double> cells;
  std::size_t found = 0;
  columns = 0;
  for (nb::handle item : nb::borrow<nb::object>(lists)) {
    const Array row = row_of(item, name);
    const auto width = static_cast<std::size_t>(row.columns);
    if (found++ == 0) columns = width;
    if (width != columns) {
      const std::string text = "row has " + std::to_string(width) +
                               " values; the window holds rows of " + std::to_string(columns);
      throw nb::value_error(text.c_str());
    }
    cells.insert(cells.end(), row.cells, row.cells + width);
  }
  // A sequence may tell another length than it has.
  if (found != rows) {
    const std::string text =
        "got " + std::to_string(found) + " rows of a sequence of " + std::to_string(rows);
    throw nb::value_error(text.c_str());
  }
  return cells;
}

}  // namespace quernbrook::row_kernels::binding
