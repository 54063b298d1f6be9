"""Functions that take blocks of rows: what they may answer, keep, and fail with."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import EvaluationShapeError, FunctionExecutionError
from support.graphs import feature, rotation
from support.guise_runs import GuiseRun
from support.opted_in import BlockFunction, total
from support.runs import counting_matrix, fails

pytestmark = pytest.mark.parametrize("evaluator", ["native"], indirect=True)
A, B = feature("a"), feature("b")


def plain_features(rows: int, columns: int) -> dict[str, np.ndarray]:
    return {name: counting_matrix(rows, columns) for name in "ab"}


class OddBlock(BlockFunction):
    """Answers blocks as it is told to."""

    def __init__(self, answer: Any, **options: Any) -> None:
        super().__init__(**options)
        self.answer = answer

    def __quernbrook_row_block__(self, *blocks: np.ndarray) -> Any:
        self.calls.append(len(blocks[0]))
        return self.answer(*blocks)


def run_block(evaluator: Any, answer: Any, rows: int = 4) -> tuple[Any, Any]:
    instance = OddBlock(answer)
    run = GuiseRun(evaluator, rotation("total", A, B), {}, plain_features(rows, 3))
    run.bound = {"root": instance}
    return run, instance


ODD_ANSWERS: dict[str, tuple[Any, str]] = {
    "a row": (lambda a, b: a[0], "returned shape (3,), expected (4, 3) at row 0"),
    "a row too few": (lambda a, b: a[1:], "returned shape (3, 3), expected (4, 3) at row 0"),
    "turned": (lambda a, b: a.T, "returned shape (3, 4), expected (4, 3) at row 0"),
    "single": (
        lambda a, b: a.astype(np.float32),
        "returned dtype float32, expected float64 at row 0",
    ),
    "big-endian": (
        lambda a, b: a.astype(">f8"),
        "returned dtype >f8, expected float64 at row 0",
    ),
    "objects": (
        lambda a, b: a.astype(object),
        "returned dtype object, expected float64 at row 0",
    ),
    "list": (
        lambda a, b: a.tolist(),
        "returned list for a block of rows, expected an array at row 0",
    ),
    "number": (
        lambda a, b: 1.0,
        "returned float for a block of rows, expected an array at row 0",
    ),
    "nothing": (
        lambda a, b: None,
        "returned NoneType for a block of rows, expected an array at row 0",
    ),
}


@pytest.mark.parametrize(("answer", "text"), ODD_ANSWERS.values(), ids=ODD_ANSWERS)
def test_blocks_of_another_form(evaluator, answer, text):
    run, instance = run_block(evaluator, answer)
    with fails(EvaluationShapeError, f"Function 'total' {text}"):
        evaluator.evaluate(run.graph, run.context, bound_function_instances=run.bound)
    assert instance.calls == [4]
    assert run.context.current_day_index == 0


GOOD_ANSWERS: dict[str, Any] = {
    "an argument": lambda a, b: a,
    "a view of an argument": lambda a, b: b[:],
    "by columns": lambda a, b: np.asfortranarray(a + b),
    "backwards": lambda a, b: (a + b)[::-1, ::-1].copy()[::-1, ::-1],
    "subclass": lambda a, b: np.ma.masked_array(a + b, mask=False),
    "one row for all": lambda a, b: np.broadcast_to(a[0] + b[0], a.shape),
}


@pytest.mark.parametrize("answer", GOOD_ANSWERS.values(), ids=GOOD_ANSWERS)
def test_blocks_that_lie_otherwise_in_memory(evaluator, answer):
    run, instance = run_block(evaluator, answer)
    result = evaluator.evaluate(run.graph, run.context, bound_function_instances=run.bound)
    expected = np.asarray(answer(*run.context.features))
    assert np.array_equal(result.weights, expected)
    assert instance.calls == [4]


def test_kept_and_changed_arguments_are_the_functions_own(evaluator):
    kept: list[np.ndarray] = []

    def keep(a: np.ndarray, b: np.ndarray) -> np.ndarray:
        result = a + b
        for block in (*kept, a, b):
            block[:] = -1.0
        kept.extend((a, b))
        a.shape = (a.size,)
        return result

    rows, columns = 9, 20_000
    features = plain_features(rows, columns)
    graph = rotation("total", A, rotation("total.below", A, B))
    run = GuiseRun(evaluator, graph, {}, features)
    run.bound = {"root": OddBlock(keep), "root.c1": OddBlock(keep)}
    result = evaluator.evaluate(graph, run.context, bound_function_instances=run.bound)
    assert np.array_equal(result.weights, features["a"] * 2 + features["b"])
    assert np.array_equal(features["a"], counting_matrix(rows, columns))
    assert len(kept) > 4
    assert all(block.flags.writeable for block in kept)


@pytest.mark.parametrize("fault", [KeyboardInterrupt(), SystemExit(3), GeneratorExit()])
def test_what_is_no_exception_leaves_at_once(evaluator, fault):
    def fail(a: np.ndarray, b: np.ndarray) -> Any:
        raise fault

    run, instance = run_block(evaluator, fail)
    with pytest.raises(type(fault)) as caught:
        evaluator.evaluate(run.graph, run.context, bound_function_instances=run.bound)
    assert caught.value is fault
    assert instance.calls == [4]


def test_a_block_that_fails_is_taken_row_by_row(evaluator):
    """All rows may pass then: a block may be too large where rows are not."""

    def fail(a: np.ndarray, b: np.ndarray) -> Any:
        raise MemoryError("too large")

    run, instance = run_block(evaluator, fail)
    result = evaluator.evaluate(run.graph, run.context, bound_function_instances=run.bound)
    assert np.array_equal(result.weights, 0.5 + run.context.features[0] + run.context.features[1])
    assert instance.calls == [4, *["call"] * 4]


def test_rows_of_a_failed_block_see_their_day(evaluator):
    days: list[Any] = []

    class Looking(BlockFunction):
        def __call__(self, *rows: np.ndarray, context: Any = None) -> Any:
            days.append(run.context.current_day_index)
            return total({}, *rows)

        def __quernbrook_row_block__(self, *blocks: np.ndarray) -> Any:
            raise ValueError("row by row, please")

    run = GuiseRun(evaluator, rotation("total", A, B), {}, plain_features(5, 3))
    run.bound = {"root": Looking()}
    run()
    assert days == [0, 1, 2, 3, 4]


class Raising:
    """The row before the last raises, and so does the block."""

    arity = 2
    stateful = False

    def __init__(self, fault: Exception, row: int) -> None:
        self.fault, self.row, self.count = fault, row, 0

    def __call__(self, *rows: np.ndarray, context: Any = None) -> Any:
        self.count += 1
        if self.count > self.row:
            raise self.fault
        return rows[0]

    def __quernbrook_row_block__(self, *blocks: np.ndarray) -> Any:
        raise RuntimeError("not what is told in the end")


@pytest.mark.parametrize("row", range(5))
def test_the_cause_is_the_very_exception(evaluator, row):
    fault = KeyError("lost")
    run = GuiseRun(evaluator, rotation("total", A, B), {}, plain_features(5, 3))
    run.bound = {"root": Raising(fault, row)}
    with fails(
        FunctionExecutionError, f"Function 'total' failed at row {row}: 'lost'", cause=fault
    ):
        evaluator.evaluate(run.graph, run.context, bound_function_instances=run.bound)
    assert run.context.current_day_index == row


ODD_ROWS = [
    lambda row: row[:1],
    lambda row: row.astype(np.float32),
    lambda row: [1.0, 2.0],
    lambda row: "text",
    lambda row: None,
    lambda row: 2,
    lambda row: row.tolist(),
]


@pytest.mark.parametrize("make", ODD_ROWS)
def test_odd_rows_after_a_failed_block(evaluator, make):
    class Odd(BlockFunction):
        def __call__(self, *rows: np.ndarray, context: Any = None) -> Any:
            self.calls.append("call")
            return make(rows[0]) if len(self.calls) > 2 else rows[0]

    class PlainOdd(Odd):
        __quernbrook_row_block__ = None  # type: ignore[assignment]

    def observe(kind: type) -> Any:
        run = GuiseRun(evaluator, rotation("total", A, B), {}, plain_features(5, 3))
        instance = kind()
        run.bound = {"root": instance}

        def fail(*_: Any) -> Any:
            raise ValueError

        instance.step = fail
        return run()

    odd, plain = observe(Odd), observe(PlainOdd)
    # The block came before, so that the second row is the first odd one there.
    assert odd.keys() == plain.keys()
    if "error" in odd:
        assert odd["error"][0] is plain["error"][0]
