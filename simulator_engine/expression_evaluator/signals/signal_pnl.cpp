#include "expression_evaluator/signals/signal_pnl.hpp"

#include "expression_evaluator/signals/signal_pool.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;

namespace {

/// `vector[place] = value`.
void store(PyObject* vector, Py_ssize_t place, PyObject* value) {
  const bool is_number = is_exact_float(value) || is_numpy_float64(value);
  if (is_number && place < dimension(vector, 0)) {
    doubles(vector)[place] = float_value(value);
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
void store_cell(const Run& run, PyObject* vector, Py_ssize_t place, PyObject* id, PyObject* column,
                npy_intp row) {
  const host::Names& names = run.space.names;
  const Object signal = call_method(attribute(run.context, names.useful_signals), names.get, id);
  if (signal.is_none() || attribute(signal, names.pnl).is_none()) return;
  const Object key = tuple_of(integer(row), column);
  store(vector, place, item(attribute(signal, names.pnl), key));
}

/// The same where the PnL is None or a matrix of doubles; false elsewhere.
bool store_plain_cell(PyObject* vector, Py_ssize_t place, PyObject* pnl, Py_ssize_t column,
                      npy_intp row) {
  if (pnl == Py_None) return true;
  if (column < 0 || !is_double_matrix(pnl) || column >= dimension(pnl, 1) ||
      place >= dimension(vector, 0)) {
    return false;
  }
  const kernels::RowView source = find_row(pnl, row, dimension(pnl, 1));
  if (source.cells == nullptr) return false;
  doubles(vector)[place] = source.cells[column * source.stride];
  return true;
}

}  // namespace

Object pnl_column_of(const Run& run, const graph_prep::Node& node, PyObject* fallback) {
  PyObject* name = run.space.names.pnl_column;
  if (is_exact_dict(node.config)) {
    Object column = dict_item(node.config, name);
    return column.empty() ? Object::borrow(fallback) : column;
  }
  return contains(node.config, name) ? item(node.config, name) : Object::borrow(fallback);
}

Object pnl_row(Run& run, PyObject* passing_ids, Py_ssize_t count, PyObject* column, npy_intp row) {
  Object vector = filled_vector(count, 0.0);
  const Py_ssize_t place_in_row = is_exact_int(column) ? plain_index(column) : -1;
  SignalReader pnl_of(run, run.space.names.pnl);
  Items ids(Object::borrow(passing_ids));
  for (const Object& id : ids) {
    if (!ids.is_plain()) pnl_of.forget();
    const Object pnl = pnl_of.plain(id);
    if (!pnl.empty() && store_plain_cell(vector, ids.position(), pnl, place_in_row, row)) continue;
    pnl_of.forget();
    store_cell(run, vector, ids.position(), id, column, row);
  }
  return vector;
}

Object signal_pnl(Run& run, PyObject* passing_ids, Py_ssize_t count, PyObject* pnl_column,
                  npy_intp row) {
  const host::Names& names = run.space.names;
  if (!attribute(run.context, names.signal_pnl_vectors).is_none()) {
    Object vector = filled_vector(count, 0.0);
    Items ids(Object::borrow(passing_ids));
    for (const Object& id : ids) {
      store_from_vectors(run, vector, ids.position(), id, pnl_column);
    }
    return vector;
  }
  if (truth(pnl_column) && truth(attribute(run.context, names.column_labels))) {
    return pnl_row(run, passing_ids, count, column_index(run, pnl_column), row);
  }
  return filled_vector(count, 0.0);
}

}  // namespace quernbrook::evaluation
