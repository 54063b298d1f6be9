"""The tests of the fast roads once more, in their order, for the first that declines.

Each returns what declined, or None where the road is open. The evaluator's own verdict counts; this
tells the reason alone.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench.explanation.inputs import Inputs, evaluator
from quernbrook.workbench.explanation.records import Refusal
from quernbrook.workbench.explanation.shown import shown
from quernbrook.workbench.graphs import LEAVES

_RANK, _PRODUCT = "latitudinal_rank", "numerical_multiply"
# Not a float: it counts as data here.
_LITERALS = frozenset({"int", "string", "bool"})

Tests = Iterator[Refusal | None]


def leaf(run: Inputs) -> Refusal | None:
    return _first(_leaf(run))


def rank(run: Inputs) -> Refusal | None:
    return _first(_rank(run))


def rank_product(run: Inputs) -> Refusal | None:
    return _first(_rank_product(run))


def longitudinal(run: Inputs) -> Refusal | None:
    return _first(_longitudinal(run))


def _first(tests: Tests) -> Refusal | None:
    return next((refusal for refusal in tests if refusal is not None), None)


def _leaf(run: Inputs) -> Tests:
    yield from _marks_and_states(run)
    kind = _kind(run.graph, "root")
    yield _unless(kind in LEAVES, "the root is no leaf", kind)
    yield _unknown_feature(run, run.graph, "root")


def _rank(run: Inputs) -> Tests:
    yield from _marks_and_states(run)
    yield from _stages(run)
    yield _is_no(_RANK, run.graph, "root")
    yield from _ranked_leaf(run.graph, "root")
    if run.registry is not None:
        yield _own_function(run, _RANK)


def _rank_product(run: Inputs) -> Tests:
    yield from _marks_and_states(run)
    yield _unless(not run.bound, "the caller bound instances", run.bound)
    yield from _stages(run)
    yield _is_no(_PRODUCT, run.graph, "root")
    if run.registry is not None:
        yield _own_function(run, _PRODUCT)
        yield _own_function(run, _RANK)
    factors = _children(run.graph)
    yield _unless(len(factors) == 2, "the product is not of two factors", len(factors))
    for i, factor in enumerate(factors):
        path = f"root.c{i}"
        yield _is_no(_RANK, factor, path)
        yield from _ranked_leaf(factor, path)
        yield _unknown_feature(run, _children(factor)[0], f"{path}.c0")


def _longitudinal(run: Inputs) -> Tests:
    yield _marks(run)
    least = evaluator._LONGITUDINAL_FAST_MIN_ROWS
    rows = run.shape[0]
    yield None if rows >= least else Refusal(f"fewer than {least:,} rows", f"{rows:,}")
    yield _unless(run.states is None, "function states are given, if none", run.states)
    yield from _stages(run)
    node, path = run.graph, "root"
    while (kind := _kind(node, path)) not in LEAVES:
        yield _unless(kind == "rotation", f"{path} is neither a rotation nor a leaf", kind)
        name = _value(node, path)
        names = evaluator._LONGITUDINAL_FAST_NAMES
        yield _unless(name in names, f"{path} is no rolling mean, deviation or z-score", name)
        yield from _not_a_stub(run, name)
        children = _children(node)
        data = [i for i, child in enumerate(children) if _kind(child, path) not in _LITERALS]
        yield _unless(len(data) == 1, f"{path} has not just one data child", len(data))
        window = evaluator._get_int_window_child(children)
        kinds = [child.type for child in children]
        yield _unless(window is not None, f"{path} has no int window among its children", kinds)
        node, path = children[data[0]], f"{path}.c{data[0]}"
    yield _unknown_feature(run, node, path)


def _marks(run: Inputs) -> Refusal | None:
    return _unless(not run.missing, "features are marked as missing data", run.missing)


def _marks_and_states(run: Inputs) -> Tests:
    yield _marks(run)
    yield _unless(not run.states, "there are function states to restore", run.states)


def _stages(run: Inputs) -> Tests:
    context = run.context
    signals, pipeline = context.useful_signals, context.transform_pipeline
    yield _unless(not signals, "the context has useful signals", signals)
    yield _unless(not pipeline, "the context has a transform pipeline", pipeline)
    parameters = context.metaparameters
    yield _unless(not parameters, "the context has metaparameters", parameters)


def _is_no(function: str, node: Node, path: str) -> Refusal | None:
    kind = _kind(node, path)
    if kind == "rotation" and _value(node, path) == function:
        return None
    return Refusal(f"{path} is no {function}", f"{kind} {shown(node.node)}")


def _ranked_leaf(node: Node, path: str) -> Tests:
    children = _children(node)
    test = f"{path} ranks more or less than one leaf"
    yield _unless(len(children) == 1, test, len(children))
    kind = _kind(children[0], f"{path}.c0")
    yield _unless(kind in LEAVES, f"{path}.c0 is no leaf", kind)


def _own_function(run: Inputs, name: str) -> Refusal | None:
    has_own = bool(run.registry.has_factory(name))
    return _unless(not has_own, "the registry has a function of its own", name)


def _unknown_feature(run: Inputs, node: Node, path: str) -> Refusal | None:
    name = _value(node, path)
    is_known = name in run.context.feature_index
    return _unless(is_known, f"the context lacks the feature of {path}", name)


def _not_a_stub(run: Inputs, name: str) -> Tests:
    """Only where the registry knows the name and has nothing runnable behind it may the road
    compute it."""
    registry = run.registry
    yield _unless(registry is not None, "there is no registry", registry)
    yield _unless(bool(registry.has(name)), "the registry lacks the function", name)
    yield _own_function(run, name)
    try:
        entry = registry.get_entry(name)
    except Exception as error:  # noqa: BLE001 - passed over in a run, too
        yield Refusal(f"the registry's entry of {name} can't be had", shown(error))
        return
    for attribute in ("module_path", "class_name"):
        value = getattr(entry, attribute, None)
        yield _unless(not value, f"the entry of {name} has a {attribute}", value)
    for attribute in ("factory", "implementation"):
        value = getattr(entry, attribute, None)
        yield _unless(value is None, f"the entry of {name} has a {attribute}", value)


def _unless(holds: bool, test: str, value: Any) -> Refusal | None:
    return None if holds else Refusal(test, shown(value))


def _kind(node: Node, path: str) -> Any:
    return evaluator._require_graph_type_value(node, path)


def _value(node: Node, path: str) -> Any:
    return evaluator._require_graph_node_value(node, path)


def _children(node: Node) -> Sequence[Node]:
    children: Sequence[Node] = evaluator._graph_children(node)
    return children
