"""From the text of a formula to its graph."""

from __future__ import annotations

import json
from collections.abc import Iterable
from functools import cache
from typing import Any

from lark import Lark, Token, Transformer_NonRecursive, UnexpectedInput, v_args
from lark.exceptions import VisitError
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionRegistry, default_registry
from quernbrook.workbench.formulas import calls, notation, notation_calls
from quernbrook.workbench.formulas.errors import FormulaError
from quernbrook.workbench.formulas.literals import NAMED_VALUES
from quernbrook.workbench.formulas.operands import (
    Built,
    Call,
    Fault,
    Keyword,
    Name,
    Number,
    Operand,
)
from quernbrook.workbench.formulas.scope import Scope
from quernbrook.workbench.formulas.syntax_errors import syntax_error


def parse_formula(
    text: str,
    *,
    features: Iterable[str] | None = None,
    registry: FunctionRegistry | None = None,
) -> Node:
    """Return the graph that a formula describes.

    features: the names that features may have; None allows any name.
    registry: the functions that may be called by their registered names; the library's by default.

    Raises FormulaError, which tells the place, what was expected there and, for an unknown name,
    the nearest one.
    """
    scope = Scope(library() if registry is None else registry, features, parse_formula)
    try:
        tree = _grammar().parse(text)
    except UnexpectedInput as error:
        raise syntax_error(error, text) from None
    try:
        graph: Node = _Reader(scope).transform(tree)
    except VisitError as error:
        if isinstance(error.orig_exc, Fault):
            raise FormulaError(str(error.orig_exc), text, error.orig_exc.at) from None
        raise error.orig_exc from None
    return graph


@cache
def library() -> FunctionRegistry:
    """The functions that a formula may name where no registry is given."""
    return default_registry()


@cache
def _grammar() -> Lark:
    return Lark.open("grammar.lark", rel_to=__file__, parser="lalr", maybe_placeholders=False)


@v_args(inline=True)
class _Reader(Transformer_NonRecursive[Token, Any]):
    """Builds nodes bottom up; every operand keeps its place in the text for error messages."""

    def __init__(self, scope: Scope) -> None:
        super().__init__(visit_tokens=False)
        self._scope = scope

    def start(self, operand: Operand) -> Node:
        if isinstance(operand, Number):
            return self._scope.row(operand)
        return self._scope.argument(operand)

    # Operands.

    def number(self, token: Token) -> Number:
        return Number(_at(token), _number(token), is_plain=True)

    def string(self, token: Token) -> Built:
        return Built(_at(token), Node("string", _text(token)))

    def name(self, token: Token) -> Name:
        return Name(_at(token), str(token))

    def parenthesised(self, operand: Operand) -> Operand:
        if isinstance(operand, Number):
            return Number(operand.at, operand.value)
        return operand

    def identified(self, operand: Operand, token: Token) -> Built:
        node = self.start(operand)
        node.canonical_id = _text(token)
        return Built(operand.at, node)

    # Signs.

    def choice(self, condition: Operand, chosen: Operand, other: Operand) -> Built:
        return self._apply(notation.CHOICE, condition.at, condition, chosen, other)

    def binary(self, left: Operand, sign: Token, right: Operand) -> Built:
        return self._apply(_BINARY[sign], left.at, left, right)

    def unary(self, sign: Token, operand: Operand) -> Operand:
        if sign == "-" and isinstance(operand, Number) and operand.is_plain:
            return Number(_at(sign), -operand.value)
        return self._apply(_UNARY[sign], _at(sign), operand)

    def _apply(self, function: notation.Notation, at: int, *operands: Operand) -> Built:
        return Built(at, notation_calls.node_of(function, [*map(self._scope.row, operands)]))

    # Calls.

    def keyword(self, name: Token, operand: Operand) -> Keyword:
        return Keyword(_at(name), str(name), operand)

    def call(self, name: Token, *arguments: Operand | Keyword | dict[str, Any]) -> Built:
        operands: list[Operand] = []
        keywords: list[Keyword] = []
        config = None
        for argument in arguments:
            if isinstance(argument, Keyword):
                keywords.append(argument)
            elif isinstance(argument, dict):
                config = argument
            elif keywords:
                raise Fault("operands stand before arguments with names", argument.at)
            else:
                operands.append(argument)
        call = Call(_at(name), str(name), operands, keywords, config)
        return Built(call.at, calls.build(call, self._scope))

    # Configuration.

    def settings(self, *settings: tuple[Token, Any]) -> dict[str, Any]:
        config = {}
        for name, value in settings:
            key = _text(name) if name.type == "STRING" else str(name)
            if key in config:
                raise Fault(f"'{key}' is given twice", _at(name))
            config[key] = value
        return config

    def setting(self, name: Token, value: Any) -> tuple[Token, Any]:
        return name, value

    def number_value(self, token: Token) -> int | float:
        return _number(token)

    def negative_value(self, sign: Token, value: Any) -> int | float:
        if isinstance(value, bool) or not isinstance(value, int | float):
            raise Fault("expected a number after '-'", _at(sign))
        return -value

    def string_value(self, token: Token) -> str:
        return _text(token)

    def name_value(self, token: Token) -> bool | float | None:
        if token not in NAMED_VALUES:
            raise Fault(f"expected a value; got '{token}': a text needs quotes", _at(token))
        return NAMED_VALUES[token]

    def list_value(self, *values: Any) -> list[Any]:
        return list(values)

    def mapping_value(self, *items: tuple[str, Any]) -> dict[str, Any]:
        return dict(items)

    def item(self, key: Token, value: Any) -> tuple[str, Any]:
        return _text(key), value


_BINARY = {function.name: function for function in notation.BINARY}
_UNARY = {function.name: function for function in notation.UNARY}


def _at(token: Token) -> int:
    assert token.start_pos is not None
    return token.start_pos


def _number(token: Token) -> int | float:
    if not token.isdigit():
        return float(token)
    try:
        return int(token)
    except ValueError:
        # The interpreter limits how long they may be.
        raise Fault(f"a whole number can't have {len(token):,} digits", _at(token)) from None


def _text(token: Token) -> str:
    try:
        text: str = json.loads(token)
    except ValueError:
        raise Fault("expected a text with the escapes of JSON", _at(token)) from None
    return text
