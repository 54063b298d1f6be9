"""Signals are looked up as a dict would: keys that act, pools and buffers that change meanwhile."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import UsefulSignal
from support.functions import RecordingFunction
from support.graphs import feature, filtration, reduction, rotation
from support.pools import make_pool, replace_filters
from support.reductions import reduction_context, run_reductions, stateful
from support.runs import fails, lets_through

ROWS = 4
FILTERED = reduction("f", filtration("first"))


def run(evaluator, instance: Any, **options: Any) -> Any:
    return run_reductions(evaluator, FILTERED, {"f": instance}, **options)[0]


class Colliding:
    """A key that meets the look-up of an id, and acts when it is compared."""

    def __init__(self, sid: str, act: Any) -> None:
        self.hash, self.act = hash(sid), act

    def __hash__(self) -> int:
        return self.hash

    def __eq__(self, other: object) -> bool:
        self.act()
        return False


@pytest.mark.parametrize("what", ["signals", "ids", "matrices", "buffer"])
def test_a_key_that_acts_while_signals_are_looked_up(evaluator, monkeypatch, what):
    """Nothing is read that is no longer there, whatever comes of the run."""
    ids = list("abcd" * 8)
    pool: dict[Any, Any] = {}
    kept: list[np.ndarray] = []

    def act() -> None:
        if not kept:
            return
        if what == "signals":
            for sid in "abc":
                pool[sid] = UsefulSignal(np.full((ROWS, 3), 1.0))
        elif what == "ids":
            ids.clear()
        elif what == "matrices":
            for sid in "abc":
                pool[sid].weights = np.full((ROWS, 3), 1.0)
        else:
            kept[0].base.resize(1, refcheck=False)
        np.full((64, 3), 9.0)

    pool[Colliding("d", act)] = UsefulSignal(np.zeros((ROWS, 3)))
    pool.update({sid: UsefulSignal(np.full((ROWS, 3), 1.0)) for sid in "abcd"})
    replace_filters(monkeypatch, evaluator, first=ids)
    instance = stateful(lambda rows, **_: kept.append(rows) or 0.0)
    try:
        context = run(evaluator, instance, pool=pool)
    except (IndexError, KeyError, ValueError, RuntimeError) as error:
        assert what in ("ids", "buffer"), error
    else:
        assert np.isin(context.extraction_buffer, [1.0]).all()


class ComparedId(str):
    """An id that tells when it is compared, and may fail."""

    __hash__ = str.__hash__
    seen: list[str]
    fault: BaseException | None = None

    def __eq__(self, other: object) -> bool:
        self.seen.append(str.__str__(self))
        if self.fault is not None and len(self.seen) == 2:
            raise self.fault
        return str.__eq__(self, other)


@pytest.mark.parametrize("fault", [None, ValueError("no"), KeyboardInterrupt()])
def test_each_id_is_looked_up_once(evaluator, monkeypatch, fault):
    seen: list[str] = []

    def compared(sid: str) -> ComparedId:
        key = ComparedId(sid)
        key.seen, key.fault = seen, fault
        return key

    weights = np.ones((2, 3))
    pool = {
        compared("a"): UsefulSignal(weights),
        "b": UsefulSignal(weights.astype(np.float32)),
        compared("c"): UsefulSignal(weights),
    }
    replace_filters(monkeypatch, evaluator, first=["a", "b", "c"])
    if fault is None:
        run(evaluator, RecordingFunction(), pool=pool, rows=2)
        assert seen == ["a", "c", "a", "c"]
    else:
        with lets_through(fault):
            run(evaluator, RecordingFunction(), pool=pool, rows=2)
        assert seen == ["a", "c"]


def test_no_ids_need_no_pool(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=[])

    def take_pool(*_: Any, context: Any) -> float:
        vars(context).pop("useful_signals", None)
        return 0.0

    graph = rotation("g", feature("a"), reduction("f", filtration("first")))
    functions = {"f": stateful(0.0), "g": RecordingFunction(take_pool)}
    context, _ = run_reductions(evaluator, graph, functions)
    assert not hasattr(context, "useful_signals")


def test_a_pool_that_the_ids_replace(evaluator, monkeypatch):
    first, second = ({sid: UsefulSignal(np.full((ROWS, 3), k)) for sid in "ab"} for k in (1.0, 8.0))
    instance = stateful()
    context = reduction_context(evaluator, {"f": instance}, pool=first)

    class Ids:
        def __len__(self) -> int:
            return 2

        def __iter__(self) -> Any:
            context.useful_signals = first
            yield "a"
            context.useful_signals = second
            yield "b"

    replace_filters(monkeypatch, evaluator, first=Ids())
    evaluator.evaluate(FILTERED, context)
    assert [given[:, 0].tolist() for given in (call.values[0] for call in instance.calls)] == [
        [1.0, 8.0]
    ] * ROWS


def test_a_buffer_without_dimensions(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["a"])
    spoil = stateful(lambda signals, **_: setattr(signals.base, "shape", ()) or 0.0)
    with fails(IndexError, "tuple index out of range"):
        run(evaluator, spoil, pool=make_pool("a", columns=1), columns=1)
