"""How a function's type opts in, and what becomes of offers that can't be used."""

from __future__ import annotations

import ctypes
from typing import Any
from unittest.mock import MagicMock, Mock

import numpy as np
import pytest
from quernbrook.simulator_engine._types import FunctionExecutionError
from support.graphs import feature, number, reduction, rotation
from support.opted_in import BlockFunction, KernelFunction, PlainFunction
from support.pools import make_pool
from support.row_kernels import (
    REDUCTION_KERNEL,
    ROW_KERNEL,
    ReductionKernel,
    RowKernel,
    RunReduction,
    RunRows,
    capsule_of,
)
from support.runs import counting_matrix, fails, lets_through, make_context, same_bits

NATIVE = pytest.mark.parametrize("evaluator", ["native"], indirect=True)
FEATURES = {"a": counting_matrix(4), "b": counting_matrix(4, start=40)}
GRAPH = rotation("f", feature("a"), number(1.0))


def evaluate(evaluator: Any, instance: Any, graph: Any = GRAPH, **options: Any) -> Any:
    context = make_context(evaluator, FEATURES, **options)
    return evaluator.evaluate(graph, context, bound_function_instances={"root": instance})


# --- where an offer is looked for ----------------------------------------------------------------

OFFERS = (
    "__quernbrook_row_kernel__",
    "__quernbrook_row_block__",
    "__quernbrook_reduction_kernel__",
)


class Eager(PlainFunction):
    """Answers to every name."""

    asked: list[str]

    def __getattr__(self, name: str) -> Any:
        if name.startswith("__quernbrook"):
            vars(self).setdefault("asked", []).append(name)
        return lambda *_: object()


class Watched(PlainFunction):
    """Lists every name that is looked up on it."""

    def __getattribute__(self, name: str) -> Any:
        if name.startswith("__quernbrook"):
            raise AssertionError(f"{name} was looked up on an instance")
        return super().__getattribute__(name)


class Meta(type):
    def __getattr__(cls, name: str) -> Any:
        raise (
            AssertionError(f"{name} was looked up on a class")
            if "quern" in name
            else AttributeError(name)
        )

    __quernbrook_row_kernel__ = __quernbrook_row_block__ = "not a class's own"


class OfMeta(PlainFunction, metaclass=Meta):
    pass


def with_own_attributes() -> Any:
    instance = PlainFunction()
    for name in OFFERS:
        setattr(instance, name, lambda *_: object())
    return instance


@pytest.mark.parametrize("make", [Eager, Watched, OfMeta, with_own_attributes])
@pytest.mark.parametrize("graph", [GRAPH, rotation("f", GRAPH)])
def test_nothing_but_the_type_is_asked(evaluator, make, graph):
    instance = make()
    context = make_context(evaluator, FEATURES)
    bound = {"root": instance, "root.c0": instance}
    result = evaluator.evaluate(graph, context, bound_function_instances=bound)
    assert not hasattr(instance, "asked") or make is Eager
    assert vars(instance).get("asked", []) == []
    same_bits(result.node_outputs["root.c0" if graph is not GRAPH else "root"], FEATURES["a"] + 1.5)


@pytest.mark.parametrize("kind", [Mock, MagicMock])
def test_mocks_are_called_row_by_row(evaluator, kind):
    mock = kind(side_effect=lambda *rows, **_: rows[0] * 2.0, stateful=False)
    result = evaluate(evaluator, mock)
    same_bits(result.weights, FEATURES["a"] * 2.0)
    assert mock.call_count == 4


@NATIVE
def test_a_type_is_asked_once_a_run(evaluator):
    instance = KernelFunction()
    for runs in (1, 2):
        evaluate(evaluator, instance)
        assert instance.offers == runs
    empty = make_context(evaluator, {"a": np.zeros((0, 3))})
    evaluator.evaluate(GRAPH, empty, bound_function_instances={"root": instance})
    assert instance.offers == 3


@NATIVE
@pytest.mark.parametrize("name", OFFERS[:2])
def test_a_subclass_takes_the_offer_back(evaluator, name):
    base = KernelFunction if name == OFFERS[0] else BlockFunction
    instance = type("Plain", (base,), {name: None})()
    same_bits(evaluate(evaluator, instance).weights, FEATURES["a"] + 1.5)
    assert instance.calls == ["call"] * 4


@NATIVE
def test_none_declines_for_this_run(evaluator):
    class Choosy(KernelFunction):
        declines = True

        def __quernbrook_row_kernel__(self) -> Any:
            return None if self.declines else super().__quernbrook_row_kernel__()

    instance = Choosy()
    evaluate(evaluator, instance)
    assert instance.calls == ["call"] * 4
    instance.declines = False
    evaluate(evaluator, instance)
    assert instance.calls[4:] == [4]


