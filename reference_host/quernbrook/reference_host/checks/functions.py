"""Whether each function is known, can be made from its configuration and takes its operands."""

from __future__ import annotations

import inspect
from collections.abc import Iterator
from dataclasses import dataclass, field
from typing import Any

from quernbrook.reference_host.checks.faults import Fault, nearest
from quernbrook.reference_host.checks.kinds import FUNCTIONS, KINDS, LITERALS
from quernbrook.reference_host.checks.places import Place
from quernbrook.reference_host.entries import ENGINE_ONLY, REQUIRED, FunctionEntry
from quernbrook.reference_host.registry import FunctionRegistry
from quernbrook.simulator_engine._types import FunctionExecutionError

# Functions whose first spare text is a statistic; that of others is a PnL column.
_WITH_STATISTIC = frozenset({"weighted_by_vol", "weighted_by_sharpe", "weighted_by_turnover"})


@dataclass
class Configuration:
    """What a function node's children become.

    values: the parameters, those of literal children laid over the node's config.
    sources: the literal child that each of those came from.
    operands: the children that are rows.
    dropped: literal children of which nothing is left.
    """

    values: dict[Any, Any]
    sources: dict[str, Place] = field(default_factory=dict)
    operands: list[Place] = field(default_factory=list)
    dropped: list[Place] = field(default_factory=list)

    def path_of(self, parameter: Any, place: Place) -> str:
        return self.sources.get(parameter, place).path

    def _set(self, parameter: str, child: Place) -> None:
        if parameter in self.sources:
            self.dropped.append(self.sources[parameter])
        self.values[parameter] = child.value
        self.sources[parameter] = child


def read_configuration(place: Place, entry: FunctionEntry) -> Configuration:
    """Return what the evaluator makes of a function node's config and children.

    Literal children fill the parameters of such types in the order of the schema, whatever their
    kinds. Those
    left over become "window" (int), "invert" (bool), "stat_name" or "pnl_column" (string), and
    operands (float).
    """
    read = Configuration(dict(place.config))
    names = (name for name, parameter in entry.param_schema.items() if parameter.type in LITERALS)
    texts = []
    for child in place.children:
        name = next(names, None) if child.kind in LITERALS else None
        if name is not None:
            read._set(name, child)
        elif child.kind == "int":
            read._set("window", child)
        elif child.kind == "bool":
            read._set("invert", child)
        elif child.kind == "string":
            texts.append(child)
        else:
            read.operands.append(child)
    if texts:
        read._set("stat_name" if entry.name in _WITH_STATISTIC else "pnl_column", texts[0])
        read.dropped += texts[1:]
    return read


def check_function(place: Place, registry: FunctionRegistry, context: Any) -> Iterator[Fault]:
    name = place.value
    if place.kind not in FUNCTIONS or not isinstance(name, str):
        return
    if not registry.has(name):
        yield Fault(
            place.path,
            f"the registry has no function '{name}'",
            nearest(name, registry),
        )
        operands = [child for child in place.children if child.kind not in LITERALS]
        yield from _check_reduction(place, operands, context)
        return
    entry = registry.get_entry(name)
    read = read_configuration(place, entry)
    yield from _check_configuration(place, entry, read)
    yield from _check_reduction(place, read.operands, context)
    usable = {
        key: value
        for key, value in read.values.items()
        if key in entry.param_schema and entry.param_schema[key].accepts(value)
    }
    if any(_is_required(entry, key) and key not in usable for key in entry.param_schema):
        return
    try:
        instance = registry.create_instance(name, **usable)
    except FunctionExecutionError as error:
        yield Fault(place.path, str(error))
        return
    except Exception as error:  # noqa: BLE001
        yield Fault(place.path, f"'{name}' can't be made: {type(error).__name__}: {error}")
        return
    yield from _check_instance(place, entry, instance)
    if place.kind == "reduction":
        yield from _check_reduction_call(place, entry, instance, read, context)
    elif place.is_whole:
        yield from _check_rotation_call(place, entry, instance, len(read.operands))


def _is_required(entry: FunctionEntry, parameter: str) -> bool:
    return entry.param_schema[parameter].default is REQUIRED


