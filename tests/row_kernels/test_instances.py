"""What an instance in machine code is to Python: attributes, calls, errors, copies, states."""

from __future__ import annotations

import copy
import json
import pickle
from collections.abc import Iterator
from typing import Any

import numpy as np
import pytest
from quernbrook import row_kernels
from quernbrook.reference_host import FunctionRegistry, SavedState, default_registry
from support.library_configs import cases, configs
from support.rough_rows import bits, rough_matrix, rough_row

COMPILED = default_registry(compiled=True)
PLAIN = default_registry(compiled=False)

every = pytest.mark.parametrize(("name", "config"), cases(""))
stateless = pytest.mark.parametrize(("name", "config"), cases("numerical_", "latitudinal_"))
weighted = pytest.mark.parametrize(("name", "config"), cases("weighted_by_"))


def call(instance: Any, step: int) -> np.ndarray:
    """One call with data that depend on `step` alone."""
    rng = np.random.default_rng(step)
    if instance.name.startswith(("reduction_", "weighted_")):
        return instance(rough_matrix(step, 4, 6), signal_pnl=rough_row(rng, 4, step))
    return instance(*(rough_row(rng, 6, step + place) for place in range(instance.arity)))


@every
def test_attributes(name: str, config: dict[str, Any]) -> None:
    instance = COMPILED.create_instance(name, **config)
    plain = PLAIN.create_instance(name, **config)
    assert isinstance(instance, row_kernels.FUNCTIONS[name])
    assert instance.name == type(instance).name == name
    assert instance.stateful is plain.stateful
    for attribute in ("arity", "window", "pnl_column", "invert"):
        assert hasattr(instance, attribute) == hasattr(plain, attribute)
        assert getattr(instance, attribute, None) == getattr(plain, attribute, None)
    for parameter, value in config.items():
        assert getattr(instance, parameter) == value


@pytest.mark.parametrize("name", sorted(row_kernels.FUNCTIONS))
def test_types(name: str) -> None:
    kind = row_kernels.FUNCTIONS[name]
    assert kind.__name__ == "".join(word.capitalize() for word in name.split("_"))
    assert kind.__module__ == "quernbrook.row_kernels"
    assert getattr(row_kernels, kind.__name__) is kind
    assert "NaN" in kind.__doc__
    # A subclass could call something else than its kernel runs.
    with pytest.raises(TypeError, match="prohibits subclassing"):
        type("Own", (kind,), {})


@every
@pytest.mark.parametrize(
    "clone", [copy.copy, copy.deepcopy, lambda x: pickle.loads(pickle.dumps(x))]
)
def test_copies_go_on_by_themselves(name: str, config: dict[str, Any], clone: Any) -> None:
    instance = COMPILED.create_instance(name, **config)
    for step in range(5):
        call(instance, step)
    other = clone(instance)
    assert type(other) is type(instance)
    for parameter in config:
        assert getattr(other, parameter) == getattr(instance, parameter)
    for step in range(5, 12):
        expected = bits(call(instance, step))
        assert bits(call(other, step)) == expected


@stateless
def test_array_likes(name: str, config: dict[str, Any]) -> None:
    instance = COMPILED.create_instance(name, **config)
    rows = [[1.0, -2.0, 3.0, 0.0][place:] + [4.0] * place for place in range(instance.arity)]
    expected = bits(instance(*(np.array(row) for row in rows)))
    likes = [
        rows,
        [tuple(row) for row in rows],
        [np.array(row, dtype=np.int32) for row in rows],
        [np.array(row, dtype=np.float32) for row in rows],
        [np.array(row, dtype=">f8") for row in rows],
        [np.repeat(row, 2)[::2] for row in rows],
        [np.array(row[::-1])[::-1] for row in rows],
        [
            np.frombuffer(b"x" + np.array(row).tobytes(), dtype=np.uint8)[1:].view(np.float64)
            for row in rows
        ],
    ]
    for like in likes:
        result = instance(*like, context=object())
        assert bits(result) == expected
        assert result.dtype == np.float64
        assert result.flags.owndata
        assert result.flags.writeable


@stateless
@pytest.mark.parametrize("registry", [COMPILED, PLAIN], ids=["compiled", "plain"])
def test_wrong_rows(registry: FunctionRegistry, name: str, config: dict[str, Any]) -> None:
    instance = registry.create_instance(name, **config)
    arity = instance.arity
    row = np.arange(3.0)
    for count in {0, arity - 1, arity + 1, 9} - {arity}:
        with pytest.raises(TypeError) as caught:
            instance(*[row] * count)
        assert str(caught.value) == f"{name} takes {arity} input(s); got {count}"
    with pytest.raises(ValueError) as caught_value:
        instance(*[row] * (arity - 1), row[np.newaxis])
    assert str(caught_value.value) == f"{name}: a row must have 1 dimension(s); got 2"
    if arity > 1:
        widths = ["3"] * (arity - 1) + ["2"]
        with pytest.raises(ValueError) as caught_value:
            instance(*[row] * (arity - 1), row[:2])
        assert str(caught_value.value) == f"{name}: rows have different widths: {', '.join(widths)}"
    with pytest.raises(ValueError, match="could not convert string to float"):
        instance(*[row] * (arity - 1), ["a", "b", "c"])


