#include "expression_evaluator/extraction_buffer.hpp"

#include <algorithm>

#include "expression_evaluator/matrix_row.hpp"
#include "expression_evaluator/signal_batch.hpp"
#include "expression_evaluator/signal_rows.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;

ExtractionBuffer::ExtractionBuffer(Run& run)
    : run_(run), useful_signals_(run, run.space.names.useful_signals) {}

void ExtractionBuffer::fill(PyObject* passing_ids, Py_ssize_t count, npy_intp row) {
  fit(count);
  has_sums_ = adds_up_;
  if (has_sums_) sums_.begin(static_cast<std::size_t>(run_.columns));
  SequenceIterator ids(Object::share(passing_ids));
  const auto ahead = [&] {
    if (!useful_signals_.is_plain()) return;
    copy_signal_rows(run_, useful_signals_.get(), ids, row, run_.extraction_buffer,
                     has_sums_ ? &sums_ : nullptr);
  };
  const auto one = [&](PyObject* id) {
    if (!ids.is_plain()) ++run_.foreign_code_count;
    has_sums_ = false;
    copy_row(id, ids.position(), row);
  };
  visit_signals(ids, ahead, one);
  if (!ids.is_plain()) ++run_.foreign_code_count;
  if (has_sums_) sums_.end();
  const bool is_whole = ids.position() + 1 == count;
  // Others may write to it.
  const bool is_shared = Py_REFCNT(run_.extraction_buffer.get()) > 1 ||
                         array_fields(run_.extraction_buffer)->weakreflist != nullptr;
  if (!is_whole || is_shared) has_sums_ = false;
}

/// A buffer of any other number of rows is replaced, not sliced.
void ExtractionBuffer::fit(Py_ssize_t count) {
  if (!run_.extraction_buffer.is_none() && PyArray_NDIM(as_array(run_.extraction_buffer)) == 0) {
    raise_text(PyExc_IndexError, "tuple index out of range");
  }
  if (run_.extraction_buffer.is_none() || length(run_.extraction_buffer) != count) {
    run_.extraction_buffer = zeros(count, run_.columns);
  }
}

/// A stateful reduction can reach the buffer behind its view and change its form.
bool ExtractionBuffer::has_its_form() const {
  return is_writeable_block(run_.extraction_buffer, run_.columns);
}

void ExtractionBuffer::copy_row(PyObject* id, Py_ssize_t place, npy_intp row) {
  PyObject* name = run_.space.names.weights;
  const Object signals = Object::share(useful_signals_.get());
  const Object signal = item(signals, id);
  const bool is_plain = PyDict_CheckExact(signals.get()) && PyUnicode_CheckExact(id) &&
                        has_plain_attribute(Py_TYPE(signal.get()), name);
  const Object weights = attribute(signal, name);
  if (!is_plain) ++run_.foreign_code_count;
  PyArrayObject* buffer = as_array(run_.extraction_buffer);
  MatrixRow source;
  if (has_its_form() && place < PyArray_DIM(buffer, 0) &&
      find_matrix_row(weights, row, run_.columns, source) &&
      !overlaps(source, run_.columns, PyArray_DATA(buffer),
                static_cast<std::size_t>(PyArray_NBYTES(buffer)))) {
    copy_matrix_row(source, run_.columns, doubles(run_.extraction_buffer) + place * run_.columns);
    return;
  }
  const Object values = item(weights, row_key(row));
  set_item(run_.extraction_buffer, row_key(place), values);
  ++run_.foreign_code_count;
}

Object ExtractionBuffer::first_rows(Py_ssize_t count) const {
  if (run_.extraction_buffer.is_none()) {
    raise_text(PyExc_TypeError, "'NoneType' object is not subscriptable");
  }
  PyObject* buffer = run_.extraction_buffer;
  if (!has_its_form()) {
    const Object first = Object::own(PySlice_New(nullptr, integer(count), nullptr));
    const Object all = Object::own(PySlice_New(nullptr, nullptr, nullptr));
    return item(buffer, Object::own(PyTuple_Pack(2, first.get(), all.get())));
  }
  npy_intp shape[] = {std::min<npy_intp>(count, PyArray_DIM(as_array(buffer), 0)), run_.columns};
  Object rows = Object::own(PyArray_New(&PyArray_Type, 2, shape, NPY_DOUBLE, nullptr,
                                        doubles(buffer), 0, NPY_ARRAY_CARRAY, nullptr));
  checked(PyArray_SetBaseObject(as_array(rows), Py_NewRef(buffer)));
  return rows;
}

Object ExtractionBuffer::mean(PyObject* rows) {
  // NumPy adds a single column pairwise.
  if (PyArray_NDIM(as_array(rows)) == 2 && PyArray_DIM(as_array(rows), 0) > 0 &&
      PyArray_DIM(as_array(rows), 1) == run_.columns && run_.columns > 1 &&
      is_contiguous_double_array(rows)) {
    Object result = empty_vector(run_.columns);
    if (mean_by_kernel(rows, doubles(result))) return result;
  }
  const host::Names& names = run_.space.names;
  return call_named(run_.space.numpy(names.mean), run_.space.axis_keyword, rows, integer(0));
}

bool ExtractionBuffer::mean_by_kernel(PyObject* rows, double* result) {
  const auto count = static_cast<std::size_t>(PyArray_DIM(as_array(rows), 0));
  const bool is_all = length(run_.extraction_buffer) == PyArray_DIM(as_array(rows), 0);
  if (!has_sums_ || !is_all) {
    sums_.begin(static_cast<std::size_t>(run_.columns));
    sums_.add(doubles(rows), count);
    sums_.end();
    has_sums_ = false;
  }
  adds_up_ = true;
  return sums_.divide(doubles(rows), count, result);
}

}  // namespace quernbrook::evaluation
