#include "expression_evaluator/signals/extraction_buffer.hpp"

#include "python/array.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;

namespace {

/// `block[place, :] = context.useful_signals[id].weights[row, :]`. The block may be changed by
/// whatever foreign code that runs.
void copy_signal_row(Run& run, SignalReader& weights_of, PyObject* id, npy_intp row,
                     PyObject* block, npy_intp place) {
  Object weights = weights_of.plain(id);
  if (weights.empty()) {
    weights_of.forget();
    const host::Names& names = run.space.names;
    weights = attribute(item(attribute(run.context, names.useful_signals), id), names.weights);
  }
  const kernels::RowView source = find_row(weights, row, run.columns);
  if (source.cells != nullptr && is_writeable_block(block, run.columns) &&
      place < dimension(block, 0) && !overlaps(source, doubles(block), cell_count(block))) {
    kernels::copy_row(source, doubles(block) + place * run.columns);
    return;
  }
  weights_of.forget();
  const Object values = item(weights, row_key(row));
  set_item(block, row_key(place), values);
}

}  // namespace

void ExtractionBuffer::fill(PyObject* passing_ids, Py_ssize_t count, npy_intp row) {
  fit(count);
  weights_.forget();
  Items ids(Object::borrow(passing_ids));
  for (const Object& id : ids) {
    if (!ids.is_plain()) weights_.forget();
    const Object buffer = run_.extraction_buffer;
    copy_signal_row(run_, weights_, id, row, buffer, ids.position());
  }
}

Object extract_block(Run& run, PyObject* passing_ids, Py_ssize_t count, npy_intp row) {
  Object block = zeros(count, run.columns);
  SignalReader weights(run, run.space.names.weights);
  Items ids(Object::borrow(passing_ids));
  for (const Object& id : ids) {
    if (!ids.is_plain()) weights.forget();
    copy_signal_row(run, weights, id, row, block, ids.position());
  }
  return block;
}

/// A buffer of any other number of rows is replaced, not sliced.
void ExtractionBuffer::fit(Py_ssize_t count) {
  Object& buffer = run_.extraction_buffer;
  if (!buffer.is_none() && dimensions(buffer) == 0) {
    raise_text(PyExc_IndexError, "tuple index out of range");
  }
  if (buffer.is_none() || dimension(buffer, 0) != count) buffer = zeros(count, run_.columns);
}

Object ExtractionBuffer::first_rows(Py_ssize_t count) const {
  const Object& buffer = run_.extraction_buffer;
  if (buffer.is_none()) raise_text(PyExc_TypeError, "'NoneType' object is not subscriptable");
  // A stateful reduction can reach the buffer behind its view and change its form.
  if (is_writeable_block(buffer, run_.columns)) return first_rows_view(buffer, count);
  return item(buffer, tuple_of(slice(nullptr, integer(count)), slice(nullptr, nullptr)));
}

void ExtractionBuffer::check(PyObject* rows) const {
  if (is_within_base(rows)) return;
  raise_text(PyExc_RuntimeError,
             "a function changed the memory of the run's extraction buffer while it was in use; "
             "functions may read and write the rows that they are given, but not resize the array "
             "behind them");
}

Object ExtractionBuffer::mean(PyObject* rows) {
  // NumPy adds a single column pairwise.
  if (is_contiguous_double_array(rows) && dimensions(rows) == 2 && dimension(rows, 0) > 0 &&
      dimension(rows, 1) > 1) {
    Object result = empty_vector(dimension(rows, 1));
    if (sums_.mean(view_of(rows), doubles(result))) return result;
  }
  return numpy_mean(run_, rows);
}

Object numpy_mean(const Run& run, PyObject* rows) {
  const Object mean = run.space.numpy(run.space.names.mean);
  return call_named(mean, run.space.axis_keyword, rows, integer(0));
}

}  // namespace quernbrook::evaluation
