"""Faults of pipelines and of the other arguments of a run."""

from __future__ import annotations

from typing import Any

import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import bind_instances, check_graph
from quernbrook.reference_host.graphs import (
    integer,
    rotation,
    signal,
)
from quernbrook.simulator_engine._types import TransformStage
from support.checks import PRICE, REGISTRY, X, context, found

SMOOTH = TransformStage(
    "smooth", "on", {"on": rotation("longitudinal_mean", signal(), 5), "off": None}
)
HEDGE = TransformStage("hedge", None, {"half": rotation("numerical_multiply", signal(), 0.5)})


def staged(*stages: TransformStage, graph: Any = X, **settings: Any) -> list[str]:
    return found(graph, transform_pipeline=list(stages), **settings)


def test_sound_stages() -> None:
    options = {"smooth": "off", "cautious": {"hedge": "half"}, "other": {"smooth": None}}
    assert staged(SMOOTH, HEDGE, metaparameters=options, pool_id="cautious") == []


@pytest.mark.parametrize(
    ("template", "faults"),
    [
        (
            rotation("longitudinal_mean", X, 5),
            ["smooth[on].root: the template has no 'signal' node: the stage would drop the signal"],
        ),
        (
            rotation("longitudinal_mean", Node("singal", "singal"), 5),
            [
                "smooth[on].root.c0: unknown kind 'singal', which gives zeros; "
                "did you mean 'signal'?",
                "smooth[on].root: the template has no 'signal' node: the stage would drop the signal",
            ],
        ),
        (
            rotation("longitudinal_meen", signal(), 5),
            [
                "smooth[on].root: the registry has no function 'longitudinal_meen'; "
                "did you mean 'longitudinal_mean'?"
            ],
        ),
        ("on", ["smooth[on].root: a node must be a FunctionGraphNode; got str"]),
        (
            rotation("longitudinal_mean", signal(), 50),
            ["smooth.root: 'longitudinal_mean' is full after 50 rows; the history has 30"],
        ),
        (
            Node("signal", "signal", [X]),
            ["smooth[on].root: a node of kind 'signal' takes no children; it has 1"],
        ),
    ],
)
def test_faulty_templates(template: Any, faults: list[str]) -> None:
    assert staged(TransformStage("smooth", "on", {"on": template})) == faults


@pytest.mark.parametrize(
    ("options", "fault"),
    [
        (
            {"smoth": "on"},
            "metaparameters['smoth']: there is no stage 'smoth'; did you mean 'smooth'?",
        ),
        (
            {"smooth": "onn"},
            "metaparameters['smooth']: stage 'smooth' has no option 'onn'; options: off, on; "
            "did you mean 'on'?",
        ),
        (
            {"pool": {"hegde": "half"}},
            "metaparameters['pool']['hegde']: there is no stage 'hegde'; did you mean 'hedge'?",
        ),
        (
            {"pool": {"hedge": "halve"}},
            "metaparameters['pool']['hedge']: stage 'hedge' has no option 'halve'; options: half; "
            "did you mean 'half'?",
        ),
        (
            {"pool": "on"},
            "metaparameters['pool']: the options of a pool must be a mapping; got 'on'",
        ),
        (
            {"smooth": {"on": 1}},
            "metaparameters['smooth']: stage 'smooth' has no option {'on': 1}; options: off, on",
        ),
    ],
)
def test_misspelt_metaparameters(options: dict[str, Any], fault: str) -> None:
    assert staged(SMOOTH, HEDGE, metaparameters=options, pool_id="pool") == [fault]


def test_a_literal_is_no_signal() -> None:
    assert staged(SMOOTH, graph=integer(3)) == [
        "root: a literal can't be a pipeline's signal: the functions of its stages would take this "
        "int for a parameter"
    ]
    assert staged(graph=integer(3)) == []


def test_other_faults_of_a_pipeline() -> None:
    wrong = TransformStage("smooth", "onn", {})
    assert staged(SMOOTH, wrong) == [
        "transform_pipeline: 2 stages have the name 'smooth'",
        "default of stage 'smooth': stage 'smooth' has no option 'onn'; options: none",
    ]


def test_a_pipeline_that_is_not_merged_is_not_checked() -> None:
    wrong = TransformStage("smooth", "onn", {})
    assert staged(wrong, transforms_already_combined=True, metaparameters={"zz": "on"}) == []
    assert staged(metaparameters={"zz": "on"}) == []


MEAN = rotation("longitudinal_mean", X, 5)


def test_surplus_and_missing_bound_keys() -> None:
    graph = rotation("numerical_negate", MEAN)
    bound = {"root": object(), "root.c0.c0": object(), "rot": object(), "root.c0": None}
    assert found(graph, {"bound_function_instances": bound}) == [
        "bound_function_instances: bound, but a feature stands at 'root.c0.c0' of the merged "
        "graph, no function; did you mean 'root.c0'?",
        "bound_function_instances: bound, but nothing stands at 'rot' of the merged graph, no "
        "function; did you mean 'root'?",
        "bound_function_instances: the instance for 'root.c0' of the merged graph "
        "(longitudinal_mean) is None",
    ]
    assert found(graph, {"bound_function_instances": {}}) == [
        "bound_function_instances: no instance for 'root.c0' of the merged graph "
        "(longitudinal_mean)",
        "bound_function_instances: no instance for 'root' of the merged graph (numerical_negate)",
    ]


def test_bound_keys_are_paths_of_the_merged_graph() -> None:
    pipeline = [SMOOTH]
    live = bind_instances(MEAN, REGISTRY, None, context(transform_pipeline=pipeline))
    arguments = {"bound_function_instances": live.instances}
    assert found(MEAN, arguments, transform_pipeline=pipeline) == []
    assert found(live.graph, arguments) == []
    assert len(found(MEAN, arguments)) == 1


def test_state_keys() -> None:
    graph = rotation("numerical_negate", MEAN)
    assert found(graph, {"function_states": {"root.c0": {}}}) == []
    assert found(graph, {"function_states": {"root.c1": {}}}) == [
        "function_states: no function of the graph has the key 'root.c1'; did you mean 'root.c0'?",
        "function_states: no state for 'root.c0' (longitudinal_mean)",
    ]
    states = {"root.c0": {}, "smooth.root": {}}
    assert found(graph, {"function_states": states}, transform_pipeline=[SMOOTH]) == []


def test_windows_of_a_continued_run_have_seen_other_rows() -> None:
    tick = {"features": (PRICE[:1], PRICE[:1]), "useful_signals": {}}
    assert len(found(MEAN, None, **tick)) == 1
    assert found(MEAN, {"function_states": {"root": {}}}, **tick) == []
    assert found(MEAN, {"bound_function_instances": {"root": object()}}, **tick) == []


def test_features_that_are_named_missing() -> None:
    assert found(MEAN, {"data_nan_features": {"price"}}) == []
    assert found(MEAN, {"data_nan_features": ["prices"]}) == [
        "data_nan_features: the graph reads no feature 'prices'; did you mean 'price'?"
    ]


def test_nothing_is_changed() -> None:
    graph = rotation("numerical_negate", MEAN)
    given = context(transform_pipeline=[SMOOTH])
    before = dict(vars(given))
    check_graph(graph, REGISTRY, given)
    assert vars(given) == before
    assert set(vars(graph)) == {"type", "node", "children", "config"}
    assert set(vars(MEAN)) == {"type", "node", "children", "config"}
