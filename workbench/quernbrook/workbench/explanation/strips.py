"""Which nodes go in strips of rows, and why the others don't.

The rules are those of the evaluator's plan of strips. What can only be seen while rows run, such as
a feature that another thread replaces, is not among them.
"""

from __future__ import annotations

import inspect
from collections.abc import Iterator, Mapping
from typing import Any

import numpy as np
from quernbrook.workbench.explanation.functions import Function
from quernbrook.workbench.explanation.inputs import Inputs
from quernbrook.workbench.explanation.records import SignalUse
from quernbrook.workbench.explanation.shown import shown
from quernbrook.workbench.graphs import FUNCTIONS, LEAVES, LITERALS

Reasons = dict[str, str | None]
_DOUBLE = np.dtype(np.float64)
# The interpreter keeps the attributes of classes in Python where only it knows from then on.
_MANAGED = " on CPython 3.11 and later"
_NO_OFFER = "its type has neither a kernel nor a method for blocks"


def strip_reasons(
    run: Inputs, functions: Mapping[str, Function], signals: Mapping[str, SignalUse]
) -> Reasons:
    """Return for each node why it goes row by row, or None for those in strips."""
    found = _Plan(run, functions).reasons
    everywhere = _reason_for_all(run, functions, found) or _unreadable(run, found, signals)
    if everywhere is None:
        return found
    return {path: reason or everywhere for path, reason in found.items()}


def _reason_for_all(run: Inputs, functions: Mapping[str, Function], found: Reasons) -> str | None:
    if all(function.offer is None for function in functions.values()):
        return "no function of the graph has a kernel or a method for blocks"
    if not _is_plain(run.context):
        return f"the context's class, {type(run.context).__name__}, computes attributes"
    if getattr(run.context, "_reads_rows_ahead", False):
        return None
    first = next((path for path, reason in found.items() if reason is not None), None)
    if first is None:
        return None
    # A parent's reason is its child's: the child comes first.
    return f"{first} goes row by row, and the context has no promise to read ahead"


class _Plan:
    """Node by node, children first."""

    def __init__(self, run: Inputs, functions: Mapping[str, Function]) -> None:
        self._run = run
        self._functions = functions
        self._shared = _shared_states(functions)
        self._reads_others = _reads_others(run)
        self.reasons: Reasons = {}
        for path in run.nodes:
            self.reasons[path] = self._reason(path)

    def _reason(self, path: str) -> str | None:
        run, node = self._run, self._run.nodes[path]
        if run.is_precomputed(path):
            return "a precomputed output stands for it"
        if run.may_be_precomputed(path):
            return "whether a precomputed output stands for it is not told by plain texts"
        own = self._own_reason(path, node)
        if own is not None:
            return own
        for i, _ in enumerate(node.children or ()):
            if self.reasons[f"{path}.c{i}"] is not None:
                return f"its child {path}.c{i} goes row by row"
        return None

    def _own_reason(self, path: str, node: Any) -> str | None:
        if node.type in LEAVES:
            return self._leaf_reason(node.node)
        if node.type in LITERALS:
            return _literal_reason(node)
        if node.type == "filtration":
            return self._filter_reason(path)
        if node.type in FUNCTIONS:
            return self._function_reason(path, self._functions[path])
        return None

    def _leaf_reason(self, name: str) -> str | None:
        context = self._run.context
        if name not in context.feature_index:
            return "the context lacks the feature"
        if type(context.features) not in (tuple, list):
            return f"the features stand in a {type(context.features).__name__}"
        return None

    def _filter_reason(self, path: str) -> str | None:
        parent = self._run.nodes.get(path.rpartition(".")[0])
        if parent is None or parent.type != "reduction":
            return "it filters for no reduction"
        # Its extraction and the reduction of it are one step.
        above = path.rpartition(".")[0]
        return self._function_reason(above, self._functions[above])

    def _function_reason(self, path: str, function: Function) -> str | None:
        if function.instance is None or function.fault is not None:
            return "it can't be made"
        other = self._shared.get(path)
        if other is not None:
            return f"it shares its state with {other}"
        if function.kind == "reduction":
            return self._reduction_reason(path, function)
        if function.offer is None:
            return _NO_OFFER
        if function.offer.kind == "block" and not self._argument_count(path, function):
            return "its method for blocks would get no rows"
        return None

    def _argument_count(self, path: str, function: Function) -> int:
        if self._run.bound and not hasattr(function.instance, "arity"):
            return len(self._run.nodes[path].children or ())
        return len(function.configuration.operands)

    def _reduction_reason(self, path: str, function: Function) -> str | None:
        if self._reads_others:
            return "reductions of the graph read what another node extracts"
        stateful = _plain_truth(function.instance, "stateful")
        if stateful is None:
            if type(function.instance).__dictoffset__ < 0:
                return f"the attributes of its type can't be read off{_MANAGED}"
            return "its type computes whether it is stateful"
        if stateful and function.offer is None:
            return "its type has no kernel of a reduction"
        node, filters = self._run.nodes[path], 0
        for i, child in enumerate(node.children or ()):
            if child.type == "filtration" and not filters:
                filters += 1
            elif child.type in LEAVES | FUNCTIONS:
                return f"its child {path}.c{i} is a {child.type}"
        return None


