#pragma once

#include "host/names.hpp"
#include "python/boundary.hpp"
#include "python/object.hpp"

namespace quernbrook::host {

/// The module as its own code sees it: the interned names, and the live namespace in which hosts
/// and tests may replace what they like.
struct Namespace {
  Names names;
  /// The module's dictionary; it lives at least as long as this state.
  python::Object globals;
  /// The keyword names of calls that are made over and over, as tuples.
  python::Object axis_keyword;  // ("axis",)
  python::Object context_keyword;
  python::Object data_nan_keyword;
  python::Object dtype_keyword;
  python::Object evaluation_keywords;  // the last four arguments of evaluate()
  python::Object filter_keywords;      // of FilterNode
  python::Object filtration_result_keywords;
  python::Object rank_multiply_keywords;  // of the rank multiply road's test
  python::Object result_keywords;         // the last two of EvaluationResult
  python::Object signal_pnl_keyword;
  python::Object state_failure_keywords;  // of the log event
  python::Object state_keywords;          // of FunctionState
  python::Object typed_state_keywords;    // of a registry's FunctionState

  /// The value of a global name now; NameError where somebody deleted it.
  python::Object global(PyObject* name) const;
  /// `np.<name>`.
  python::Object numpy(PyObject* name) const;
  python::Object evaluation_error() const { return global(names.EvaluationError); }

  /// What the garbage collector is to see.
  PyObject* owned() const noexcept { return globals; }
};

/// Imports everything that the module's namespace takes from elsewhere, in a fixed order.
void import_names(PyObject* module);

}  // namespace quernbrook::host

namespace quernbrook {

using host::Namespace;
using python::CallArguments;
using python::Object;
using python::Parameters;

/// A public or private function of the module, as its method table lists it.
template <Object (*Function)(Namespace&, const CallArguments&)>
PyMethodDef function_definition(const char* name, const char* docstring) {
  return {name, python::as_function_pointer<python::module_function<Namespace, Function>>(),
          METH_FASTCALL | METH_KEYWORDS, docstring};
}

/// A method that needs the module's namespace.
template <Object (*Method)(Namespace&, PyObject*, const CallArguments&)>
PyMethodDef method_definition(const char* name, const char* docstring, int flags = 0) {
  return {name, python::as_function_pointer<python::class_method<Namespace, Method>>(),
          METH_METHOD | METH_FASTCALL | METH_KEYWORDS | flags, docstring};
}

}  // namespace quernbrook
