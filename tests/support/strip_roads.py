"""Roads as in `support.leak_roads`, over functions that opted in."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
from support.c_kernels import CFunction
from support.graphs import feature, number, reduction, rotation
from support.leak_roads import FILTERED, POOL, Function, Road, Run, evaluating, new
from support.opted_in import KernelReduction
from support.runs import counting_matrix

INFINITE = {"a": np.full((3, 3), np.inf)}


class Blocks(Function):
    def __quernbrook_row_block__(self, *blocks: Any) -> Any:
        return self.act(*blocks) if callable(self.act) else blocks[0]


class Offering(Function):
    """Its act is the offer."""

    def __call__(self, *rows: Any, **_: Any) -> Any:
        return rows[0]

    def __quernbrook_row_kernel__(self) -> Any:
        return self.act() if callable(self.act) else self.act


SUMS = np.zeros(4, dtype=np.float64)


def afresh(context: Any) -> None:
    SUMS.fill(0.0)


A = feature("a")
CHAIN = rotation("add", rotation("sum", A), rotation("add", A, number(0.5)))
WIDE = rotation("add", A, rotation("add", A, number(0.5)))
KERNELS: dict[str, Any] = {
    "root": CFunction("add"),
    "root.c0": CFunction("running_sum", SUMS),
    "root.c1": CFunction("add"),
}
MIXED: dict[str, Any] = {**KERNELS, "root": Function(lambda left, right: left)}
AHEAD = {"_reads_rows_ahead": True}


def reducing(graph: Any, path: str, **bound: Any) -> Road:
    def road(evaluator: ModuleType) -> Run:
        kernel = KernelReduction(stateful=True)
        run = evaluating(graph, bound={**bound, path: kernel}, useful_signals=POOL)(evaluator)

        def run_afresh() -> Any:
            kernel.calls.clear()
            kernel.memory.clear()
            return run()

        return run_afresh

    return road


GOOD_STRIP_ROADS: dict[str, Road] = {
    "kernels": evaluating(CHAIN, before=afresh, bound=KERNELS),
    "kernels, not collected": evaluating(
        CHAIN, before=afresh, bound=KERNELS, attributes={"_collect_node_outputs": False}
    ),
    "kernels under a universe": evaluating(
        CHAIN, before=afresh, bound=KERNELS, universe=np.ones((3, 3))
    ),
    "kernels over marks": evaluating(CHAIN, before=afresh, bound=KERNELS, nan_features=["a"]),
    "kernels row by row": evaluating(CHAIN, before=afresh, bound=MIXED),
    "kernels ahead": evaluating(CHAIN, before=afresh, bound=MIXED, attributes=AHEAD),
    "kernels over many strips": evaluating(
        WIDE, features={"a": counting_matrix(4, 20_000)}, bound=KERNELS
    ),
    "a kernel that declines": evaluating(rotation("add", A, A), bound={"root": Offering(None)}),
    "blocks": evaluating(CHAIN, bound=dict.fromkeys(KERNELS, Blocks())),
    "blocks of their own": evaluating(CHAIN, bound={path: Blocks() for path in KERNELS}),
    "blocks that fail": evaluating(
        rotation("f", A), bound={"root": Blocks(lambda row: row[:3] if row.ndim == 1 else row[9])}
    ),
    "a kernel of a reduction": reducing(reduction("f"), "root"),
    "a filtered reduction in strips": reducing(
        rotation("add", A, reduction("f", FILTERED)), "root.c1", root=CFunction("add")
    ),
    "means in strips": evaluating(
        rotation("add", A, reduction("f")),
        bound={"root": CFunction("add"), "root.c1": Function()},
        useful_signals=POOL,
    ),
    "features of float32": evaluating(
        CHAIN, features={"a": np.ones((3, 3), np.float32)}, before=afresh, bound=KERNELS
    ),
}

FAILING_STRIP_ROADS: dict[str, Road] = {
    "a failing kernel": evaluating(CHAIN, features=INFINITE, bound=KERNELS),
    "a failing kernel, row by row": evaluating(CHAIN, features=INFINITE, bound=MIXED),
    "a failing kernel, ahead": evaluating(CHAIN, features=INFINITE, bound=MIXED, attributes=AHEAD),
    "a kernel of too many arguments": evaluating(
        rotation("sum", A, A), bound={"root": CFunction("running_sum", np.zeros(4))}
    ),
    "an offer that is no capsule": evaluating(
        rotation("add", A, A), bound={"root": Offering("capsule")}
    ),
    "an offer that raises": evaluating(
        rotation("add", A, A), bound={"root": Offering(new(ValueError, "no offer"))}
    ),
    "failing blocks": evaluating(CHAIN, bound={path: Blocks(new(ValueError)) for path in KERNELS}),
    "interrupted blocks": evaluating(
        CHAIN, bound={path: Blocks(new(KeyboardInterrupt)) for path in KERNELS}
    ),
    "blocks of another shape": evaluating(
        rotation("f", A), bound={"root": Blocks(lambda rows: rows[..., :2])}
    ),
    "blocks of another dtype": evaluating(
        rotation("f", A), bound={"root": Blocks(lambda rows: rows.astype(np.float32))}
    ),
    "no blocks": evaluating(rotation("f", A), bound={"root": Blocks(lambda rows: object())}),
}
