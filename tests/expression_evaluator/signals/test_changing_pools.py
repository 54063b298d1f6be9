"""Pools, signals and passing ids that change while a run goes on, or are of odd kinds."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.functions.filtrations_evaluation import EmptyPoolError
from quernbrook.simulator_engine._types import UsefulSignal
from support.extractions import FILTERED, PLAIN, blocks, run
from support.functions import raising
from support.pools import block, make_pool, replace_filters
from support.reductions import reduction_context, stateful
from support.runs import fails, lets_through, same_bits

ROWS = 4


def changing(act: Any) -> Any:
    """A reduction that does `act` with its context in the first row, then gives zeros."""
    seen: list[Any] = []

    def change(signals: Any, **_: Any) -> float:
        if not seen:
            act()
        seen.append(None)
        return 0.0

    return stateful(change)


# --- pools and ids that change while the run goes on ---------------------------------------------


def test_a_signal_that_goes(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["a", "b"])
    pool = make_pool()
    instance = changing(lambda: pool.pop("b"))
    with fails(KeyError, "'b'"):
        run(evaluator, FILTERED, instance, pool=pool)
    assert len(instance.calls) == 1
    pool = make_pool()
    instance, context = run(evaluator, PLAIN, changing(lambda: pool.pop("b")), pool=pool)
    assert [len(given) for given in blocks(instance)] == [3, 2, 2, 2]
    same_bits(context.extraction_buffer, block(pool, "ac", ROWS - 1))


def test_all_signals_that_go(evaluator):
    """With none left nothing is extracted, and no row of the old contents is read."""
    pool = make_pool()
    instance, context = run(evaluator, PLAIN, changing(pool.clear), pool=pool)
    assert [len(given) for given in blocks(instance)] == [3, 0, 0, 0]
    same_bits(context.extraction_buffer, block(make_pool(), "abc", 0))


def test_a_signal_that_comes(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, first=["a", "b"])
    for graph, sizes in ((PLAIN, [3, 4, 4, 4]), (FILTERED, [2, 2, 2, 2])):
        pool = make_pool()
        instance = changing(lambda pool=pool: pool.update(make_pool("B")))
        run(evaluator, graph, instance, pool=pool)
        assert [len(given) for given in blocks(instance)] == sizes
        first = blocks(instance)[-1][0]
        same_bits(first, pool["B" if graph is PLAIN else "a"].weights[-1])
    assert len(filters.calls) == 1


@pytest.mark.parametrize("graph", [PLAIN, FILTERED])
def test_weights_that_are_replaced(evaluator, monkeypatch, graph):
    replace_filters(monkeypatch, evaluator, first=["a", "b", "c"])
    pool = make_pool()
    other = np.asfortranarray(-make_pool()["b"].weights, dtype=np.float32)
    instance, _ = run(
        evaluator, graph, changing(lambda: setattr(pool["b"], "weights", other)), pool=pool
    )
    assert [given[1, 0] for given in blocks(instance)] == [200.0, -210.0, -220.0, -230.0]


@pytest.mark.parametrize("graph", [PLAIN, FILTERED])
def test_numbers_and_signals_and_pools_that_are_replaced(evaluator, monkeypatch, graph):
    replace_filters(monkeypatch, evaluator, first=["a", "b", "c"])
    pool = make_pool()
    context = reduction_context(evaluator, {}, pool=pool)

    def change(signals: Any, **_: Any) -> float:
        if context.current_day_index == 0:
            pool["a"].weights[1, 0] = -1.0
        elif context.current_day_index == 1:
            pool["a"] = UsefulSignal(np.full((ROWS, 3), -2.0))
        else:
            context.useful_signals = {**pool, "a": UsefulSignal(np.full((ROWS, 3), -3.0))}
        return 0.0

    instance = stateful(change)
    evaluator.evaluate(graph, context, bound_function_instances={"root": instance})
    assert [given[0, 0] for given in blocks(instance)] == [100.0, -1.0, -2.0, -3.0]


def test_passing_ids_that_change(evaluator, monkeypatch):
    """The ids are counted and read anew in every row; what passes is not asked again."""
    ids = ["a"]
    filters = replace_filters(monkeypatch, evaluator, first=ids)
    instance, _ = run(evaluator, FILTERED, changing(lambda: ids.append("c")))
    assert [given[:, 0].tolist() for given in blocks(instance)] == [
        [100.0],
        [110.0, 310.0],
        [120.0, 320.0],
        [130.0, 330.0],
    ]
    assert len(filters.calls) == 1


class Lying(list):
    """Tells another size than it has."""

    def __init__(self, ids: str, size: int) -> None:
        super().__init__(ids)
        self.size = size

    def __len__(self) -> int:
        return self.size


def test_more_ids_than_their_size(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=Lying("abc", 2))
    with fails(IndexError, "index 2 is out of bounds for axis 0 with size 2"):
        run(evaluator, FILTERED)


def test_fewer_ids_than_their_size(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=Lying("b", 2))
    instance, _ = run(evaluator, FILTERED)
    for t, given in enumerate(blocks(instance)):
        same_bits(given, [make_pool()["b"].weights[t], [0.0] * 3])


@pytest.mark.parametrize("kind", [ValueError, KeyboardInterrupt])
def test_ids_that_cannot_be_read(evaluator, monkeypatch, kind):
    """Ids that fail once the filter has been resolved fail as they are."""
    fault = kind("ids")

    class Ids(list):
        __iter__ = raising(fault)

    replace_filters(monkeypatch, evaluator, first=Ids("ab"))
    with lets_through(fault):
        run(evaluator, FILTERED)


class Passing:
    """A result whose ids can be read so many times, then fail."""

    def __init__(self, ids: list[str], reads: int, fault: BaseException) -> None:
        self.ids, self.reads, self.fault = ids, reads, fault

    @property
    def passing_ids(self) -> list[str]:
        self.reads -= 1
        if self.reads < 0:
            raise self.fault
        return self.ids


@pytest.mark.parametrize("kind", [ValueError, KeyboardInterrupt])
@pytest.mark.parametrize("reads", [0, 1, 2, 3])
def test_a_result_is_read_at_both_nodes_in_every_row(evaluator, monkeypatch, kind, reads):
    """By the filtration and by the reduction; what fails there fails as it is."""
    fault = kind("ids")
    replace_filters(monkeypatch, evaluator, first=["a"])
    monkeypatch.setattr(evaluator, "FiltrationResult", lambda **_: Passing(["a"], reads, fault))
    instance = stateful(0.0)
    with lets_through(fault):
        run(evaluator, FILTERED, instance)
    assert len(instance.calls) == reads // 2


@pytest.mark.parametrize("kind", [ValueError, KeyboardInterrupt])
def test_ids_that_lose_their_size(evaluator, monkeypatch, kind):
    fault = kind("size")

    class Ids(list):
        sizes = 1

        def __len__(self) -> int:
            self.sizes -= 1
            if self.sizes < 0:
                raise fault
            return 1

    replace_filters(monkeypatch, evaluator, first=Ids("a"))
    with lets_through(fault):
        run(evaluator, FILTERED)


@pytest.mark.parametrize(
    ("ids", "kind", "text"),
    [
        (["a", "x"], KeyError, "'x'"),
        ([None], KeyError, "None"),
        ([5, "x"], KeyError, "5"),
        ([[]], TypeError, "unhashable type: 'list'"),
    ],
)
def test_ids_that_are_no_signals(evaluator, monkeypatch, ids, kind, text):
    replace_filters(monkeypatch, evaluator, first=ids)
    with fails(kind, text):
        run(evaluator, FILTERED)


def test_ids_of_other_kinds(evaluator, monkeypatch):
    pool = dict(zip([5, None, ("a",)], make_pool().values(), strict=True))
    replace_filters(monkeypatch, evaluator, first=[None, 5])
    instance, _ = run(evaluator, FILTERED, pool=pool)
    assert blocks(instance)[0][:, 0].tolist() == [200.0, 100.0]
    with fails(TypeError, "'<' not supported between instances of 'NoneType' and 'int'"):
        run(evaluator, PLAIN, pool=pool)


# --- mappings of other classes -------------------------------------------------------------------


class Pool:
    """A mapping with only what a run asks of it."""

    def __init__(self, signals: dict[str, Any]) -> None:
        self.signals = signals
        self.log: list[str] = []

    def __len__(self) -> int:
        return len(self.signals)

    def __getitem__(self, sid: str) -> Any:
        self.log.append(sid)
        return self.signals[sid]

    def keys(self) -> Any:
        self.log.append("keys")
        return iter(["c", "a"])

    def get(self, sid: str) -> Any:
        self.log.append(f"get {sid}")
        return None


class DictPool(Pool, dict):
    """A dict that holds other signals than it gives."""

    def __init__(self, signals: dict[str, Any]) -> None:
        dict.__init__(self, dict.fromkeys("xyz"))
        Pool.__init__(self, signals)


@pytest.mark.parametrize("kind", [Pool, DictPool])
def test_mappings_of_other_classes(evaluator, monkeypatch, kind):
    replace_filters(monkeypatch, evaluator, first=["b", "a"])
    signals = make_pool(rows=2)
    for graph, ids, log in ((PLAIN, "ac", ["keys", "a", "c"]), (FILTERED, "ba", ["b", "a"])):
        pool = kind(signals)
        instance, _ = run(evaluator, graph, pool=pool, rows=2, validate_inputs=False)
        for t, given in enumerate(blocks(instance)):
            same_bits(given, block(signals, ids, t))
        assert pool.log == log * 2


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
@pytest.mark.parametrize("method", ["keys", "__getitem__"])
def test_mappings_that_fail(evaluator, kind, method):
    fault = kind(method)
    pool = type("Failing", (Pool,), {method: raising(fault)})(make_pool())
    with lets_through(fault):
        run(evaluator, pool=pool, validate_inputs=False)


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_weights_that_cannot_be_read(evaluator, kind):
    fault = kind("weights")
    signal = type("Signal", (), {"weights": property(raising(fault))})()
    with lets_through(fault):
        run(evaluator, pool={"a": signal}, validate_inputs=False)


def test_a_signal_without_weights_as_an_attribute(evaluator):
    with fails(AttributeError, "'int' object has no attribute 'weights'"):
        run(evaluator, pool={"a": 5}, validate_inputs=False)


def test_a_failing_filter_leaves_the_buffer_of_the_context(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=raising(EmptyPoolError("none")))
    context = reduction_context(evaluator, {"f": stateful()})
    before = context.extraction_buffer
    with pytest.raises(Exception, match="Filtration returned 0 signals for filters: first"):
        evaluator.evaluate(FILTERED, context)
    assert context.extraction_buffer is before
