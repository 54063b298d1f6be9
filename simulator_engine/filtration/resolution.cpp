#include "filtration/resolution.hpp"

#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::filtration {

using namespace python;

namespace {

Object run_library(const Namespace& space, PyObject* context, PyObject* filtration_node) {
  const host::Names& names = space.names;
  const Object tree = call(space.global(names._dict_to_filter_node), filtration_node);
  const Object library = space.global(names.FiltrationInstance);
  const Object instance = call(library, tree, attribute(context, names.registry));
  const Object passing_ids = call(instance, attribute(context, names.useful_signals));
  const Object result_class = space.global(names.FiltrationResult);
  const Object signal_count = integer(length(passing_ids));
  const Object pool_size = integer(length(attribute(context, names.useful_signals)));
  return call_named(result_class, space.filtration_result_keywords, passing_ids, signal_count,
                    pool_size, new_list());
}

Object describe(const Namespace& space, PyObject* filtration_node) {
  return call(space.global(space.names._describe_dict_filter), filtration_node);
}

Object no_passing_signals(const Namespace& space) {
  Object diagnostics = new_dict();
  set_dict_item(diagnostics, space.names.passing_count, integer(0));
  return diagnostics;
}

[[noreturn]] void raise_empty(const Namespace& space, PyObject* filtration_node,
                              const Handling& error) {
  const host::Names& names = space.names;
  const Object description = describe(space, filtration_node);
  const Object failure = call(space.evaluation_error(),
                              message("Filtration returned 0 signals for filters: ", description));
  const Object diagnostics = attribute(error.value(), names.filter_diagnostics);
  set_attribute(failure, names.filter_diagnostics,
                truth(diagnostics) ? diagnostics : no_passing_signals(space));
  raise_object_from(failure, error.value());
}

[[noreturn]] void raise_failed(const Namespace& space, PyObject* filtration_node,
                               const Handling& error) {
  const host::Names& names = space.names;
  const Object description = describe(space, filtration_node);
  const Object failure = call(space.global(names.FiltrationResolutionError),
                              message("Filtration resolution failed for filters: ", description,
                                      ": ", type_name(error.value()), ": ", error.value()));
  const Object diagnostics = no_passing_signals(space);
  set_dict_item(diagnostics, names.cause, type_name(error.value()));
  set_attribute(failure, names.filter_diagnostics, diagnostics);
  raise_object_from(failure, error.value());
}

}  // namespace

Object resolve_filtration(const Namespace& space, PyObject* context, PyObject* filtration_node) {
  try {
    return run_library(space, context, filtration_node);
  } catch (const ErrorSet&) {
    Handling error;
    const auto is = [&](PyObject* name) {
      return exception_matches(error.value(), space.global(name)) != 0;
    };
    const host::Names& names = space.names;
    if (is(names.EmptyFiltrationError) || is(names.EmptyPoolError)) {
      raise_empty(space, filtration_node, error);
    }
    const bool is_failure = exception_matches(error.value(), PyExc_Exception) != 0;
    if (is(names.EvaluationError) || !is_failure) error.raise_again();
    raise_failed(space, filtration_node, error);
  }
}

}  // namespace quernbrook::filtration
