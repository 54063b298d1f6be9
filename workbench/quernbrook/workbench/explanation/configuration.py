"""What a function is configured with, and where each parameter comes from."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass, field
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host.entries import REQUIRED
from quernbrook.workbench.explanation.inputs import evaluator
from quernbrook.workbench.explanation.records import Origin, Setting

# Functions whose first spare text is a statistic; that of others is a PnL column.
_WITH_STATISTIC = frozenset({"weighted_by_vol", "weighted_by_sharpe", "weighted_by_turnover"})


@dataclass
class Configuration:
    """A function's parameters, and the numbers of its children that are rows."""

    settings: dict[str, Setting] = field(default_factory=dict)
    operands: list[int] = field(default_factory=list)

    @property
    def arguments(self) -> dict[str, Any]:
        """What the registry makes the instance from; it fills in the defaults itself."""
        return {
            name: setting.value
            for name, setting in self.settings.items()
            if setting.origin != "default"
        }

    def set(self, name: str, value: Any, origin: Origin, path: str | None = None) -> None:
        self.settings[name] = Setting(name, value, origin, path)


def read_configuration(node: Node, path: str, registry: Any) -> Configuration:
    """Fill parameters as the evaluator does: literal children in the order of the schema, over the
    node's own; then ints, texts and truth values by their kind."""
    read = Configuration()
    for name, value in evaluator._graph_config_dict(node).items():
        read.set(name, value, "own")
    names = iter(_named(node.node, registry))
    has_text = False
    for i, child in enumerate(node.children or ()):
        child_path = f"{path}.c{i}"
        if child.type not in evaluator._CONFIG_CHILD_TYPES:
            read.operands.append(i)
        elif (name := next(names, None)) is not None:
            read.set(name, child.node, "named child", child_path)
        elif child.type == "int":
            read.set("window", child.node, "window", child_path)
        elif child.type == "bool":
            read.set("invert", child.node, "flag", child_path)
        elif child.type == "float":
            read.operands.append(i)
        elif not has_text:
            has_text = True
            text = "stat_name" if node.node in _WITH_STATISTIC else "pnl_column"
            read.set(text, child.node, "text", child_path)
    for name, value in _defaults(node.node, registry):
        if name not in read.settings:
            read.set(name, value, "default")
    return read


def _named(function: str, registry: Any) -> Sequence[str]:
    if registry is None or not registry.has(function):
        return ()
    try:
        names: Sequence[str] = evaluator._config_param_names(registry.get_entry(function))
    except Exception:  # noqa: BLE001 - passed over in a run, too
        return ()
    return names


def _defaults(function: str, registry: Any) -> list[tuple[str, Any]]:
    if registry is None or not registry.has(function):
        return []
    try:
        schema = getattr(registry.get_entry(function), "param_schema", None)
    except Exception:  # noqa: BLE001 - a fault of its own
        return []
    if not isinstance(schema, dict):
        return []
    values = ((name, getattr(one, "default", REQUIRED)) for name, one in schema.items())
    return [(name, value) for name, value in values if value is not REQUIRED]