def _literal_reason(node: Any) -> str | None:
    if node.type == "int" and type(node.node) is not int:
        return f"its value is of the type {type(node.node).__name__}"
    if node.type == "int" and not -(2**63) <= node.node < 2**63:
        return "its value has more than 64 bits"
    return None


def _shared_states(functions: Mapping[str, Function]) -> dict[str, str]:
    """For each node whose instance or state stands at another, too, that one."""
    first: dict[tuple[str, int], str] = {}
    found: dict[str, str] = {}
    for path, function in functions.items():
        offer = function.offer
        if function.instance is None or (offer is not None and offer.is_stateless):
            continue
        states = [("instance", id(function.instance))]
        if offer is not None and offer.state:
            states.append(("state", offer.state))
        for state in states:
            other = first.setdefault(state, path)
            if other != path:
                found[path] = other
                found.setdefault(other, path)
    return found


def _reads_others(run: Inputs) -> bool:
    """Whether a reduction would read what another's filter has extracted."""
    extracted: str | None = None
    for path, node in run.nodes.items():
        if node.type == "filtration":
            if extracted is not None:
                return True
            extracted = path
        elif node.type == "reduction":
            places = (
                i for i, child in enumerate(node.children or ()) if child.type == "filtration"
            )
            place = next(places, None)
            own = None if place is None else f"{path}.c{place}"
            if own != extracted or run.is_precomputed(path) or run.may_be_precomputed(path):
                return True
            extracted = None
    return extracted is not None


def _unreadable(run: Inputs, found: Reasons, signals: Mapping[str, SignalUse]) -> str | None:
    """Matrices that only NumPy can read keep all nodes from strips."""
    return next(_unreadable_matrices(run, found, signals), None)


def _unreadable_matrices(
    run: Inputs, found: Reasons, signals: Mapping[str, SignalUse]
) -> Iterator[str]:
    context, shape = run.context, run.shape
    universe = context.universe
    if universe is not None and not _is_double_matrix(universe, shape):
        yield f"the universe is {_described(universe)}"
    for path, node in run.nodes.items():
        if found[path] is not None:
            continue
        if node.type in LEAVES:
            feature = context.features[context.feature_index[node.node]]
            if not _is_number_matrix(feature, shape):
                yield f"the feature '{node.node}' is {_described(feature)}"
            elif universe is not None and not _is_double_matrix(feature, shape):
                kind = _described(feature)
                yield f"under a universe, the feature '{node.node}' must be float64; it is {kind}"
        elif node.type == "reduction":
            yield from _unreadable_pool(run, signals.get(path))


def _unreadable_pool(run: Inputs, use: SignalUse | None) -> Iterator[str]:
    pool, shape = run.context.useful_signals, run.shape
    if type(pool) is not dict:
        yield f"the pool of signals is a {type(pool).__name__}"
    if run.context.signal_pnl_vectors is not None:
        yield "the context has signal_pnl_vectors"
    if use is None or not use.passing:
        yield "no signals pass"
        return
    for name in use.passing:
        signal = pool[name]
        if type(signal).__dictoffset__ <= 0:
            where = _MANAGED if type(signal).__dictoffset__ else ""
            yield f"the attributes of the signal {shown(name)} can't be read off{where}"
        if not _is_double_matrix(signal.weights, shape):
            yield f"the weights of the signal {shown(name)} are {_described(signal.weights)}"
        if signal.pnl is not None and not _is_double_matrix(signal.pnl, (shape[0], None)):
            yield f"the PnL of the signal {shown(name)} is {_described(signal.pnl)}"


def _is_number_matrix(matrix: Any, shape: tuple[int, int | None]) -> bool:
    """One whose numbers are made float64 a strip at a time."""
    if type(matrix) is not np.ndarray or matrix.ndim != 2:
        return False
    rows, columns = shape
    kind, size = matrix.dtype.kind, matrix.dtype.itemsize
    is_number = kind in "biu" or (kind == "f" and size <= _DOUBLE.itemsize)
    return is_number and len(matrix) >= rows and columns in (None, matrix.shape[1])


def _is_double_matrix(matrix: Any, shape: tuple[int, int | None]) -> bool:
    """One that is read where it lies."""
    return _is_number_matrix(matrix, shape) and matrix.dtype == _DOUBLE and matrix.flags.aligned


def _described(matrix: Any) -> str:
    if not isinstance(matrix, np.ndarray):
        return f"a {type(matrix).__name__}"
    return f"{type(matrix).__name__} of {matrix.dtype.str} and shape {matrix.shape}"


def _is_plain(context: Any) -> bool:
    """Whether its class lets attributes be read and set without code of its own."""
    kind: Any = type(context)
    if kind.__getattribute__ is not object.__getattribute__:
        return False
    if kind.__setattr__ is not object.__setattr__ or not hasattr(context, "__dict__"):
        return False
    return all(
        inspect.getattr_static(kind, name, None) is None
        for name in ("current_day_index", "universe")
    )


def _plain_truth(instance: Any, name: str) -> bool | None:
    """An attribute that is a truth value, and read without code of the instance's."""
    kind: Any = type(instance)
    if kind.__getattribute__ is not object.__getattribute__ or kind.__dictoffset__ < 0:
        return None
    value = inspect.getattr_static(instance, name, None)
    return value if isinstance(value, bool) else None
