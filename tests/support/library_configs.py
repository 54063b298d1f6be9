"""Configurations in which the functions of the library are tested."""

from __future__ import annotations

from typing import Any

import pytest
from quernbrook.reference_host import default_registry

_VALUES: dict[str, tuple[Any, ...]] = {
    "share": (0.1, 0.25, 0.45),
    "lone": (0.5, -1.0),
    "total": (0.0, 2.5),
    "window": (1, 2, 7),
    "invert": (True,),
}
_STATISTICS = {"weighted_by_vol": "downside_vol", "weighted_by_sharpe": "sortino"}


def configs(name: str) -> list[dict[str, Any]]:
    """The defaults, and other values of each parameter by itself."""
    schema = default_registry(compiled=False).get_entry(name).param_schema
    base: dict[str, Any] = {"window": 3} if "window" in schema else {}
    found = [base]
    for parameter, described in schema.items():
        values = (True, False) if described.type == "flag" else _VALUES.get(parameter, ())
        found += [{**base, parameter: value} for value in values]
    if name in _STATISTICS:
        found.append({**base, "stat_name": _STATISTICS[name]})
    return found


def cases(*prefixes: str) -> list[Any]:
    """Parameters (name, config) of all compiled functions whose names begin so."""
    return [
        pytest.param(name, config, id=f"{name}-{number}")
        for name in sorted(default_registry(compiled=True).compiled)
        if name.startswith(prefixes)
        for number, config in enumerate(configs(name))
    ]
