"""From a graph to the text of its formula."""

from __future__ import annotations

from collections.abc import Sequence

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionRegistry
from quernbrook.workbench.formulas import calls, literals, notation_writer, signs
from quernbrook.workbench.formulas.literals import quoted
from quernbrook.workbench.formulas.reader import library
from quernbrook.workbench.formulas.scope import BOOLEANS, is_bare_feature
from quernbrook.workbench.formulas.signs import ATOM, Text
from quernbrook.workbench.graphs import (
    FILTERS,
    LEAVES,
    LITERALS,
    GraphError,
    Visit,
    canonical_id,
    check_node,
    children_first,
)


def format_formula(graph: Node, *, registry: FunctionRegistry | None = None) -> str:
    """Return the formula of a graph, from which `parse_formula` makes an equal graph again.

    registry: that of the later `parse_formula`. Functions that it doesn't hold are written with
    their kinds: ``rotation("name", ...)``.

    Equal graphs give equal texts. A subgraph that stands in several places is written out in each.
    Raises GraphError, with the path, for a node that a formula can't hold: of an unknown kind, a
    literal of another type, or children or configuration where its kind has none.
    """
    registry = library() if registry is None else registry
    texts: list[Text] = []
    for visit in children_first(graph):
        check_node(visit)
        first = len(texts) - len(visit.children)
        try:
            text = _identified(visit.node, _text(visit, texts[first:], registry))
        except TypeError as error:
            raise GraphError(visit.place, str(error)) from None
        texts[first:] = [text]
    if graph.type == "int" and canonical_id(graph) is None:
        return f"int({texts[0].text})"
    return notation_writer.row(graph, texts[0]).text


def _identified(node: Node, text: Text) -> Text:
    identity = canonical_id(node)
    if identity is None:
        return text
    if node.type in ("int", "float"):
        text = signs.call(node.type, [text.text])
    return Text(f"{text.within(ATOM)} @ {quoted(identity)}", ATOM)


def _text(visit: Visit, texts: Sequence[Text], registry: FunctionRegistry) -> Text:
    """A node without its identity; literals as arguments of a call."""
    node = visit.node
    if node.type in LITERALS:
        return literals.argument(node)
    if node.type in LEAVES:
        return _leaf(node)
    if node.type in FILTERS:
        return _filter(visit, texts)
    return notation_writer.text(visit, texts) or _call(visit, texts, registry)


def _leaf(node: Node) -> Text:
    if node.type == "feature" and is_bare_feature(node.node):
        return Text(node.node, ATOM)
    return signs.call(node.type, [quoted(node.node)])


def _filter(visit: Visit, texts: Sequence[Text]) -> Text:
    node = visit.node
    name = node.node if node.type == node.node else f"{node.type}.{node.node}"
    operands = [
        child.node if _is_bare_text(child) else text.text
        for child, text in zip(visit.children, texts, strict=True)
    ]
    return signs.call(name, operands)


def _is_bare_text(node: Node) -> bool:
    """Whether a filter's operand is a text that needs no quotes."""
    return (
        node.type == "string"
        and canonical_id(node) is None
        and literals.IDENTIFIER.fullmatch(node.node) is not None
        and node.node not in BOOLEANS
    )


def _call(visit: Visit, texts: Sequence[Text], registry: FunctionRegistry) -> Text:
    node = visit.node
    arguments = [text.text for text in texts]
    settings = [literals.setting(name, value) for name, value in (node.config or {}).items()]
    if calls.registered_kind(node.node, registry) == node.type:
        return signs.call(node.node, arguments, settings)
    return signs.call(node.type, [quoted(node.node), *arguments], settings)
