"""Calls of the functions of the notation."""

from __future__ import annotations

import math
from collections.abc import Sequence

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench.formulas import notation
from quernbrook.workbench.formulas.notation import Notation
from quernbrook.workbench.formulas.operands import Call, Fault, Number, Operand, as_float, count
from quernbrook.workbench.formulas.scope import Scope

BY_NAME = {function.name: function for function in notation.CALLS}


def build(call: Call, function: Notation, scope: Scope) -> Node:
    """Raises Fault."""
    if call.config is not None:
        raise Fault(f"configuration goes with the registered name, {function.function}", call.at)
    operands = _operands(call, function)
    has_number = len(operands) == 2 and isinstance(operands[1], Number)
    if has_number and function.name in notation.ALONG_TIME:
        function = BY_NAME[notation.ALONG_TIME[function.name]]
    fewest = function.rows + function.has_window
    if not fewest <= len(operands) <= len(function.signature):
        raise Fault(f"expected {function.usage}; got {count(operands, 'operand')}", call.at)
    rows = [scope.row(operand) for operand in operands[: function.rows]]
    return node_of(function, [*rows, *(_number(o, function) for o in operands[function.rows :])])


def node_of(function: Notation, children: Sequence[Node]) -> Node:
    """A node with the configuration that formulas have."""
    return Node("rotation", function.function, list(children), dict(function.settings) or None)


def _operands(call: Call, function: Notation) -> list[Operand]:
    """All operands in order: a number that may be left out may also be given by its name."""
    for keyword in call.keywords:
        if not function.has_optional_number or keyword.name != function.signature[-1][0]:
            raise Fault(f"expected {function.usage}", keyword.at)
    return [*call.operands, *(keyword.operand for keyword in call.keywords)]


def _number(operand: Operand, function: Notation) -> Node:
    if not isinstance(operand, Number):
        place = "last" if function.has_window else "second"
        raise Fault(f"expected {function.usage} with a number in the {place} place", operand.at)
    if not function.has_window:
        return Node("float", as_float(operand.value, operand.at))
    window = math.floor(operand.value) if math.isfinite(operand.value) else 0
    if window < 1:
        raise Fault(f"expected a window of at least 1; got {operand.value}", operand.at)
    return Node("int", window)
