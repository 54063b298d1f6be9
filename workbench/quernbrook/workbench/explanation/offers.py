"""What a function's type offers beside calls with one row: a kernel, or a method for blocks."""

from __future__ import annotations

import ctypes
from dataclasses import dataclass
from typing import Any, Literal

from quernbrook.workbench.kernel_capsules import (
    REDUCTION_KERNEL,
    ROW_KERNEL,
    STATELESS,
    Kernel,
    capsule_name,
    is_capsule,
    kernel_at,
)


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
        return _kernel(instance, REDUCTION_KERNEL)
    found = _kernel(instance, ROW_KERNEL)
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


def _kernel(instance: Any, offered: tuple[str, bytes]) -> Offer | None:
    method_name, expected = offered
    method = _special_method(instance, method_name)
    capsule = None if method is None else method()
    if capsule is None:
        return None
    if not is_capsule(capsule):
        kind = type(capsule).__name__
        text = f"expected a capsule named '{expected.decode()}' or None; got {kind}"
        raise UnusableKernel(text)
    own = capsule_name(capsule)
    if own != expected:
        other = own.decode(errors="replace")
        raise UnusableKernel(f"its capsule is named '{other}' and not '{expected.decode()}'")
    kernel = kernel_at(capsule, expected)
    least = ctypes.sizeof(Kernel)
    if kernel.size < least:
        text = f"its structure has a size of {kernel.size} bytes; at least {least} are needed"
        raise UnusableKernel(text)
    if not kernel.run:
        raise UnusableKernel("it has no function to run")
    is_stateless = bool(kernel.flags & STATELESS) and offered == ROW_KERNEL
    return Offer("kernel", kernel.state, is_stateless)
