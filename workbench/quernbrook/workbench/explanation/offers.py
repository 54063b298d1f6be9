"""What a function's type offers beside calls with one row: a kernel, or a method for blocks."""

from __future__ import annotations

import ctypes
from dataclasses import dataclass
from typing import Any, Literal

_CAPSULES = {
    "__quernbrook_row_kernel__": b"quernbrook.row_kernel.1",
    "__quernbrook_reduction_kernel__": b"quernbrook.reduction_kernel.1",
}
_STATELESS = 1


class _Kernel(ctypes.Structure):
    """What `quernbrook/row_kernel.h` calls a kernel of either sort."""

    _fields_ = [
        ("size", ctypes.c_size_t),
        ("flags", ctypes.c_uint64),
        ("state", ctypes.c_void_p),
        ("run", ctypes.c_void_p),
    ]


class UnusableKernel(ValueError):
    """A run would refuse the offer; the message is the run's."""


@dataclass(frozen=True)
class Offer:
    """state: its address; None where the kernel has none."""

    kind: Literal["kernel", "block"]
    state: int | None = None
    is_stateless: bool = False


def offer_of(instance: Any, node_kind: str) -> Offer | None:
    """Ask as a run does: once, and on the type. No function is called.

    Raises UnusableKernel, and what the method raises.
    """
    if node_kind == "reduction":
        return _kernel(instance, "__quernbrook_reduction_kernel__")
    found = _kernel(instance, "__quernbrook_row_kernel__")
    if found is None and _special_method(instance, "__quernbrook_row_block__") is not None:
        return Offer("block")
    return found


def _special_method(instance: Any, name: str) -> Any:
    for one in type(instance).__mro__:
        if name in vars(one):
            method = vars(one)[name]
            bind = getattr(type(method), "__get__", None)
            return method if bind is None else bind(method, instance, type(instance))
    return None


def _kernel(instance: Any, name: str) -> Offer | None:
    method = _special_method(instance, name)
    capsule = None if method is None else method()
    if capsule is None:
        return None
    expected = _CAPSULES[name]
    if type(capsule).__name__ != "PyCapsule":
        kind = type(capsule).__name__
        text = f"expected a capsule named '{expected.decode()}' or None; got {kind}"
        raise UnusableKernel(text)
    own = _capsule_name(capsule)
    if own != expected:
        other = (own or b"").decode(errors="replace")
        raise UnusableKernel(f"its capsule is named '{other}' and not '{expected.decode()}'")
    kernel = _Kernel.from_address(_capsule_pointer(capsule, expected))
    least = ctypes.sizeof(_Kernel)
    if kernel.size < least:
        text = f"its structure has a size of {kernel.size} bytes; at least {least} are needed"
        raise UnusableKernel(text)
    if not kernel.run:
        raise UnusableKernel("it has no function to run")
    is_stateless = bool(kernel.flags & _STATELESS) and name == "__quernbrook_row_kernel__"
    return Offer("kernel", kernel.state, is_stateless)


_capsule_name = ctypes.pythonapi.PyCapsule_GetName
_capsule_name.argtypes, _capsule_name.restype = [ctypes.py_object], ctypes.c_char_p
_capsule_pointer = ctypes.pythonapi.PyCapsule_GetPointer
_capsule_pointer.argtypes = [ctypes.py_object, ctypes.c_char_p]
_capsule_pointer.restype = ctypes.c_void_p
