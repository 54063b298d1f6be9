#include "stages/stage_options.hpp"

#include "python/protocol.hpp"

namespace quernbrook::stages {

using namespace python;

namespace {

Object resolve_stage_option(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_resolve_stage_option", {"context", "stage"}};
  const auto [context, stage] = parameters.bind(arguments);
  const host::Names& names = space.names;
  const Object options = attribute(context, names.metaparameters);
  const Object name = attribute(stage, names.name);
  if (contains(options, name)) return item(options, name);
  const Object pool_id = attribute_or(context, names.pool_id, Py_None);
  if (!pool_id.is_none() && contains(options, pool_id)) {
    const Object pool_options = item(options, pool_id);
    if (has_attribute(pool_options, names.get) && contains(pool_options, name)) {
      return item(pool_options, name);
    }
  }
  return attribute(stage, names.default_);
}

}  // namespace

PyMethodDef stage_option_functions[] = {
    function_definition<resolve_stage_option>(
        "_resolve_stage_option",
        "_resolve_stage_option($module, /, context, stage)\n--\n\n"
        "Resolve the option for a transform stage from context.metaparameters.\n"
        "\n"
        "The stage's own entry comes first, then that of the context's pool, then the stage's\n"
        "default."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::stages
