"""Graph nodes that don't take every attribute."""

from __future__ import annotations

from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode

SLOTS = ("_node_identities", "_collect_nodes_cache", "_state_identity")


class RefusingNode(FunctionGraphNode):
    """Writes to the names in `refused` raise `fault`."""

    refused: tuple[str, ...] = SLOTS
    fault: BaseException = AttributeError("refused")

    def __setattr__(self, name: str, value: Any) -> None:
        if name in self.refused:
            raise self.fault
        super().__setattr__(name, value)


def refusing(fault: BaseException, *refused: str) -> type[RefusingNode]:
    """A class of nodes that refuse the cache slots, or those named, with `fault`."""
    return type("Refusing", (RefusingNode,), {"fault": fault, "refused": refused or SLOTS})


class SlottedNode:
    """A node class of its own whose instances have the four fields and nothing else."""

    __slots__ = ("children", "config", "node", "type")

    def __init__(self, kind: str, value: Any, children: Any = None, config: Any = None) -> None:
        self.type, self.node, self.children, self.config = kind, value, children, config


class FailingSlot(FunctionGraphNode):
    """Reading a cache slot raises `fault`."""

    fault: BaseException = AttributeError("unreadable")

    def __getattr__(self, name: str) -> Any:
        if name in SLOTS:
            raise self.fault
        raise AttributeError(name)


def failing_slot(fault: BaseException) -> type[FailingSlot]:
    return type("Failing", (FailingSlot,), {"fault": fault})
