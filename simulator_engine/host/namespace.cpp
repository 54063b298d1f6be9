#include "host/namespace.hpp"

#include <initializer_list>

#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::host {

using namespace python;

Object Namespace::global(PyObject* name) const {
  Object value = dict_item(globals, name);
  if (value.empty()) {
    raise_format(PyExc_NameError, "name '%U' is not defined", name);
  }
  return value;
}

Object Namespace::numpy(PyObject* name) const { return attribute(global(names.np), name); }

namespace {

struct ImportedModule {
  const char* module;
  const char* bound_as;  // the name that the module itself gets, or null
  std::initializer_list<const char*> names;
};

[[noreturn]] void refuse_import(PyObject* source, const char* module, const char* name) {
  const Object file = attribute_or(source, as_text("__file__"), as_text("unknown location"));
  const Object text =
      message("cannot import name '", name, "' from '", module, "' (", as_text(file.get()), ")");
  raise_import_error(text, as_text(module), file);
}

void import_from(PyObject* target, const ImportedModule& wanted) {
  const Object source = import_module(wanted.module);
  if (wanted.bound_as != nullptr) set_attribute(target, as_text(wanted.bound_as), source);
  for (const char* name : wanted.names) {
    const Object key = as_text(name);
    const Object value = optional_attribute(source, key);
    if (value.empty()) refuse_import(source, wanted.module, name);
    set_attribute(target, key, value);
  }
}

}  // namespace

void import_names(PyObject* module) {
  const std::initializer_list<ImportedModule> modules = {
      {"importlib", "importlib", {}},
      {"json", "json", {}},
      {"threading", "threading", {}},
      {"copy", nullptr, {"deepcopy"}},
      {"dataclasses", nullptr, {"dataclass", "field"}},
      {"typing", nullptr, {"Any", "Dict", "List", "Optional", "Tuple"}},
      {"numpy", "np", {}},
      {"structlog", "structlog", {}},
      {"quernbrook.functions.filtrations_evaluation",
       nullptr,
       {"EmptyFiltrationError", "EmptyPoolError", "FilterNode", "FiltrationResult"}},
      {"quernbrook.functions.filtrations", nullptr, {"FiltrationInstance"}},
      {"quernbrook.simulator_engine._types",
       nullptr,
       {"UsefulSignal", "TransformStage", "EvaluationError", "EvaluationShapeError",
        "FunctionExecutionError", "FiltrationResolutionError"}},
      {"quernbrook.simulator_engine._combine", nullptr, {"combine_signal_and_transforms"}},
      {"quernbrook.simulator_engine._graph_helpers", nullptr, {"extract_feature_leaf_names"}},
      {"quernbrook.simulator_engine._registry_protocols", nullptr, {"RegistryProtocol"}},
      {"quernbrook.functions._typed_shapes",
       nullptr,
       {"FunctionGraphNode", "SchemaError", "StageData"}},
  };
  for (const ImportedModule& wanted : modules) import_from(module, wanted);

  const Object structlog = attribute(module, as_text("structlog"));
  const Object logger = call_method(structlog, as_text("get_logger"),
                                    as_text("quernbrook.simulator_engine.expression_evaluator"));
  set_attribute(module, as_text("_logger"), call_method(structlog, as_text("wrap_logger"), logger));
}

}  // namespace quernbrook::host
