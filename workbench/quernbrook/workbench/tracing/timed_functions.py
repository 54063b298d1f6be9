"""Function instances whose calls are timed, and the registry that makes them."""

from __future__ import annotations

import time
from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass
from functools import cache
from types import FunctionType, MethodType
from typing import Any, Literal

from quernbrook.workbench.kernel_capsules import REDUCTION_KERNEL, ROW_KERNEL
from quernbrook.workbench.tracing.registries import Delegate
from quernbrook.workbench.tracing.timed_kernels import (
    OfferedKernel,
    is_kernel,
)

Way = Literal["kernel", "blocks", "calls", "none"]

# Reading the clock costs as much as a short function: of many calls, some stand for all.
_ALL_TIMED = 50
_ONE_IN = 7

_ROW_BLOCK = "__quernbrook_row_block__"


@dataclass(eq=False)
class TimedFunction:
    """An instance, the one that stands for it in the run, and what its calls cost.

    config: the parameters with which it was made. Calls of kernels are counted apart.
    """

    name: str
    config: dict[str, Any]
    function: Any
    stand_in: Any = None
    blocks: int = 0
    block_rows: int = 0
    block_nanoseconds: int = 0
    kernel: OfferedKernel | None = None
    # Calls with one row, and their nanoseconds as far as they were timed, scaled to all.
    call_sums: Callable[[], tuple[int, int]] = lambda: (0, 0)

    @property
    def calls(self) -> int:
        return self.call_sums()[0]

    @property
    def way(self) -> Way:
        if self.kernel is not None and self.kernel.calls:
            return "kernel"
        if self.blocks:
            return "blocks"
        return "calls" if self.calls else "none"

    @property
    def all_calls(self) -> int:
        return self.calls + self.blocks + (self.kernel.calls if self.kernel else 0)

    @property
    def rows(self) -> int:
        return self.calls + self.block_rows + (self.kernel.rows if self.kernel else 0)

    @property
    def nanoseconds(self) -> int:
        spent = self.call_sums()[1] + self.block_nanoseconds
        return spent + (self.kernel.nanoseconds if self.kernel else 0)


class TimingRegistry(Delegate):
    """Makes the instances of the registry behind it, each with a stand-in that times its calls."""

    def __init__(self, registry: Any) -> None:
        super().__init__(registry)
        self.made: list[TimedFunction] = []
        self._by_instance: dict[int, TimedFunction] = {}
        self._capsules: dict[int, Any] | None = None

    def create_instance(self, name: str, /, **config: Any) -> Any:
        return self._timed(name, config, self._registry.create_instance(name, **config))

    def create_instance_from_state(self, name: str, restore_state: Any, /, **config: Any) -> Any:
        instance = self._registry.create_instance_from_state(name, restore_state, **config)
        return self._timed(name, config, instance)

    def _timed(self, name: str, config: dict[str, Any], instance: Any) -> Any:
        # The evaluator treats one instance at several nodes otherwise than several instances.
        timed = self._by_instance.get(id(instance))
        if timed is None:
            timed = TimedFunction(name, config, instance)
            self._by_instance[id(instance)] = timed
            timed.stand_in = _stand_in(timed, self._capsule)
        self.made.append(timed)
        return timed.stand_in

    def _capsule(self, timed: TimedFunction) -> Any:
        """What the stand-in offers as its kernel."""
        if self._capsules is None:
            self._capsules = _capsules(list(self._by_instance.values()))
        return self._capsules[id(timed)]


def _capsules(all_timed: list[TimedFunction]) -> dict[int, Any]:
    """Every instance's capsule, or None: timed ones where the evaluator takes them."""
    capsules = {}
    for timed in all_timed:
        kind = _kernel_kind(timed.function)
        if kind is None:
            continue
        offered = getattr(timed.function, kind[0])()
        capsules[id(timed)] = offered
        if offered is not None and is_kernel(offered, kind[1]):
            timed.kernel = OfferedKernel(offered, kind[1])
    kernels = [timed.kernel for timed in all_timed if timed.kernel is not None]
    states = Counter(kernel.state for kernel in kernels if kernel.state is not None)
    for timed in all_timed:
        # Kernels with one state take turns row by row. That of a timed kernel is its own.
        kernel = timed.kernel
        if kernel is not None and (kernel.state is None or states[kernel.state] == 1):
            capsules[id(timed)] = kernel.timed
    return capsules


def _kernel_kind(function: Any) -> tuple[str, bytes] | None:
    # The evaluator asks the type, and for one kind only where a type should offer both.
    for kind in (ROW_KERNEL, REDUCTION_KERNEL):
        if getattr(type(function), kind[0], None) is not None:
            return kind
    return None


def _stand_in(timed: TimedFunction, capsule: Callable[[TimedFunction], Any]) -> Any:
    """What passes everything on, and opts in to what the instance's type opts in to."""
    function = timed.function
    timed_call, timed.call_sums = _timed_call(function)
    kind = _kernel_kind(function)
    has_blocks = getattr(type(function), _ROW_BLOCK, None) is not None
    if kind is None and not has_blocks:
        # A plain function is called in half the time that a method __call__ takes.
        for name in ("stateful", "window", "arity", "get_state"):
            if hasattr(function, name):
                setattr(timed_call, name, getattr(function, name))
        return timed_call
    return _stand_in_type(None if kind is None else kind[0], has_blocks)(timed, timed_call, capsule)


class _StandIn:
    def __init__(
        self, timed: TimedFunction, call: Any, capsule: Callable[[TimedFunction], Any]
    ) -> None:
        self._timed = timed
        self._call = call
        self._capsule = capsule

    def __getattr__(self, name: str) -> Any:
        return getattr(self._timed.function, name)

    def __call__(self, *arguments: Any, **named: Any) -> Any:
        return self._call(*arguments, **named)

    def _offer(self) -> Any:
        return self._capsule(self._timed)

    def _row_block(self, *blocks: Any) -> Any:
        timed = self._timed
        begin = time.perf_counter_ns()
        result = timed.function.__quernbrook_row_block__(*blocks)
        timed.block_nanoseconds += time.perf_counter_ns() - begin
        timed.blocks += 1
        timed.block_rows += len(blocks[0])
        return result


@cache
def _stand_in_type(kernel_method: str | None, has_blocks: bool) -> type[_StandIn]:
    """Types are made once: the evaluator asks them, and not instances, for what they offer."""
    members: dict[str, Any] = {}
    if kernel_method is not None:
        members[kernel_method] = _StandIn._offer
    if has_blocks:
        members[_ROW_BLOCK] = _StandIn._row_block
    return type("TimedInstance", (_StandIn,), members)


def _timed_call(function: Any) -> tuple[Any, Callable[[], tuple[int, int]]]:
    clock = time.perf_counter_ns
    call = type(function).__call__
    # Saves the interpreter a look-up in each call.
    called = MethodType(call, function) if isinstance(call, FunctionType) else function
    calls = timed_calls = nanoseconds = 0

    def timed_call(*arguments: Any, **named: Any) -> Any:
        nonlocal calls, timed_calls, nanoseconds
        calls += 1
        if calls > _ALL_TIMED and calls % _ONE_IN:
            return called(*arguments, **named)
        begin = clock()
        result = called(*arguments, **named)
        nanoseconds += clock() - begin
        timed_calls += 1
        return result

    return timed_call, lambda: (calls, nanoseconds * calls // max(timed_calls, 1))
