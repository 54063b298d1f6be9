#include "expression_evaluator/signal_pnl.hpp"

#include "python/array.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/sequence_iterator.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;

namespace {

bool is_plain_float(PyObject* value) {
  return PyFloat_CheckExact(value) || Py_TYPE(value) == &PyDoubleArrType_Type;
}

/// `vector[place] = value`.
void store(PyObject* vector, Py_ssize_t place, PyObject* value) {
  if (is_plain_float(value) && place < PyArray_DIM(as_array(vector), 0)) {
    doubles(vector)[place] = PyFloat_AS_DOUBLE(value);
  } else {
    set_item(vector, integer(place), value);
  }
}

void store_from_vectors(const Run& run, PyObject* vector, Py_ssize_t place, PyObject* id,
                        PyObject* pnl_column) {
  PyObject* name = run.space.names.signal_pnl_vectors;
  if (!contains(attribute(run.context, name), id)) return;
  const Object values = item(attribute(run.context, name), id);
  if (contains(values, pnl_column)) store(vector, place, item(values, pnl_column));
}

Object column_index(const Run& run, PyObject* pnl_column) {
  const host::Names& names = run.space.names;
  try {
    return call_method(attribute(run.context, names.column_labels), names.index, pnl_column);
  } catch (const ErrorSet&) {
    if (!error_matches(PyExc_ValueError)) throw;
    const Handling error;
    const Object labels = attribute(run.context, names.column_labels);
    raise(run.space.evaluation_error(),
          message("PnL column '", pnl_column, "' not found in column_labels: ", labels));
  }
}

/// Does what store_signal_pnl() does where no foreign code has a part in it; else false.
bool store_quickly(const Run& run, PyObject* signals, PyObject* vector, Py_ssize_t place,
                   PyObject* id, PyObject* column, npy_intp row) {
  if (!PyDict_CheckExact(signals) || !PyUnicode_CheckExact(id) || !PyLong_CheckExact(column)) {
    return false;
  }
  const Object signal = dict_item(signals, id);
  if (signal.empty()) return true;
  const Object pnl = plain_attribute(signal, run.space.names.pnl);
  if (pnl.empty() || !is_double_array(pnl) || PyArray_NDIM(as_array(pnl)) != 2) return false;
  PyArrayObject* matrix = as_array(pnl);
  int overflow = 0;
  const npy_intp place_in_row = PyLong_AsLongAndOverflow(column, &overflow);
  if (overflow != 0 || place_in_row < 0 || place_in_row >= PyArray_DIM(matrix, 1) ||
      row >= PyArray_DIM(matrix, 0) || place >= PyArray_DIM(as_array(vector), 0)) {
    return false;
  }
  doubles(vector)[place] = *static_cast<double*>(PyArray_GETPTR2(matrix, row, place_in_row));
  return true;
}

}  // namespace

Object configured_pnl_column(const Run& run, const graph_prep::Node& node) {
  PyObject* name = run.space.names.pnl_column;
  if (PyDict_CheckExact(node.config.get())) return dict_item(node.config, name);
  return contains(node.config, name) ? item(node.config, name) : Object();
}

void store_signal_pnl(const Run& run, PyObject* vector, Py_ssize_t place, PyObject* id,
                      PyObject* column, npy_intp row) {
  const host::Names& names = run.space.names;
  const Object signals = attribute(run.context, names.useful_signals);
  if (store_quickly(run, signals, vector, place, id, column, row)) return;
  const Object signal = call_method(signals, names.get, id);
  if (signal.is_none() || attribute(signal, names.pnl).is_none()) return;
  const Object key = Object::own(PyTuple_Pack(2, integer(row).get(), column));
  store(vector, place, item(attribute(signal, names.pnl), key));
}

Object signal_pnl(const Run& run, PyObject* passing_ids, Py_ssize_t count, PyObject* pnl_column,
                  npy_intp row) {
  const host::Names& names = run.space.names;
  Object vector = filled_vector(count, 0.0);
  const auto for_each_id = [&](auto&& body) {
    SequenceIterator ids(Object::share(passing_ids));
    for (Object id = ids.next(); !id.empty(); id = ids.next()) body(ids.position(), id);
  };
  if (!attribute(run.context, names.signal_pnl_vectors).is_none()) {
    for_each_id([&](Py_ssize_t place, PyObject* id) {
      store_from_vectors(run, vector, place, id, pnl_column);
    });
  } else if (truth(pnl_column) && truth(attribute(run.context, names.column_labels))) {
    const Object column = column_index(run, pnl_column);
    for_each_id([&](Py_ssize_t place, PyObject* id) {
      store_signal_pnl(run, vector, place, id, column, row);
    });
  }
  return vector;
}

}  // namespace quernbrook::evaluation
