"""How a registry entry's description of its parameters is read."""

from typing import Any

import reference_evaluator as module

_CONFIG_CHILD_TYPES = {"float", "int", "string", "bool"}


def _iter_schema_items(schema: Any) -> Any:
    return () if schema is None else schema


def _schema_param_name_and_type(item: Any, fallback_name: Any = None) -> tuple[Any, Any]:
    if isinstance(item, tuple) and len(item) == 2:
        name, constraint = item
        if isinstance(constraint, dict):
            return name, constraint.get("type")
        if isinstance(constraint, str):
            return name, constraint
        return name, getattr(constraint, "type", None)
    if isinstance(item, dict):
        return item.get("name", fallback_name), item.get("type")
    return getattr(item, "name", fallback_name), getattr(item, "type", None)


def _config_param_names(entry: Any) -> list[str]:
    schema = getattr(entry, "param_schema", None)
    if isinstance(schema, dict):
        items = list(schema.items())
    else:
        items = list(module._iter_schema_items(schema))
    names = []
    for idx, item in enumerate(items):
        name, param_type = module._schema_param_name_and_type(item, f"param_{idx}")
        if param_type in module._CONFIG_CHILD_TYPES and name:
            names.append(str(name))
    return names
