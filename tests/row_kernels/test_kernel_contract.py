"""The capsules: their names and structures, failures, and calls from several threads."""

from __future__ import annotations

import ctypes
import gc
import sys
import threading
from typing import Any

import numpy as np
import pytest
from quernbrook import row_kernels
from support.kernel_calls import (
    KernelCall,
    KernelFailure,
    ReductionCall,
    ReductionKernel,
    RowKernel,
)

VALUE_ERROR, TYPE_ERROR, RUNTIME_ERROR = 1, 2, 7
STATELESS = 1

SHAREABLE = 2  # fresh instances of one configuration compute the same


def make(name: str) -> Any:
    kind = row_kernels.FUNCTIONS[name]
    return kind(window=2) if hasattr(kind, "window") else kind()


@pytest.mark.parametrize("name", sorted(row_kernels.FUNCTIONS))
def test_structures(name: str) -> None:
    instance = make(name)
    call: KernelCall | ReductionCall
    if hasattr(instance, "arity"):
        call, size = KernelCall(instance), ctypes.sizeof(RowKernel)
        assert not hasattr(instance, "__quernbrook_reduction_kernel__")
    else:
        call, size = ReductionCall(instance), ctypes.sizeof(ReductionKernel)
        assert not hasattr(instance, "__quernbrook_row_kernel__")
    assert call.kernel.size == size
    flags = 0 if instance.stateful else STATELESS
    # Reductions stand for themselves alone.
    assert call.kernel.flags == flags | (SHAREABLE if hasattr(instance, "arity") else 0)


def test_a_capsule_keeps_its_instance() -> None:
    call = KernelCall(make("numerical_negate"))
    gc.collect()
    assert call([np.array([[1.0, 2.0]])], 1, 2).tolist() == [[-1.0, -2.0]]


def test_wrong_number_of_arguments() -> None:
    row = np.ones((1, 2))
    with pytest.raises(KernelFailure, match=r"^numerical_add takes 2 input\(s\); got 3$") as caught:
        KernelCall(make("numerical_add"))([row, row, row], 1, 2)
    assert (caught.value.kind, caught.value.row) == (TYPE_ERROR, 0)


def test_changed_number_of_signals() -> None:
    kernel = ReductionCall(make("weighted_by_pnl"))
    kernel(np.ones((3, 2)), np.ones(3))
    with pytest.raises(
        KernelFailure, match=r"^row has 4 values; the window holds rows of 3$"
    ) as caught:
        kernel(np.ones((4, 2)), np.ones(4))
    assert (caught.value.kind, caught.value.row) == (VALUE_ERROR, 0)


def test_missing_pnl() -> None:
    with pytest.raises(KernelFailure, match="needs signal_pnl") as caught:
        ReductionCall(make("weighted_by_vol"))(np.ones((3, 2)), None)
    assert caught.value.kind == TYPE_ERROR
    # This one doesn't look at it.
    assert np.isnan(ReductionCall(make("weighted_by_turnover"))(np.ones((3, 2)), None)).all()


def test_a_stateful_instance_serves_one_thread_at_a_time() -> None:
    instance = make("weighted_by_vol")
    kernel = ReductionCall(instance)
    block, pnl = np.ones((400, 4000)), np.ones(400)
    refusals: list[KernelFailure] = []
    calls = 0

    def work() -> None:
        nonlocal calls
        for _ in range(40):
            try:
                kernel(block, pnl)
            except KernelFailure as failure:
                refusals.append(failure)
            else:
                with lock:
                    calls += 1

    lock = threading.Lock()
    threads = [threading.Thread(target=work) for _ in range(3)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert instance.get_state().state_data["count"] == calls
    assert calls + len(refusals) == 120
    assert {(refusal.kind, str(refusal)) for refusal in refusals} <= {
        (
            RUNTIME_ERROR,
            "weighted_by_vol: another thread is calling this instance; give each run its own",
        )
    }


def test_stateless_instances_serve_many_threads() -> None:
    kernel = KernelCall(make("latitudinal_rank"))
    matrix = np.random.default_rng(1).normal(size=(50, 300))
    expected = kernel([matrix], 50, 300).tobytes()
    wrong: list[int] = []

    def work() -> None:
        for step in range(20):
            if kernel([matrix], 50, 300).tobytes() != expected:
                wrong.append(step)

    threads = [threading.Thread(target=work) for _ in range(3)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not wrong


@pytest.mark.parametrize("name", ["latitudinal_rank", "longitudinal_rank", "weighted_by_vol"])
def test_an_instance_is_freed_with_its_last_capsule(name: str) -> None:
    kind = row_kernels.FUNCTIONS[name]
    gc.collect()
    # Each instance holds a reference to its type.
    before = sys.getrefcount(kind)
    instance = make(name)
    special = "reduction" if name.startswith("weighted") else "row"
    capsule = getattr(kind, f"__quernbrook_{special}_kernel__")(instance)
    assert repr(capsule).startswith(f'<capsule object "quernbrook.{special}_kernel.1"')
    del instance
    gc.collect()
    assert sys.getrefcount(kind) == before + 1
    del capsule
    gc.collect()
    assert sys.getrefcount(kind) == before