@NATIVE
def test_a_kernel_is_preferred_to_blocks(evaluator):
    class Both(KernelFunction, BlockFunction):
        declines = False

        def __quernbrook_row_kernel__(self) -> Any:
            return None if self.declines else super().__quernbrook_row_kernel__()

    instance = Both()
    lengths: list[int] = []
    evaluate(evaluator, instance)
    assert instance.calls == [4]
    instance.declines = True
    instance.step = lambda memory, *rows: lengths.append(1) or rows[0]
    evaluate(evaluator, instance)
    assert instance.calls == [4, 4]


@NATIVE
@pytest.mark.parametrize("wrap", [staticmethod, classmethod])
def test_an_offer_is_bound_as_its_descriptor_says(evaluator, wrap):
    kernel = KernelFunction()
    offer = (
        (lambda: capsule_of(kernel.structure, ROW_KERNEL))
        if wrap is staticmethod
        else (lambda cls: capsule_of(kernel.structure, ROW_KERNEL))
    )
    kind = type("Odd", (PlainFunction,), {"__quernbrook_row_kernel__": wrap(offer)})
    instance = kind()
    evaluate(evaluator, instance)
    assert (instance.calls, kernel.calls) == ([], [4])


@NATIVE
def test_instances_without_call_run_too(evaluator):
    class Silent(KernelFunction):
        __call__ = None  # type: ignore[assignment]

    same_bits(evaluate(evaluator, Silent()).weights, FEATURES["a"] + 1.5)


# --- offers that can't be used -------------------------------------------------------------------


def offering(make: Any, method: str = OFFERS[0]) -> Any:
    return type("Offering", (PlainFunction,), {method: lambda self: make()})()


def row_kernel(**changes: Any) -> RowKernel:
    fields = {
        "size": ctypes.sizeof(RowKernel),
        "flags": 0,
        "state": None,
        "run": RunRows(lambda *_: 0),
    }
    kept = RowKernel(**{**fields, **changes})
    KEPT.append(kept)
    return kept


KEPT: list[Any] = []
NAMES = [b"quernbrook.row_kernel.2", b"quernbrook.row_kernel", b"", REDUCTION_KERNEL, b"\xff\xfe"]


def refusal(reason: str) -> str:
    return f"Function 'f' at node 'root' offers a kernel that cannot be used: {reason}"


@NATIVE
@pytest.mark.parametrize("offer", [5, "text", b"bytes", [], object(), NotImplemented, True])
def test_no_capsule(evaluator, offer):
    reason = (
        f"expected a capsule named 'quernbrook.row_kernel.1' or None; got {type(offer).__name__}"
    )
    with fails(FunctionExecutionError, refusal(reason)):
        evaluate(evaluator, offering(lambda: offer))


@NATIVE
@pytest.mark.parametrize("name", [*NAMES[:4], None])
def test_capsules_of_other_names(evaluator, name):
    told = "" if name is None else name.decode()
    reason = f"its capsule is named '{told}' and not 'quernbrook.row_kernel.1'"
    with fails(FunctionExecutionError, refusal(reason)):
        evaluate(evaluator, offering(lambda: capsule_of(row_kernel(), name)))


@NATIVE
def test_a_capsule_with_a_name_in_no_encoding(evaluator):
    reason = "its capsule is named '\ufffd\ufffd' and not 'quernbrook.row_kernel.1'"
    with fails(FunctionExecutionError, refusal(reason)):
        evaluate(evaluator, offering(lambda: capsule_of(row_kernel(), NAMES[4])))


@NATIVE
@pytest.mark.parametrize("size", [0, 8, ctypes.sizeof(RowKernel) - 1])
def test_structures_that_are_too_small(evaluator, size):
    reason = f"its structure has a size of {size} bytes; at least 32 are needed"
    with fails(FunctionExecutionError, refusal(reason)):
        evaluate(evaluator, offering(lambda: capsule_of(row_kernel(size=size), ROW_KERNEL)))


@NATIVE
def test_a_later_version_is_longer(evaluator):
    class Longer(ctypes.Structure):
        _fields_ = [("kernel", RowKernel), ("more", ctypes.c_double * 4)]

    class Later(KernelFunction):
        def __quernbrook_row_kernel__(self) -> Any:
            self.longer = Longer(self.structure)
            self.longer.kernel.size = ctypes.sizeof(Longer)
            return capsule_of(self.longer, ROW_KERNEL)

    same_bits(evaluate(evaluator, Later()).weights, FEATURES["a"] + 1.5)


@NATIVE
def test_unknown_flags_are_left_alone(evaluator):
    instance = KernelFunction()
    instance.structure.flags = 2**64 - 1
    same_bits(evaluate(evaluator, instance).weights, FEATURES["a"] + 1.5)


@NATIVE
def test_no_function_to_run(evaluator):
    kernel = row_kernel(run=RunRows())
    with fails(FunctionExecutionError, refusal("it has no function to run")):
        evaluate(evaluator, offering(lambda: capsule_of(kernel, ROW_KERNEL)))


@NATIVE
@pytest.mark.parametrize("method", [OFFERS[0], OFFERS[2]])
@pytest.mark.parametrize("fault", [ValueError("mine"), KeyboardInterrupt(), AttributeError("x")])
def test_what_an_offer_raises_comes_out_as_it_is(evaluator, method, fault):
    def fail() -> Any:
        raise fault

    graph = reduction("f") if "reduction" in method else GRAPH
    instance = offering(fail, method)
    instance.stateful = True
    with lets_through(fault):
        evaluate(evaluator, instance, graph, useful_signals=make_pool())


