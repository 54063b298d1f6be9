"""A filtration is resolved once a run; what its failures become."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from types import SimpleNamespace
from typing import Any

import pytest
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.functions.filtrations_evaluation import (
    EmptyFiltrationError,
    EmptyPoolError,
    FilterNode,
    FiltrationResult,
    InvalidFilterError,
)
from quernbrook.simulator_engine._types import (
    EvaluationError,
    FiltrationResolutionError,
    UsefulSignal,
)
from support.functions import raising
from support.graphs import feature, filtration, node, number, reduction, rotation, string
from support.pools import make_pool, replace_filters
from support.reductions import reduction_context, run_reductions, stateful
from support.runs import counting_matrix, fails, lets_through, make_context, same_bits

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


# --- once a run ----------------------------------------------------------------------------------


@pytest.mark.parametrize("bound", [True, False])
def test_built_and_called_once(evaluator, monkeypatch, bound):
    filters = replace_filters(monkeypatch, evaluator, filtration=["b"])
    instance = stateful()
    options = {"root": instance} if bound else None
    pool = make_pool()
    context = reduction_context(evaluator, {"f": instance}, pool=pool)
    for runs in (1, 2):
        evaluator.evaluate(reduction("f", TREE), context, bound_function_instances=options)
        assert len(filters.builds) == len(filters.calls) == runs
    for args, keywords in filters.builds:
        tree, registry = args
        assert tree == FilterNode(
            "filtration", {}, [FilterNode("gt", {"field": "momentum", "value": 0.5}, [])]
        )
        assert type(tree) is FilterNode
        assert registry is context.registry
        assert keywords == {}
    for args, keywords in filters.calls:
        assert len(args) == 1 and args[0] is pool
        assert keywords == {}
    assert len(instance.calls) == 8


def test_without_a_registry(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, filtration=["b"])
    context = make_context(evaluator, {"a": counting_matrix(1)}, useful_signals=make_pool(rows=1))
    evaluator.evaluate(TREE, context)
    assert filters.builds[0][0][1] is None


def test_one_node_at_two_paths_is_resolved_for_each(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, filtration=["b"])
    run(evaluator, reduction("f", TREE, reduction("f", TREE)))
    assert len(filters.builds) == len(filters.calls) == 2


@pytest.mark.parametrize("parent", [lambda child: child, lambda child: rotation("g", child)])
def test_without_a_reduction(evaluator, monkeypatch, parent):
    filters = replace_filters(monkeypatch, evaluator, filtration=["c", "a"])
    graph = parent(TREE)
    context, result = run_reductions(evaluator, graph, {"g": stateful(1.0)})
    assert len(filters.calls) == 1
    assert result.weights.tolist() == [[float(graph is not TREE)] * 3] * 4
    same_bits(context.registers[-1 if graph is TREE else -2], [0.0, 0.0, 0.0])
    assert context.extraction_buffer[:, 0].tolist() == [330.0, 130.0]


def test_below_a_filtration(evaluator, monkeypatch):
    """A node of kind "filtration" below another is resolved for itself, too."""
    filters = replace_filters(monkeypatch, evaluator, filtration=["a"], inner=["b", "c"])
    context = run(evaluator, filtration("filtration", filtration("inner")))
    assert [args[0].function_name for args, _ in filters.builds] == ["inner", "filtration"]
    assert context.extraction_buffer.shape == (1, 3)


def test_not_before_the_first_row(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, filtration=["a"])
    run(evaluator, rows=0)
    assert filters.builds == []


def test_a_precomputed_filtration_is_asked_for_by_its_reduction(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, filtration=["b"])
    tree = filtration("filtration", MOMENTUM, canonical_id="id")
    instance = stateful()
    context = reduction_context(evaluator, {"f": instance})
    context._precomputed_node_outputs = {"id": [0.0, 0.0, 0.0]}
    evaluator.evaluate(reduction("f", tree), context)
    assert len(filters.builds) == len(filters.calls) == 1
    # Nothing was extracted: one row of the zeros that the run began with.
    assert [call.values[0].tolist() for call in instance.calls] == [[[0.0, 0.0, 0.0]]] * 4


# --- the result ----------------------------------------------------------------------------------


def test_keywords_of_the_result(evaluator, monkeypatch):
    ids = ("c", "a")
    calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    def build(*args: Any, **kwargs: Any) -> Any:
        calls.append((args, kwargs))
        return SimpleNamespace(passing_ids=["b"])

    replace_filters(monkeypatch, evaluator, filtration=ids)
    monkeypatch.setattr(evaluator, "FiltrationResult", build)
    context = run(evaluator)
    ((args, keywords),) = calls
    assert args == ()
    assert keywords == {
        "passing_ids": ids,
        "signal_count": 2,
        "total_pool_size": 3,
        "filter_diagnostics": [],
    }
    assert list(keywords) == [
        "passing_ids",
        "signal_count",
        "total_pool_size",
        "filter_diagnostics",
    ]
    assert keywords["passing_ids"] is ids
    # What the result says passes, not what the instance returned.
    assert context.extraction_buffer[:, 0].tolist() == [230.0]


def test_diagnostics_are_new_for_each_result(evaluator, monkeypatch):
    results: list[Any] = []

    def build(**keywords: Any) -> Any:
        results.append(FiltrationResult(**keywords))
        return results[-1]

    replace_filters(monkeypatch, evaluator, filtration=["b"])
    monkeypatch.setattr(evaluator, "FiltrationResult", build)
    run(evaluator, reduction("f", TREE, reduction("f", TREE)))
    one, other = results
    assert one.filter_diagnostics == other.filter_diagnostics == []
    assert one.filter_diagnostics is not other.filter_diagnostics


def test_the_sizes_are_taken_after_the_call(evaluator, monkeypatch):
    sizes: list[tuple[int, int]] = []

    def build(**keywords: Any) -> Any:
        sizes.append((keywords["signal_count"], keywords["total_pool_size"]))
        return FiltrationResult(**keywords)

    def passing(pool: Any) -> list[str]:
        del pool["c"]
        return ["a"]

    replace_filters(monkeypatch, evaluator, filtration=passing)
    monkeypatch.setattr(evaluator, "FiltrationResult", build)
    run(evaluator)
    assert sizes == [(1, 2)]


@pytest.mark.parametrize(
    "kind", [list, tuple, dict.fromkeys, lambda ids: dict.fromkeys(ids).keys()]
)
def test_kinds_of_passing_ids(evaluator, monkeypatch, kind):
    replace_filters(monkeypatch, evaluator, filtration=kind(["c", "a"]))
    assert run(evaluator).extraction_buffer[:, 0].tolist() == [330.0, 130.0]


def test_the_result_without_passing_ids(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, filtration=["b"])
    monkeypatch.setattr(evaluator, "FiltrationResult", lambda **_: SimpleNamespace())
    with fails(AttributeError, "'types.SimpleNamespace' object has no attribute 'passing_ids'"):
        run(evaluator)


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


# --- order, later runs, names --------------------------------------------------------------------


def test_the_filter_fails_before_the_reduction_over_it(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, filtration=raising(ValueError("filter")))
    instance = stateful(raising(ValueError("function")))
    with pytest.raises(FiltrationResolutionError):
        run_reductions(evaluator, reduction("f", TREE), {"f": instance})
    assert instance.calls == []


def test_a_filter_that_runs_the_context(evaluator, monkeypatch):
    """A run within the filter resolves for itself."""
    context = reduction_context(evaluator, {"f": stateful()})
    calls: list[int] = []

    def passing(pool: Any) -> list[str]:
        calls.append(len(pool))
        if len(calls) == 1:
            evaluator.evaluate(reduction("f", TREE), context)
            return ["b"]
        return ["a", "c"]

    replace_filters(monkeypatch, evaluator, filtration=passing)
    evaluator.evaluate(reduction("f", TREE), context)
    assert calls == [3, 3]
    assert context.extraction_buffer[:, 0].tolist() == [230.0]


def test_a_failing_run_leaves_nothing_behind(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, filtration=raising(ValueError("once")))
    context = reduction_context(evaluator, {"f": stateful()})
    before = context.extraction_buffer
    with pytest.raises(FiltrationResolutionError):
        evaluator.evaluate(reduction("f", TREE), context)
    assert context.extraction_buffer is before
    assert context.current_day_index == 0
    filters.answers["filtration"] = ["b"]
    evaluator.evaluate(reduction("f", TREE), context)
    assert context.extraction_buffer[:, 0].tolist() == [230.0]


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


def test_with_the_filters_of_the_host(evaluator):
    pool = make_pool()
    for sid, momentum in zip("abc", (0.9, 0.1, 0.6), strict=True):
        pool[sid] = UsefulSignal(pool[sid].weights, fields={"momentum": momentum})
    assert run(evaluator, pool=pool).extraction_buffer[:, 0].tolist() == [130.0, 330.0]
    pool["a"].fields["momentum"] = pool["c"].fields["momentum"] = 0.0
    with pytest.raises(EvaluationError) as caught:
        run(evaluator, pool=pool)
    assert str(caught.value) == EMPTY
    assert type(caught.value.__cause__) is EmptyFiltrationError
    assert caught.value.filter_diagnostics["total_pool_size"] == 3
    with pytest.raises(EvaluationError) as caught:
        run(evaluator, pool={})
    assert type(caught.value.__cause__) is EmptyPoolError
