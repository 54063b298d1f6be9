"""Graphs, arrays and records out of their descriptions."""

from __future__ import annotations

import struct
from typing import Any

import numpy as np
from properties.cases import Cell, MatrixCase, NodeCase, SignalCase, StageCase, ValueCase
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal
from support.refusing_nodes import SLOTS

PNL_COLUMNS = ("gross_returns", "net")


class Marked(np.ndarray):
    """An array of a class of its own."""


class RefusingNode(FunctionGraphNode):
    """Takes no writes to its cache slots."""

    def __setattr__(self, name: str, value: Any) -> None:
        if name in SLOTS:
            # A new error each time: one for all would keep the frames of every run alive.
            raise AttributeError(f"{name} is refused")
        super().__setattr__(name, value)


def build_graph(
    case: NodeCase, made: dict[str, FunctionGraphNode] | None = None
) -> FunctionGraphNode:
    """With `made`, equal subtrees become one object."""
    if made is not None and repr(case) in made:
        return made[repr(case)]
    children: Any = [build_graph(child, made) for child in case.children]
    if case.children_as == "tuple":
        children = tuple(children)
    elif case.children_as == "None if empty" and not children:
        children = None
    config = None if case.config is None else dict(case.config)
    node = FunctionGraphNode(type=case.kind, node=case.value, children=children, config=config)
    if case.canonical_id is not None:
        node.canonical_id = case.canonical_id
    if case.state_identity is not None:
        node._state_identity = case.state_identity  # type: ignore[attr-defined]
    for name, value in case.attributes:
        setattr(node, name, value)
    if case.refuses:
        node.__class__ = RefusingNode
    if made is not None:
        made[repr(case)] = node
    return node


def build_stages(cases: tuple[StageCase, ...]) -> list[TransformStage]:
    return [
        TransformStage(
            case.name,
            case.default,
            {name: None if graph is None else build_graph(graph) for name, graph in case.options},
        )
        for case in cases
    ]


def cell(value: Cell) -> float:
    if isinstance(value, str):
        return struct.unpack(">d", bytes.fromhex(value))[0]
    return value


def tiled(matrix: np.ndarray, tiles: tuple[int, int], drift: float) -> np.ndarray:
    result = np.tile(matrix, tiles)
    if drift:
        numbers = np.arange(tiles[0] * tiles[1], dtype=np.float64).reshape(tiles)
        result += np.kron(numbers * drift, np.ones(matrix.shape))
    return result


def build_matrix(case: MatrixCase, columns: int) -> np.ndarray:
    width = len(case.rows[0]) if case.rows else case.columns
    matrix = np.array([cell(value) for row in case.rows for value in row], dtype=np.float64)
    matrix = matrix.reshape(len(case.rows), columns if width is None else width)
    with np.errstate(all="ignore"):
        if case.tiles != (1, 1):
            matrix = tiled(matrix, case.tiles, case.drift)
        matrix = matrix.astype(case.dtype)
    if case.layout == "F":
        return np.asfortranarray(matrix)
    if case.layout == "reversed":
        return matrix[::-1, ::-1].copy()[::-1, ::-1]
    if case.layout == "strided":
        return np.repeat(np.repeat(matrix, 2, axis=0), 3, axis=1)[::2, ::3]
    if case.layout == "repeated":  # one row in memory for all
        return np.broadcast_to(matrix[:1], matrix.shape)
    if case.layout == "misaligned" and not matrix.dtype.hasobject:
        memory = np.empty(matrix.nbytes + 1, dtype=np.uint8)
        off = memory[1:].view(matrix.dtype).reshape(matrix.shape)
        off[:] = matrix
        return off
    if case.layout == "subclass":
        return matrix.view(Marked)
    if case.layout == "read-only":
        matrix.flags.writeable = False
    return matrix


def build_value(case: ValueCase, columns: int) -> Any:
    matrix = build_matrix(case.matrix, columns)
    forms: dict[str, Any] = {
        "matrix": lambda: matrix,
        "row": lambda: matrix[0],
        "column": lambda: matrix[0][:, None],
        "cube": lambda: matrix[None],
        "list": lambda: matrix.tolist(),
        "row list": lambda: matrix[0].tolist(),
        "cell": lambda: matrix.flat[0] if matrix.size else 0.5,
        "no dimensions": lambda: np.array(0.5),
        "text": lambda: "text",
        "none": lambda: None,
        "words": lambda: np.full(matrix.shape, "word"),
    }
    return forms[case.form]()


def build_signal(case: SignalCase, columns: int) -> UsefulSignal:
    pnl = None if case.pnl is None else build_matrix(case.pnl, len(PNL_COLUMNS))
    return UsefulSignal(build_matrix(case.weights, columns), pnl, {"sharpe": case.sharpe})