@NATIVE
def test_a_reduction_with_the_kernel_of_a_rotation(evaluator):
    instance = offering(lambda: capsule_of(row_kernel(), ROW_KERNEL), OFFERS[2])
    reason = (
        "its capsule is named 'quernbrook.row_kernel.1' and not 'quernbrook.reduction_kernel.1'"
    )
    with fails(FunctionExecutionError, refusal(reason)):
        evaluate(evaluator, instance, reduction("f"), useful_signals=make_pool())


@NATIVE
def test_rotations_are_not_asked_for_what_reductions_offer(evaluator):
    instance = offering(lambda: 1 / 0, OFFERS[2])
    same_bits(evaluate(evaluator, instance).weights, FEATURES["a"] + 1.5)


# --- failures that can't be true -----------------------------------------------------------------


def failing(row: int, kind: int, text: bytes, status: int = 1) -> Any:
    def run(*arguments: Any) -> int:
        failure = arguments[-1][0]
        failure.row, failure.kind = row, kind
        ctypes.memmove(ctypes.addressof(failure) + type(failure).text.offset, text, len(text))
        return status

    kernel = row_kernel(run=RunRows(run))
    return offering(lambda: capsule_of(kernel, ROW_KERNEL))


def failure_of(evaluator: Any, instance: Any, graph: Any = GRAPH, **options: Any) -> Any:
    with pytest.raises(FunctionExecutionError) as caught:
        evaluate(evaluator, instance, graph, **options)
    cause = caught.value.__cause__
    assert cause is caught.value.__context__
    return str(caught.value), type(cause), str(cause)


KINDS = {
    1: ValueError,
    2: TypeError,
    3: ZeroDivisionError,
    4: OverflowError,
    5: FloatingPointError,
    6: MemoryError,
    7: RuntimeError,
    0: RuntimeError,
    8: RuntimeError,
    -1: RuntimeError,
    2**31 - 1: RuntimeError,
}


@NATIVE
@pytest.mark.parametrize(("kind", "error"), KINDS.items())
@pytest.mark.parametrize("status", [1, -1, 77])
def test_kinds(evaluator, kind, error, status):
    told = failure_of(evaluator, failing(2, kind, b"odd", status))
    assert told == ("Function 'f' failed at row 2: odd", error, "odd")


@NATIVE
@pytest.mark.parametrize("row", [-1, 4, 2**63 - 1, -(2**63)])
def test_rows_that_there_are_not(evaluator, row):
    text = f"the kernel told of row offset {row} of 4 rows: odd"
    told = failure_of(evaluator, failing(row, 1, b"odd"))
    assert told == (f"Function 'f' failed at row 0: {text}", RuntimeError, text)


TEXTS = {
    b"": "",
    b"x" * 256: "x" * 256,
    b"x" * 255 + b"\xc3": "x" * 255 + "\ufffd",
    b"\xff\xfe odd": "\ufffd\ufffd odd",
    "Größe \u2264 0".encode(): "Größe \u2264 0",
    b"first\0second": "first",
}


@NATIVE
@pytest.mark.parametrize(("text", "told"), TEXTS.items(), ids=range(len(TEXTS)))
def test_texts(evaluator, text, told):
    assert failure_of(evaluator, failing(0, 1, text))[1:] == (ValueError, told)


@NATIVE
@pytest.mark.parametrize("row", [0, 1, -1])
def test_failures_row_by_row(evaluator, row):
    """In a graph with a plain function each call has one row."""
    graph = rotation("f", rotation("g", feature("a")), number(1.0))
    context = make_context(evaluator, FEATURES)
    bound = {"root": failing(row, 3, b"odd"), "root.c0": PlainFunction()}
    with pytest.raises(FunctionExecutionError) as caught:
        evaluator.evaluate(graph, context, bound_function_instances=bound)
    odd = "odd" if row == 0 else f"the kernel told of row offset {row} of 1 rows: odd"
    assert str(caught.value) == f"Function 'f' failed at row 0: {odd}"
    assert type(caught.value.__cause__) is (ZeroDivisionError if row == 0 else RuntimeError)


@NATIVE
def test_reductions_that_fail(evaluator):
    calls = [0]

    def run(*arguments: Any) -> int:
        calls[0] += 1
        arguments[-1][0].kind = 4
        arguments[-1][0].text = b"too large"
        return int(calls[0] == 3)

    kernel = ReductionKernel(ctypes.sizeof(ReductionKernel), 0, None, RunReduction(run))
    instance = offering(lambda: capsule_of(kernel, REDUCTION_KERNEL), OFFERS[2])
    instance.stateful = True
    told = failure_of(evaluator, instance, reduction("f"), useful_signals=make_pool())
    assert told == ("Function 'f' failed at row 2: too large", OverflowError, "too large")
