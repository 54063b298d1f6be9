"""What the row loop costs beyond the calls that it makes and the rows that it copies.

The functions do nothing or add two rows, so that a run's time is the calls, the copies and the loop
itself. The bare calls are those of the same instances with a vector that is already there, back to
back without interpreted code between them.
"""

from __future__ import annotations

from collections.abc import Callable

import pytest

from bench import evaluators
from bench.functions import (
    BUILT_IN,
    NATIVE,
    PYTHON,
    Registry,
    argument_count,
    bound,
    bush,
    chain,
)
from bench.parts import (
    BARE,
    BOUND,
    KINDS,
    PARTS,
    REGISTRY,
    ROW_COPY,
    bare_calls,
    row_copies,
)
from bench.workloads import context_of

GRAPHS = {"chain": chain, "bush": bush}
UNIT = "ns a function and row"
ROWS = 5000
# A reference needs fewer, and the largest graph's registers leave every cache in each row.
ROWS_OF_REFERENCE = {20: 200, 200: 40}
LARGEST = (200, 5000)
ROWS_OF_LARGEST = 500
SIZES = [(functions, columns) for functions in (20, 200) for columns in (20, 500, 5000)]


def is_slow(language: str, functions: int, columns: int) -> bool:
    if language == PYTHON:
        return (functions, columns) == LARGEST
    return functions == LARGEST[0] or columns == LARGEST[1]


cases = pytest.mark.parametrize(
    ("language", "functions", "columns"),
    [
        pytest.param(*case, marks=[pytest.mark.slow] if is_slow(*case) else [])
        for case in ((language, *size) for language in (PYTHON, BUILT_IN, NATIVE) for size in SIZES)
    ],
)
shapes = pytest.mark.parametrize("shape", GRAPHS)
kinds = pytest.mark.parametrize("kind", KINDS)


def rows_for(contender: str, functions: int, columns: int) -> int:
    if contender in (evaluators.PLAIN, evaluators.COMPILED):
        return ROWS_OF_REFERENCE[functions]
    return ROWS_OF_LARGEST if (functions, columns) == LARGEST else ROWS


def rounds_for(functions: int, columns: int) -> int:
    return 5 if functions * columns <= 10_000 else 3


def workload(shape: str, language: str, functions: int, columns: int, kind: str) -> str:
    return f"{shape} of {functions} {language} functions over {columns:,} columns, {kind}"


@pytest.mark.parametrize("contender", evaluators.NAMES)
@shapes
@kinds
@cases
def test_evaluation(
    measure: Callable[..., None],
    language: str,
    functions: int,
    columns: int,
    kind: str,
    shape: str,
    contender: str,
) -> None:
    graph = GRAPHS[shape](functions, language)
    evaluator, rows = evaluators.load(contender), rows_for(contender, functions, columns)
    context = context_of(evaluator, rows, columns, registry=Registry())
    # A bound run keeps every node's rows unless told not to.
    context._collect_node_outputs = False
    instances = bound(graph) if kind == BOUND else None
    measure(
        lambda: evaluator.evaluate(graph, context, bound_function_instances=instances),
        workload=workload(shape, language, functions, columns, kind),
        contender=contender,
        count=functions * rows,
        unit=UNIT,
        rounds=rounds_for(functions, columns),
    )


@pytest.mark.parametrize("contender", PARTS)
@shapes
@kinds
@cases
def test_part(
    measure: Callable[..., None],
    language: str,
    functions: int,
    columns: int,
    kind: str,
    shape: str,
    contender: str,
) -> None:
    graph = GRAPHS[shape](functions, language)
    rows = rows_for(contender, functions, columns)
    if contender == BARE:
        run = bare_calls(graph, kind, rows, columns)
    elif contender == ROW_COPY:
        # As many as a run has registers, so that they stand in cache as they do in a run.
        run = row_copies(functions, rows, columns)
    elif kind == REGISTRY:
        run = row_copies(argument_count(graph), rows, columns)
    else:
        pytest.skip("bound instances get views")
    measure(
        run,
        workload=workload(shape, language, functions, columns, kind),
        contender=contender,
        floor=True,
        part=PARTS[contender],
        count=functions * rows,
        unit=UNIT,
        rounds=rounds_for(functions, columns),
    )
