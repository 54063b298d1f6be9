"""Kernels that time other kernels.

The evaluator calls a kernel from machine code, without the interpreter's lock. With llvmlite, what
times it is machine code, too, and costs two readings of the clock. Without, it is a callback into
Python, which takes the lock: some microseconds a call.
"""

from __future__ import annotations

import ctypes
import time
from collections.abc import Callable
from functools import cache
from importlib import import_module
from typing import Any

from quernbrook.workbench.kernel_capsules import (
    ROW_KERNEL,
    STATELESS,
    Kernel,
    capsule_name,
    is_capsule,
    kernel_at,
)


class _Record(ctypes.Structure):
    """What the machine code gets as state: the kernel to be timed, a clock, and the sums."""

    _fields_ = [
        ("state", ctypes.c_void_p),
        ("run", ctypes.c_void_p),
        ("clock", ctypes.c_void_p),
        ("calls", ctypes.c_int64),
        ("rows", ctypes.c_int64),
        ("nanoseconds", ctypes.c_int64),
    ]


# The third argument after the state is the number of rows of a rotation.
_Run = ctypes.CFUNCTYPE(
    ctypes.c_int,
    ctypes.c_void_p,
    ctypes.c_void_p,
    ctypes.c_size_t,
    ctypes.c_ssize_t,
    ctypes.c_ssize_t,
    ctypes.c_void_p,
    ctypes.c_void_p,
)

_new_capsule = ctypes.pythonapi.PyCapsule_New
_new_capsule.restype = ctypes.py_object
_new_capsule.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]


class OfferedKernel:
    """A capsule that an instance offers, and the one that times it."""

    def __init__(self, capsule: Any, name: bytes) -> None:
        """`capsule` must be one that `is_kernel` takes."""
        self._original = capsule
        self._name = name
        kernel = kernel_at(capsule, name)
        self._record = _Record(kernel.state, kernel.run, 0, 0, 0, 0)
        # A structure that is longer than those known here is handed on with all that it holds.
        self._memory = ctypes.create_string_buffer(
            ctypes.string_at(ctypes.addressof(kernel), kernel.size)
        )
        self._keeps_state = not kernel.flags & STATELESS
        self._callback: Any = None
        # What a signal raised in a callback, which had to fail then.
        self.interruption: BaseException | None = None

    @property
    def state(self) -> int | None:
        """The address of the state, by which the evaluator knows kernels that share one."""
        return self._record.state if self._keeps_state else None

    @property
    def timed(self) -> Any:
        """The capsule that times; this object must outlive it."""
        kernel = Kernel.from_buffer(self._memory)
        code = machine_code()
        if code is None:
            self._callback = _Run(self._timed_in_python())
            kernel.run = ctypes.cast(self._callback, ctypes.c_void_p).value
        else:
            kernel.state = ctypes.addressof(self._record)
            kernel.run = code.address
            self._record.clock = code.clock
        return _new_capsule(ctypes.addressof(kernel), self._name, None)

    @property
    def calls(self) -> int:
        return self._record.calls

    @property
    def rows(self) -> int:
        # Of a reduction, the argument says something else, and each call makes a row.
        return self._record.rows if self._name == ROW_KERNEL[1] else self._record.calls

    @property
    def nanoseconds(self) -> int:
        return self._record.nanoseconds

    def _timed_in_python(self) -> Callable[..., int]:
        record, clock = self._record, time.perf_counter_ns
        run = _Run(record.run)

        def timed(state: Any, first: Any, second: Any, rows: Any, *others: Any) -> int:
            try:
                begin = clock()
                status = run(state, first, second, rows, *others)
                record.nanoseconds += clock() - begin
                record.calls += 1
                record.rows += rows
                return status
            except BaseException as error:  # noqa: BLE001 - ctypes would drop it
                self.interruption = error
                return 1

        return timed


