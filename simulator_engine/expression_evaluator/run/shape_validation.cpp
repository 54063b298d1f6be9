#include "expression_evaluator/run/shape_validation.hpp"

#include <algorithm>

#include "python/array.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/dict_insides.hpp"
#include "python/error.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
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
  if (!is_exact_sequence(features)) return false;
  const std::span matrices = items_of(features);
  if (!is_plain_matrix(matrices[0])) return false;
  const npy_intp rows = dimension(matrices[0], 0);
  const npy_intp columns = dimension(matrices[0], 1);
  const auto is_of_shape = [&](PyObject* array) { return is_plain_matrix(array, rows, columns); };
  if (!std::ranges::all_of(matrices, is_of_shape)) return false;
  if (universe != Py_None && !is_of_shape(universe)) return false;
  if (useful_signals == Py_None) return true;
  if (!is_exact_dict(useful_signals)) return false;

  PyTypeObject* plain_class = nullptr;
  const auto fits = [&](PyObject* signal) {
    if (type_of(signal) != plain_class) {
      if (!has_plain_attribute(type_of(signal), space.names.weights) ||
          !has_plain_attribute(type_of(signal), space.names.pnl)) {
        return false;
      }
      plain_class = type_of(signal);
    }
    const Object weights = own_attribute(signal, space.names.weights);
    if (weights.empty() || !(weights.is_none() || is_of_shape(weights))) return false;
    const Object pnl = own_attribute(signal, space.names.pnl);
    return !pnl.empty() && (pnl.is_none() || is_plain_array_of_rows(pnl, rows));
  };
  bool fit = true;
  each_entry(Object::borrow(useful_signals),
             [&](PyObject*, PyObject* signal) { fit = fit && fits(signal); });
  return fit;
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
  for (const Object& entry : Items(call_method(useful_signals, space.names.items))) {
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
