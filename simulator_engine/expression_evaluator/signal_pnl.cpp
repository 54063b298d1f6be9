#include "expression_evaluator/signal_pnl.hpp"

#include <array>

#include "expression_evaluator/signal_batch.hpp"
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

/// `vector[place] = pnl[row, column]` of the signal, if the pool has it and it has a PnL.
void store_one(const Run& run, PyObject* vector, Py_ssize_t place, PyObject* id, PyObject* column,
               npy_intp row) {
  const host::Names& names = run.space.names;
  const Object signal = call_method(attribute(run.context, names.useful_signals), names.get, id);
  if (signal.is_none() || attribute(signal, names.pnl).is_none()) return;
  const Object key = Object::own(PyTuple_Pack(2, integer(row).get(), column));
  store(vector, place, item(attribute(signal, names.pnl), key));
}

/// The cell of a matrix of native doubles, null for None; false for everything else.
bool find_cell(PyObject* pnl, npy_intp row, npy_intp column, const double*& cell) {
  cell = nullptr;
  if (pnl == Py_None) return true;
  if (!is_double_array(pnl) || PyArray_NDIM(as_array(pnl)) != 2 ||
      row >= PyArray_DIM(as_array(pnl), 0) || column >= PyArray_DIM(as_array(pnl), 1)) {
    return false;
  }
  cell = static_cast<const double*>(PyArray_GETPTR2(as_array(pnl), row, column));
  fetch(cell);
  return true;
}

/// Stores the PnL of the ids to come as long as no foreign code has a part in it.
void store_ahead(const Run& run, PyObject* vector, SequenceIterator& ids, PyObject* column,
                 npy_intp row) {
  const host::Names& names = run.space.names;
  if (!PyLong_CheckExact(column) ||
      !has_plain_attribute(Py_TYPE(run.context.get()), names.useful_signals)) {
    return;
  }
  int overflow = 0;
  const npy_intp place_in_row = PyLong_AsLongAndOverflow(column, &overflow);
  if (overflow != 0 || place_in_row < 0) return;
  const Object signals = attribute(run.context, names.useful_signals);
  if (!run.pool_keys.of(signals)) return;
  SignalBatch batch;
  std::array<const double*, SignalBatch::most> cells;
  while (batch.find(signals, ids.ahead(SignalBatch::most)) && batch.read(names.pnl)) {
    const npy_intp first = ids.position() + 1;
    if (first + static_cast<npy_intp>(batch.size()) > PyArray_DIM(as_array(vector), 0)) return;
    for (std::size_t place = 0; place < batch.size(); ++place) {
      if (!find_cell(batch.values()[place], row, place_in_row, cells[place])) return;
    }
    double* const values = doubles(vector) + first;
    for (std::size_t place = 0; place < batch.size(); ++place) {
      if (cells[place] != nullptr) values[place] = *cells[place];
    }
    ids.skip(batch.size());
  }
}

}  // namespace

Object configured_pnl_column(const Run& run, const graph_prep::Node& node) {
  PyObject* name = run.space.names.pnl_column;
  if (PyDict_CheckExact(node.config.get())) return dict_item(node.config, name);
  return contains(node.config, name) ? item(node.config, name) : Object();
}

void store_pnl_row(const Run& run, PyObject* vector, PyObject* passing_ids, PyObject* column,
                   npy_intp row) {
  SequenceIterator ids(Object::share(passing_ids));
  visit_signals(
      ids, [&] { store_ahead(run, vector, ids, column, row); },
      [&](PyObject* id) { store_one(run, vector, ids.position(), id, column, row); });
}

Object signal_pnl(const Run& run, PyObject* passing_ids, Py_ssize_t count, PyObject* pnl_column,
                  npy_intp row) {
  const host::Names& names = run.space.names;
  Object vector = filled_vector(count, 0.0);
  if (!attribute(run.context, names.signal_pnl_vectors).is_none()) {
    SequenceIterator ids(Object::share(passing_ids));
    for (Object id = ids.next(); !id.empty(); id = ids.next()) {
      store_from_vectors(run, vector, ids.position(), id, pnl_column);
    }
  } else if (truth(pnl_column) && truth(attribute(run.context, names.column_labels))) {
    store_pnl_row(run, vector, passing_ids, column_index(run, pnl_column), row);
  }
  return vector;
}

}  // namespace quernbrook::evaluation
