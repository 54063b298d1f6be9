#include "expression_evaluator/shape_validation.hpp"

#include <algorithm>

#include "expression_evaluator/signal_batch.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using host::Names;

namespace {

Object shape_of(const Namespace& space, PyObject* array) {
  return attribute(array, space.names.shape);
}

Object first_of(PyObject* sequence) { return item(sequence, integer(0)); }

void check_signal(const Namespace& space, PyObject* id, PyObject* signal, PyObject* feature_shape) {
  const Names& names = space.names;
  if (!attribute(signal, names.weights).is_none()) {
    const Object shape = shape_of(space, attribute(signal, names.weights));
    if (not_equal(shape, feature_shape)) {
      raise(space.evaluation_error(), message("useful signal '", id, "' weights shape ",
                                              shape_of(space, attribute(signal, names.weights)),
                                              " does not match feature shape ", feature_shape));
    }
  }
  if (!attribute(signal, names.pnl).is_none()) {
    const Object shape = shape_of(space, attribute(signal, names.pnl));
    if (not_equal(first_of(shape), first_of(feature_shape))) {
      raise(space.evaluation_error(), message("useful signal '", id, "' pnl shape ",
                                              shape_of(space, attribute(signal, names.pnl)),
                                              " does not match feature shape ", feature_shape));
    }
  }
}

/// True if everything fits and no foreign code had a part in finding out.
bool all_fit(const Namespace& space, PyObject* features, PyObject* universe,
             PyObject* useful_signals) {
  if (!PyTuple_CheckExact(features) && !PyList_CheckExact(features)) return false;
  const std::span matrices(PySequence_Fast_ITEMS(features),
                           static_cast<std::size_t>(PySequence_Fast_GET_SIZE(features)));
  if (!is_plain_matrix(matrices[0])) return false;
  const npy_intp rows = PyArray_DIM(as_array(matrices[0]), 0);
  const npy_intp columns = PyArray_DIM(as_array(matrices[0]), 1);
  const auto is_of_shape = [&](PyObject* array) { return is_plain_matrix(array, rows, columns); };
  if (!std::all_of(matrices.begin(), matrices.end(), is_of_shape)) return false;
  if (universe != Py_None && !is_of_shape(universe)) return false;
  if (useful_signals == Py_None) return true;
  if (!PyDict_CheckExact(useful_signals)) return false;

  const auto fits_as_weights = [&](PyObject* array) {
    return array == Py_None || is_of_shape(array);
  };
  const auto fits_as_pnl = [&](PyObject* array) {
    return array == Py_None || (PyArray_CheckExact(array) && PyArray_NDIM(as_array(array)) >= 1 &&
                                PyArray_DIM(as_array(array), 0) == rows);
  };
  SignalBatch signals;
  Py_ssize_t place = 0;
  while (signals.take(useful_signals, place)) {
    if (!signals.read(space.names.weights)) return false;
    if (!std::ranges::all_of(signals.values(), fits_as_weights)) return false;
    if (!signals.read(space.names.pnl)) return false;
    if (!std::ranges::all_of(signals.values(), fits_as_pnl)) return false;
  }
  return true;
}

/// Raises EvaluationError at the first feature, universe or signal whose shape does not fit.
void validate_shapes(const Namespace& space, PyObject* features, PyObject* universe,
                     PyObject* useful_signals) {
  if (features == Py_None || length(features) == 0) return;
  if (all_fit(space, features, universe, useful_signals)) return;
  const Object feature_shape = shape_of(space, first_of(features));
  for (Py_ssize_t place = 1; place < length(features); ++place) {
    const Object shape = shape_of(space, item(features, integer(place)));
    if (not_equal(shape, feature_shape)) {
      raise(space.evaluation_error(), message("Feature dimension mismatch: 'feature_0' shape ",
                                              feature_shape, " vs 'feature_", place, "' shape ",
                                              shape_of(space, item(features, integer(place)))));
    }
  }
  if (universe != Py_None && not_equal(shape_of(space, universe), feature_shape)) {
    raise(space.evaluation_error(),
          message("Feature dimension mismatch: features shape ", feature_shape,
                  " vs universe shape ", shape_of(space, universe)));
  }
  if (!truth(useful_signals)) return;
  const Object entries = iterator(call_method(useful_signals, space.names.items));
  while (true) {
    const Object entry = next(entries);
    if (entry.empty()) return;
    const auto [id, signal] = unpack_pair(entry);
    check_signal(space, id, signal, feature_shape);
  }
}

Object validate_evaluation_shapes(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<3> parameters{"_validate_evaluation_shapes",
                                            {"features", "universe", "useful_signals"}};
  const auto [features, universe, useful_signals] = parameters.bind(arguments);
  validate_shapes(space, features, universe, useful_signals);
  return Object::none();
}

}  // namespace

PyMethodDef shape_validation_functions[] = {
    function_definition<validate_evaluation_shapes>(
        "_validate_evaluation_shapes",
        "_validate_evaluation_shapes($module, /, features, universe, useful_signals)\n--\n\n"
        "Validate shape consistency across features, universe, and useful signals."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::evaluation
