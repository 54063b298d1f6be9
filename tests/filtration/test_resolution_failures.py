"""What the failures of a filtration become."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any

import pytest
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.functions.filtrations_evaluation import (
    EmptyFiltrationError,
    EmptyPoolError,
    InvalidFilterError,
)
from quernbrook.simulator_engine._types import (
    EvaluationError,
    FiltrationResolutionError,
)
from support.functions import raising
from support.graphs import feature, filtration, node, number, reduction, string
from support.pools import make_pool, replace_filters
from support.reductions import run_reductions, stateful
from support.runs import lets_through

MOMENTUM = node("gt", "gt", [string("momentum"), number(0.5)])
TREE = filtration("filtration", MOMENTUM)
DESCRIBED = "filtration(gt(momentum, 0.5))"
EMPTY = f"Filtration returned 0 signals for filters: {DESCRIBED}"
EMPTY_ERRORS = pytest.mark.parametrize("kind", [EmptyFiltrationError, EmptyPoolError])


def run(evaluator, graph: Any = None, **options: Any) -> Any:
    """The context of a run of "f" over what passes."""
    graph = reduction("f", TREE) if graph is None else graph
    return run_reductions(evaluator, graph, {"f": stateful()}, **options)[0]


@contextmanager
def fails_with(
    kind: type[BaseException], text: str, diagnostics: Any, cause: BaseException
) -> Iterator[pytest.ExceptionInfo[BaseException]]:
    """The block raises this, with `cause` as cause and as context."""
    with pytest.raises(BaseException) as caught:
        yield caught
    error = caught.value
    assert (type(error), str(error)) == (kind, text)
    assert error.__cause__ is error.__context__ is cause
    assert error.filter_diagnostics == diagnostics
    assert type(error.filter_diagnostics) is type(diagnostics)


def failed(cause: BaseException) -> Any:
    """The block fails for anything but the emptiness of a result."""
    name = type(cause).__name__
    return fails_with(
        FiltrationResolutionError,
        f"Filtration resolution failed for filters: {DESCRIBED}: {name}: {cause}",
        {"passing_count": 0, "cause": name},
        cause,
    )


# --- nothing passes ------------------------------------------------------------------------------


@EMPTY_ERRORS
@pytest.mark.parametrize("diagnostics", [{"passing_count": 0, "why": []}, [1], "text"])
def test_an_empty_result_carries_the_diagnostics_over(evaluator, monkeypatch, kind, diagnostics):
    fault = kind("nothing", diagnostics)
    replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    with fails_with(EvaluationError, EMPTY, diagnostics, fault) as caught:
        run(evaluator)
    assert caught.value.filter_diagnostics is diagnostics


@EMPTY_ERRORS
@pytest.mark.parametrize("diagnostics", [{}, [], None, 0, ""])
def test_an_empty_result_without_diagnostics(evaluator, monkeypatch, kind, diagnostics):
    fault = kind("nothing")
    fault.filter_diagnostics = diagnostics
    replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    with fails_with(EvaluationError, EMPTY, {"passing_count": 0}, fault):
        run(evaluator)


@EMPTY_ERRORS
def test_an_empty_result_without_the_attribute(evaluator, monkeypatch, kind):
    fault = kind("nothing")
    del fault.filter_diagnostics
    replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    with pytest.raises(AttributeError) as caught:
        run(evaluator)
    text = f"'{kind.__name__}' object has no attribute 'filter_diagnostics'"
    assert str(caught.value) == text
    assert caught.value.__cause__ is None
    assert caught.value.__context__ is fault


def test_diagnostics_that_have_no_truth(evaluator, monkeypatch):
    unclear = RuntimeError("unclear")

    class Diagnostics:
        __bool__ = raising(unclear)

    fault = EmptyFiltrationError("nothing")
    fault.filter_diagnostics = Diagnostics()
    replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    with pytest.raises(RuntimeError) as caught:
        run(evaluator)
    assert caught.value is unclear
    assert unclear.__cause__ is None
    assert unclear.__context__ is fault


def test_an_empty_result_that_is_an_evaluation_error(evaluator, monkeypatch):
    class Both(EmptyPoolError, EvaluationError):
        pass

    fault = Both("nothing", {"why": 1})
    replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    with fails_with(EvaluationError, EMPTY, {"why": 1}, fault):
        run(evaluator)


def test_an_empty_list_is_no_empty_result(evaluator, monkeypatch):
    """Only the library says that nothing passes; an empty list is taken as it is."""
    replace_filters(monkeypatch, evaluator, filtration=[])
    assert run(evaluator).extraction_buffer.shape == (0, 3)


# --- other failures ------------------------------------------------------------------------------


@pytest.mark.parametrize("kind", [EvaluationError, type("Own", (EvaluationError,), {})])
def test_an_evaluation_error_passes(evaluator, monkeypatch, kind):
    fault = kind("mine")
    replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    with lets_through(fault):
        run(evaluator)
    assert not hasattr(fault, "filter_diagnostics")


@pytest.mark.parametrize("arguments", [(), ("bad",), (1, {})])
@pytest.mark.parametrize(
    "kind",
    [
        *(ValueError, KeyError, StopIteration, MemoryError, RecursionError),
        *(SchemaError, InvalidFilterError, FiltrationResolutionError),
    ],
)
def test_a_filter_that_fails(evaluator, monkeypatch, kind, arguments):
    fault = kind(*arguments)
    replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    with failed(fault):
        run(evaluator)


@pytest.mark.parametrize("name", ["FilterNode", "FiltrationInstance", "FiltrationResult"])
def test_a_class_that_fails(evaluator, monkeypatch, name):
    fault = TypeError("refused")
    replace_filters(monkeypatch, evaluator, filtration=["b"])
    monkeypatch.setattr(evaluator, name, raising(fault))
    with failed(fault):
        run(evaluator)


@pytest.mark.parametrize("name", ["FilterNode", "FiltrationInstance", "FiltrationResult"])
@pytest.mark.parametrize("kind", [KeyboardInterrupt, SystemExit, GeneratorExit])
def test_an_interrupt_passes(evaluator, monkeypatch, name, kind):
    fault = kind("now")
    replace_filters(monkeypatch, evaluator, filtration=["b"])
    monkeypatch.setattr(evaluator, name, raising(fault))
    with lets_through(fault):
        run(evaluator)


def caught_cause(evaluator) -> BaseException:
    with pytest.raises(FiltrationResolutionError) as caught:
        run(evaluator)
    cause = caught.value.__cause__
    text = f"Filtration resolution failed for filters: {DESCRIBED}: {type(cause).__name__}: {cause}"
    assert str(caught.value) == text
    assert caught.value.filter_diagnostics == {"passing_count": 0, "cause": type(cause).__name__}
    assert caught.value.__context__ is cause
    return cause


@pytest.mark.parametrize(
    ("ids", "text"),
    [
        (None, "object of type 'NoneType' has no len()"),
        (7, "object of type 'int' has no len()"),
        ((sid for sid in "ab"), "object of type 'generator' has no len()"),
        (iter(["a"]), None),
    ],
)
def test_passing_ids_without_a_size(evaluator, monkeypatch, ids, text):
    replace_filters(monkeypatch, evaluator, filtration=lambda _: ids)
    cause = caught_cause(evaluator)
    assert type(cause) is TypeError
    assert str(cause) == (text or "object of type 'list_iterator' has no len()")


@pytest.mark.parametrize(
    ("size", "kind", "text"),
    [
        (-1, ValueError, "__len__() should return >= 0"),
        ("x", TypeError, "'str' object cannot be interpreted as an integer"),
        (2**70, OverflowError, "cannot fit 'int' into an index-sized integer"),
    ],
)
def test_passing_ids_of_an_odd_size(evaluator, monkeypatch, size, kind, text):
    class Ids(list):
        def __len__(self) -> Any:
            return size

    replace_filters(monkeypatch, evaluator, filtration=Ids("a"))
    cause = caught_cause(evaluator)
    assert (type(cause), str(cause)) == (kind, text)


class Pool(dict):
    """Fails to tell its size from the moment that `fault` is set."""

    fault: BaseException | None = None

    def __len__(self) -> int:
        if self.fault is not None:
            raise self.fault
        return super().__len__()


@pytest.mark.parametrize("kind", [ValueError, KeyboardInterrupt])
def test_a_pool_that_does_not_tell_its_size(evaluator, monkeypatch, kind):
    pool = Pool(make_pool())
    fault = kind("size")

    def passing(_: Any) -> list[str]:
        pool.fault = fault
        return ["a"]

    replace_filters(monkeypatch, evaluator, filtration=passing)
    with failed(fault) if kind is ValueError else lets_through(fault):
        run(evaluator, pool=pool)


def test_the_passing_ids_are_counted_first(evaluator, monkeypatch):
    pool = Pool(make_pool())

    def passing(_: Any) -> Any:
        pool.fault = ValueError("size")

    replace_filters(monkeypatch, evaluator, filtration=passing)
    with pytest.raises(FiltrationResolutionError, match="object of type 'NoneType' has no len"):
        run(evaluator, pool=pool)


def test_a_malformed_tree(evaluator):
    with pytest.raises(FiltrationResolutionError) as caught:
        run(evaluator, reduction("f", filtration("or_", node([], "x"))))
    text = "Filtration resolution failed for filters: or_(x): TypeError: unhashable type: 'list'"
    assert str(caught.value) == text
    assert type(caught.value.__cause__) is TypeError


def test_paths_in_faults_of_a_tree(evaluator, monkeypatch):
    """A fault in the tree names the place in the tree, not the place in the graph."""
    tree = filtration("filtration", node("gt", "gt", [string("m")]))

    def build(**_: Any) -> Any:
        del tree.children[0].node
        raise ValueError("bad")

    monkeypatch.setattr(evaluator, "FilterNode", build)
    with pytest.raises(EvaluationError) as caught:
        run(evaluator, reduction("f", feature("a"), tree))
    assert str(caught.value) == "Graph node 'filtration.c0' missing required key: node"
    assert type(caught.value.__context__) is ValueError
    assert caught.value.__cause__ is None


# --- while a message is built --------------------------------------------------------------------


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
@pytest.mark.parametrize("reported_kind", [EmptyPoolError, ValueError])
def test_a_description_that_fails(evaluator, monkeypatch, kind, reported_kind):
    fault, reported = kind("mute"), reported_kind("bad")

    class Mute:
        __str__ = raising(fault)

    # The description is made before the diagnostics are missed.
    reported.__dict__.pop("filter_diagnostics", None)
    replace_filters(monkeypatch, evaluator, filtration=raising(reported))
    with pytest.raises(kind) as caught:
        run(evaluator, reduction("f", filtration("filtration", node("gt", "gt", [string(Mute())]))))
    assert caught.value is fault
    assert fault.__cause__ is None
    assert fault.__context__ is reported


def test_a_failure_without_a_text(evaluator, monkeypatch):
    mute = RuntimeError("mute")

    class MuteError(Exception):
        __str__ = raising(mute)

    fault = MuteError()
    replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    with pytest.raises(RuntimeError) as caught:
        run(evaluator)
    assert caught.value is mute
    assert mute.__context__ is fault


class Replacement(Exception):
    filter_diagnostics: Any = None


@pytest.mark.parametrize("name", ["EmptyFiltrationError", "EmptyPoolError"])
def test_replaced_empty_errors(evaluator, monkeypatch, name):
    fault = Replacement("nothing")
    replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    with failed(fault):
        run(evaluator)
    monkeypatch.setattr(evaluator, name, Replacement)
    with fails_with(EvaluationError, EMPTY, {"passing_count": 0}, fault):
        run(evaluator)


def test_a_replaced_resolution_error(evaluator, monkeypatch):
    fault = ValueError("bad")
    replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    monkeypatch.setattr(evaluator, "FiltrationResolutionError", Replacement)
    text = f"Filtration resolution failed for filters: {DESCRIBED}: ValueError: bad"
    with fails_with(Replacement, text, {"passing_count": 0, "cause": "ValueError"}, fault):
        run(evaluator)


def test_a_replaced_evaluation_error(evaluator, monkeypatch):
    monkeypatch.setattr(evaluator, "EvaluationError", Replacement)
    fault = Replacement("mine")
    filters = replace_filters(monkeypatch, evaluator, filtration=raising(fault))
    with lets_through(fault):
        run(evaluator)
    empty = EmptyPoolError("none")
    filters.answers["filtration"] = raising(empty)
    with fails_with(Replacement, EMPTY, {"passing_count": 0}, empty):
        run(evaluator)