def _check_configuration(
    place: Place, entry: FunctionEntry, read: Configuration
) -> Iterator[Fault]:
    for child in read.dropped:
        yield Fault(child.path, f"this {child.kind} is dropped: another one takes its place")
    misspelt = set()
    for key, value in read.values.items():
        path = read.path_of(key, place)
        if not isinstance(key, str):
            yield Fault(path, f"the name of a parameter must be a text; got {key!r}")
        elif key in ENGINE_ONLY:
            yield Fault(path, f"'{key}' is the engine's own; no graph may set it")
        elif key in entry.param_schema:
            parameter = entry.param_schema[key]
            if not parameter.accepts(value):
                yield Fault(
                    path,
                    f"parameter '{key}' of '{entry.name}' must be {parameter.type}; got {value!r}",
                )
        elif key in read.sources:
            yield Fault(path, _surplus_literal(entry, read.sources[key], key))
        else:
            suggestion = nearest(key, entry.param_schema)
            misspelt.add(suggestion)
            yield Fault(path, f"'{entry.name}' has no parameter '{key}'", suggestion)
    for key, parameter in entry.param_schema.items():
        if _is_required(entry, key) and key not in {*read.values, *misspelt}:
            yield Fault(
                place.path, f"'{entry.name}' lacks its parameter '{key}' ({parameter.type})"
            )


def _surplus_literal(entry: FunctionEntry, child: Place, key: str) -> str:
    text = f"'{entry.name}' has no parameter for this {child.kind}, which would become '{key}'"
    return f"{text}; write a float for a row of numbers" if child.kind == "int" else text


def _check_instance(place: Place, entry: FunctionEntry, instance: Any) -> Iterator[Fault]:
    if not hasattr(instance, "stateful"):
        yield Fault(place.path, f"an instance of '{entry.name}' has no attribute 'stateful'")
        return
    if bool(instance.stateful) != entry.stateful:
        yield Fault(
            place.path,
            f"'{entry.name}' is registered with stateful={entry.stateful}, but its instance has "
            f"stateful={instance.stateful}",
        )
    if instance.stateful:
        needed = ["get_state", "restore"] + ["window"] * (place.kind == "reduction")
        for attribute in needed:
            if not hasattr(instance, attribute):
                yield Fault(
                    place.path, f"an instance of '{entry.name}' has no attribute '{attribute}'"
                )


def _check_rotation_call(
    place: Place, entry: FunctionEntry, instance: Any, count: int
) -> Iterator[Fault]:
    arity = getattr(instance, "arity", None)
    if isinstance(arity, int) and arity != count:
        yield Fault(place.path, f"'{place.value}' takes {arity} operand(s); it has {count}")
        return
    refused = _refused_call(instance, *[None] * count, context=None)
    if refused is None and entry.library and entry.family == "reduction":
        refused = "it is a function of signals"  # those in machine code tell no signature
    if refused:
        yield Fault(
            place.path,
            f"'{place.value}' can't be called as a rotation, with {count} row(s): {refused}",
        )


def _check_reduction(place: Place, operands: list[Place], context: Any) -> Iterator[Fault]:
    if place.kind != "reduction":
        return
    filtrations = [child for child in operands if child.kind == "filtration"]
    for child in filtrations[1:]:
        yield Fault(child.path, "a reduction takes one filtration; this one would be mixed in")
    for child in operands:
        if child.kind in KINDS | {"signal"} and child not in filtrations:
            yield Fault(
                child.path,
                f"a reduction gets signals alone; this {child.kind} never reaches '{place.value}'",
            )
    if not context.useful_signals:
        yield Fault(place.path, f"the context has no useful_signals for '{place.value}'")


def _check_reduction_call(
    place: Place, entry: FunctionEntry, instance: Any, read: Configuration, context: Any
) -> Iterator[Fault]:
    if entry.library and entry.family != "reduction":
        refused: str | None = "it is a function of rows"
    else:
        refused = _refused_call(instance, None, signal_pnl=None)
    if refused:
        yield Fault(place.path, f"'{entry.name}' can't be called as a reduction: {refused}")
    elif not getattr(instance, "stateful", True):
        if not entry.library:
            yield Fault(
                place.path,
                f"'{entry.name}' isn't stateful: as a reduction it is the plain mean, and its "
                "instance is never called",
            )
    else:
        yield from _check_pnl_column(place, read, context)


def _check_pnl_column(place: Place, read: Configuration, context: Any) -> Iterator[Fault]:
    column = read.values.get("pnl_column") or "gross_returns"
    path = read.path_of("pnl_column", place)
    if context.signal_pnl_vectors:
        known = {name for vector in context.signal_pnl_vectors.values() for name in vector}
        where = "signal_pnl_vectors"
    elif context.signal_pnl_vectors is None and context.column_labels:
        known, where = set(context.column_labels), "column_labels"
    else:
        return
    if isinstance(column, str) and column not in known:
        yield Fault(path, f"{where} has no PnL column '{column}'", nearest(column, known))


def _refused_call(instance: Any, *arguments: Any, **keywords: Any) -> str | None:
    try:
        inspect.signature(instance).bind(*arguments, **keywords)
    except TypeError as error:
        return str(error)
    except ValueError:
        return None  # Some callables written in C tell no signature.
    return None