@weighted
@pytest.mark.parametrize("registry", [COMPILED, PLAIN], ids=["compiled", "plain"])
def test_wrong_signals(registry: FunctionRegistry, name: str, config: dict[str, Any]) -> None:
    instance = registry.create_instance(name, **config)
    block, pnl = np.ones((3, 4)), np.ones(3)
    instance(block, signal_pnl=pnl)
    before = repr(instance.get_state())
    for wrong, reason in [
        ((block[0], pnl), f"{name}: a block of signals must have 2 dimension(s); got 1"),
        ((block, pnl[:2]), f"{name}: signal_pnl has 2 values for 3 signals"),
        ((block[:2], pnl[:2]), "row has 2 values; the window holds rows of 3"),
    ]:
        with pytest.raises(ValueError) as caught:
            instance(*wrong)
        assert str(caught.value) == reason
    if name == "weighted_by_turnover":
        with pytest.raises(
            ValueError, match="signals have 2 weights; those of the row before had 4"
        ):
            instance(block[:, :2], pnl)
    else:
        with pytest.raises(TypeError, match=f"{name} needs signal_pnl, one value for each signal"):
            instance(block)
    assert repr(instance.get_state()) == before


@weighted
@pytest.mark.parametrize("saved_after", [0, 1, 2, 3, 9])
def test_states_move_between_the_two(name: str, config: dict[str, Any], saved_after: int) -> None:
    for first, second in ((COMPILED, PLAIN), (PLAIN, COMPILED)):
        whole = PLAIN.create_instance(name, **config)
        saving = first.create_instance(name, **config)
        for step in range(saved_after):
            call(whole, step)
            call(saving, step)
        saved = saving.get_state()
        assert saved.name == name
        data = json.loads(json.dumps(saved.state_data))
        going_on = second.create_instance_from_state(name, SavedState(saved.name, data), **config)
        for step in range(saved_after, saved_after + 6):
            assert bits(call(going_on, step)) == bits(call(whole, step))


STATE = {"count": 1, "window": 2, "buffer": [[1.0, 2.0]], "held": [[1.0], [2.0]]}


@pytest.mark.parametrize("registry", [COMPILED, PLAIN], ids=["compiled", "plain"])
@pytest.mark.parametrize(
    ("changes", "reason"),
    [
        ({"window": 3}, "ValueError: saved with window 3, configured with 2"),
        ({"count": "1"}, "TypeError: count must be an int; got '1'"),
        ({"count": 5}, "ValueError: 1 rows of 5 for a window of 2"),
        ({"count": -1, "buffer": []}, "ValueError: 0 rows of -1 for a window of 2"),
        (
            {"count": 2, "buffer": [[1.0, 2.0], [1.0]]},
            "ValueError: row has 1 values; the window holds rows of 2",
        ),
        ({"held": [[1.0]]}, "ValueError: 1 rows of weights are held for 2 signals"),
        ({"held": None}, "ValueError: 0 rows of weights are held for 2 signals"),
        ({"buffer": None}, "TypeError: object of type 'NoneType' has no len()"),
    ],
)
def test_states_that_do_not_fit(
    registry: FunctionRegistry, changes: dict[str, Any], reason: str
) -> None:
    name = "weighted_by_turnover"
    with pytest.raises(Exception) as caught:
        registry.create_instance_from_state(name, {**STATE, **changes}, window=2)
    assert str(caught.value) == f"Function '{name}' can't restore its state: {reason}"


@pytest.mark.parametrize("registry", [COMPILED, PLAIN], ids=["compiled", "plain"])
@pytest.mark.parametrize("missing", ["count", "window", "buffer", "held"])
def test_states_with_a_key_missing(registry: FunctionRegistry, missing: str) -> None:
    data = {key: value for key, value in STATE.items() if key != missing}
    with pytest.raises(Exception, match=f"KeyError: '{missing}'"):
        registry.create_instance_from_state("weighted_by_turnover", data, window=2)


class Untrue(list[Any]):
    """A list that gives its first element alone, however long it is."""

    def __iter__(self) -> Iterator[Any]:
        return iter(self[:1])


@pytest.mark.parametrize("key", ["buffer", "held"])
def test_a_state_of_sequences_that_tell_another_length(key: str) -> None:
    instance = row_kernels.FUNCTIONS["weighted_by_turnover"](window=2)
    state = {**STATE, "count": 2, "buffer": [[1.0, 2.0]] * 2}
    with pytest.raises(ValueError, match=r"^got 1 rows of a sequence of 2$"):
        instance.restore({**state, key: Untrue(state[key])})
    assert instance.get_state().state_data["count"] == 0


@weighted
def test_windows_that_no_memory_holds(name: str, config: dict[str, Any]) -> None:
    # The values of 8 signals in so many rows are 0 in 64 bits, or -8.
    for window in (2**61, 2**61 - 1):
        instance = row_kernels.FUNCTIONS[name](**{**config, "window": window})
        with pytest.raises(MemoryError, match=r"^out of memory$"):
            instance(np.ones((8, 2)), np.ones(8))
        state = {**STATE, "window": window, "buffer": [[1.0] * 8], "held": [[1.0]] * 8}
        with pytest.raises(MemoryError):
            instance.restore(state)
        assert instance.get_state().state_data["count"] == 0


def test_every_function_is_configured_here() -> None:
    assert all(configs(name) for name in row_kernels.FUNCTIONS)
