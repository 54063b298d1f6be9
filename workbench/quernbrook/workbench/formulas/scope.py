"""What the names in a formula mean."""

from __future__ import annotations

from collections.abc import Callable, Iterable

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionRegistry
from quernbrook.workbench.formulas import literals, notation
from quernbrook.workbench.formulas.operands import Built, Fault, Name, Number, Operand, as_float
from quernbrook.workbench.graphs import children_first
from quernbrook.workbench.names import suggestion

BOOLEANS = {"true": True, "false": False}
_FIELDS = {name: name for name in (*notation.FIELDS, *notation.GROUPS)}
_NO_ROWS = {"int": "an int literal", "string": "a text", "bool": "true or false"}


class Scope:
    """The features and functions that a formula may name.

    `features` is None where any name is a feature. `read` turns a definition into a graph.
    """

    def __init__(
        self,
        registry: FunctionRegistry,
        features: Iterable[str] | None,
        read: Callable[[str], Node],
    ) -> None:
        self.registry = registry
        self.functions = {name.lower(): name for name in registry.names()}
        self._read = read
        self._features = None if features is None else tuple(features)
        known = _FIELDS if self._features is None else self._features
        self._in_any_case = {name.lower(): name for name in known}

    def function(self, name: str) -> str | None:
        """The registered function of this name, in any case, or None."""
        return name if self.registry.has(name) else self.functions.get(name.lower())

    def leaf(self, name: Name) -> Node:
        """The node that a bare name stands for. Raises Fault."""
        if name.text in BOOLEANS:
            return Node("bool", BOOLEANS[name.text])
        if self._features is not None and self._is_known(name.text):
            return Node("feature", name.text)
        formula = notation.definition(name.text)
        if formula is None:
            return Node("feature", self._feature(name))
        graph = self._read(formula)
        for visit in children_first(graph):
            if visit.node.type == "feature" and not self._is_known(visit.node.node):
                raise Fault(f"'{name.text}' needs the feature '{visit.node.node}'", name.at)
        return graph

    def _is_known(self, feature: str) -> bool:
        return self._features is None or feature in self._features

    def _feature(self, name: Name) -> str:
        text = name.text
        if text.lower().startswith(notation.GROUP_PREFIX.lower()):
            text = text[len(notation.GROUP_PREFIX) :]
        found = self._in_any_case.get(text.lower())
        if found is not None:
            return found
        if self._features is None:
            return text
        known = [*self._features, *notation.DEFINED_NAMES]
        raise Fault(f"unknown feature '{text}'{suggestion(text, known)}", name.at)

    def row(self, operand: Operand) -> Node:
        """An operand of a sign or of a function of the notation. Raises Fault."""
        if isinstance(operand, Number):
            return Node("float", as_float(operand.value, operand.at))
        node = self.argument(operand)
        if node.type in _NO_ROWS:
            raise Fault(f"expected a row or a number; got {_NO_ROWS[node.type]}", operand.at)
        return node

    def argument(self, operand: Operand) -> Node:
        """An argument of a registered function, where numbers are ints or floats as written.

        Raises Fault.
        """
        if isinstance(operand, Built):
            return operand.node
        if isinstance(operand, Name):
            return self.leaf(operand)
        return Node("int" if isinstance(operand.value, int) else "float", operand.value)


def is_bare_feature(name: str) -> bool:
    """Whether a name alone is read as the feature of this name, whatever features are known."""
    field = _FIELDS.get(name.lower(), name)
    is_name = literals.IDENTIFIER.fullmatch(name) is not None and field == name
    return is_name and name not in BOOLEANS and notation.definition(name) is None