def is_kernel(capsule: Any, name: bytes) -> bool:
    """Whether it is a capsule of this name with a kernel that the evaluator would take."""
    if not is_capsule(capsule) or capsule_name(capsule) != name:
        return False
    kernel = kernel_at(capsule, name)
    return kernel.size >= ctypes.sizeof(Kernel) and bool(kernel.run)


class MachineCode:
    """The timing kernel's address and that of the clock it reads."""

    def __init__(self, engine: Any, clock: int) -> None:
        self._engine = engine
        self.clock = clock
        self.address = engine.get_function_address("timed")


@cache
def machine_code() -> MachineCode | None:
    """None without llvmlite, and on systems without the clock that it reads."""
    try:
        # It has no types that a checker could use.
        binding: Any = import_module("llvmlite.binding")
    except ImportError:
        return None
    clock = getattr(ctypes.CDLL(None), "clock_gettime", None)
    if clock is None or ctypes.sizeof(ctypes.c_void_p) != 8:
        return None
    binding.initialize_native_target()
    binding.initialize_native_asmprinter()
    machine = binding.Target.from_default_triple().create_target_machine(opt=2)
    try:
        code = binding.parse_assembly(_TIMED)
    except RuntimeError:
        # Before LLVM 15, pointers had types.
        return None
    engine = binding.create_mcjit_compiler(code, machine)
    engine.finalize_object()
    address = ctypes.cast(clock, ctypes.c_void_p).value
    assert address is not None
    return MachineCode(engine, address)


# Systems without it have no such clock either.
_MONOTONIC = getattr(time, "CLOCK_MONOTONIC", 0)
_TIMED = f"""
%record = type {{ ptr, ptr, ptr, i64, i64, i64 }}
%time = type {{ i64, i64 }}

define i32 @timed(ptr %own, ptr %first, i64 %second, i64 %rows, i64 %fourth, ptr %result,
                  ptr %failure) {{
  %begin = alloca %time
  %end = alloca %time
  %state_at = getelementptr %record, ptr %own, i32 0, i32 0
  %run_at = getelementptr %record, ptr %own, i32 0, i32 1
  %clock_at = getelementptr %record, ptr %own, i32 0, i32 2
  %calls_at = getelementptr %record, ptr %own, i32 0, i32 3
  %rows_at = getelementptr %record, ptr %own, i32 0, i32 4
  %sum_at = getelementptr %record, ptr %own, i32 0, i32 5
  %state = load ptr, ptr %state_at
  %run = load ptr, ptr %run_at
  %clock = load ptr, ptr %clock_at
  %unused = call i32 %clock(i32 {_MONOTONIC}, ptr %begin)
  %status = call i32 %run(ptr %state, ptr %first, i64 %second, i64 %rows, i64 %fourth, ptr %result,
                          ptr %failure)
  %unused_too = call i32 %clock(i32 {_MONOTONIC}, ptr %end)
  %begin_second_at = getelementptr %time, ptr %begin, i32 0, i32 0
  %begin_part_at = getelementptr %time, ptr %begin, i32 0, i32 1
  %end_second_at = getelementptr %time, ptr %end, i32 0, i32 0
  %end_part_at = getelementptr %time, ptr %end, i32 0, i32 1
  %begin_second = load i64, ptr %begin_second_at
  %begin_part = load i64, ptr %begin_part_at
  %end_second = load i64, ptr %end_second_at
  %end_part = load i64, ptr %end_part_at
  %seconds = sub i64 %end_second, %begin_second
  %parts = sub i64 %end_part, %begin_part
  %scaled = mul i64 %seconds, 1000000000
  %spent = add i64 %scaled, %parts
  %sum = load i64, ptr %sum_at
  %new_sum = add i64 %sum, %spent
  store i64 %new_sum, ptr %sum_at
  %calls = load i64, ptr %calls_at
  %new_calls = add i64 %calls, 1
  store i64 %new_calls, ptr %calls_at
  %all_rows = load i64, ptr %rows_at
  %new_rows = add i64 %all_rows, %rows
  store i64 %new_rows, ptr %rows_at
  ret i32 %status
}}
"""
