"""The result: a pair when unpacked or indexed, the weights matrix elsewhere."""

from __future__ import annotations

import copy
import gc
import inspect
import os
import sys
import weakref
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from support.children import run_child
from support.functions import raising
from support.graphs import feature, rotation


class Tagged(np.ndarray):
    pass


def make_result(evaluator: ModuleType, rows: int = 3) -> Any:
    return evaluator.EvaluationResult(np.arange(rows * 2.0).reshape(rows, 2), {"root": 1})


def bare_result(evaluator: ModuleType) -> Any:
    """An instance whose constructor never ran."""
    return evaluator.EvaluationResult.__new__(evaluator.EvaluationResult)


# --- attributes ------------------------------------------------------------------------------


@pytest.mark.parametrize("positional", [True, False])
def test_everything_is_held_by_reference(evaluator: ModuleType, positional: bool) -> None:
    given: dict[str, Any] = {
        "weights": object(),
        "states": object(),
        "nan_source": {},
        "node_outputs": [],
    }
    kind = evaluator.EvaluationResult
    result = kind(*given.values()) if positional else kind(**given)
    assert list(vars(result)) == list(given)
    for name, value in given.items():
        assert getattr(result, name) is value


def test_defaults_are_new_dicts(evaluator: ModuleType) -> None:
    one, two = make_result(evaluator), make_result(evaluator)
    made = [one.nan_source, one.node_outputs, two.nan_source, two.node_outputs]
    assert made == [{}, {}, {}, {}]
    assert len({id(item) for item in made}) == 4
    assert list(vars(one)) == ["weights", "states", "nan_source", "node_outputs"]


def test_attributes_are_set_one_by_one_through_the_class(evaluator: ModuleType) -> None:
    order: list[str] = []

    class Watching(evaluator.EvaluationResult):  # type: ignore[name-defined]
        def __setattr__(self, name: str, value: Any) -> None:
            order.append(name)
            super().__setattr__(name, value)

    Watching(1, 2)
    assert order == ["weights", "states", "nan_source", "node_outputs"]


def test_any_attribute_may_be_changed_added_and_deleted(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    result.shape = "mine"
    result.note = 1
    result.states = None
    assert (result.shape, result.note, result.states) == ("mine", 1, None)
    del result.shape, result.note
    assert result.shape == (3, 2)
    with pytest.raises(AttributeError):
        result.note  # noqa: B018


def test_second_construction_starts_anew(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    result.nan_source["root"] = "data_nan"
    result.__init__([1.0], None)
    assert (result.weights, result.states, result.nan_source) == ([1.0], None, {})


def test_weak_reference_and_cycle(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    result.states["self"] = result
    reference = weakref.ref(result)
    del result
    gc.collect()
    assert reference() is None


# --- the pair --------------------------------------------------------------------------------


def test_unpacks_as_weights_and_states(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    weights, states = result
    assert weights is result.weights
    assert states is result.states
    assert len(list(result)) == 2
    as_tuple = tuple(result)
    assert as_tuple[0] is result.weights and as_tuple[1] is result.states


def test_iterator_reads_at_each_step(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    iterator = iter(result)
    assert iter(iterator) is iterator
    result.weights = first = object()
    assert next(iterator) is first
    result.weights, result.states = object(), "later"
    assert next(iterator) == "later"
    for _ in range(2):
        with pytest.raises(StopIteration):
            next(iterator)


def test_iterators_are_independent(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    one, two = iter(result), iter(result)
    assert next(one) is next(two)
    assert next(one) is next(two)


def test_failed_step_ends_the_iterator(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    iterator = iter(result)
    next(iterator)
    del result.states
    with pytest.raises(AttributeError):
        next(iterator)
    result.states = {}
    with pytest.raises(StopIteration):
        next(iterator)


@pytest.mark.parametrize("rows", [0, 1, 6, 1000])
def test_length_is_that_of_the_pair(evaluator: ModuleType, rows: int) -> None:
    result = make_result(evaluator, rows)
    assert len(result) == 2
    assert bool(result) is True


@pytest.mark.parametrize("index", [0, 1, -1, -2, True, np.int64(1)])
def test_index_takes_an_item_of_the_pair(evaluator: ModuleType, index: Any) -> None:
    result = make_result(evaluator)
    assert result[index] is (result.weights, result.states)[index]


@pytest.mark.parametrize("index", [slice(0, 2), slice(None), slice(1, None), slice(5, 9)])
def test_slice_gives_a_tuple(evaluator: ModuleType, index: slice) -> None:
    result = make_result(evaluator)
    pair = (result.weights, result.states)[index]
    assert type(result[index]) is tuple
    assert len(result[index]) == len(pair)
    assert all(item is other for item, other in zip(result[index], pair, strict=True))


@pytest.mark.parametrize(
    ("index", "error", "text"),
    [
        (2, IndexError, "tuple index out of range"),
        (5, IndexError, "tuple index out of range"),
        (-3, IndexError, "tuple index out of range"),
        (10**30, IndexError, "cannot fit 'int' into an index-sized integer"),
        ((0, 1), TypeError, "tuple indices must be integers or slices, not tuple"),
        ("weights", TypeError, "tuple indices must be integers or slices, not str"),
        (None, TypeError, "tuple indices must be integers or slices, not NoneType"),
        (0.0, TypeError, "tuple indices must be integers or slices, not float"),
    ],
)
def test_index_errors_are_those_of_a_tuple(
    evaluator: ModuleType, index: Any, error: type[Exception], text: str
) -> None:
    with pytest.raises(error) as caught:
        make_result(evaluator, 6)[index]
    assert str(caught.value) == text


def test_items_cannot_be_assigned(evaluator: ModuleType) -> None:
    with pytest.raises(TypeError):
        make_result(evaluator)[0] = 1


# --- the matrix ------------------------------------------------------------------------------


def test_array_attributes_are_those_of_the_weights(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    assert result.shape == (3, 2)
    assert result.ndim == 2
    assert result.dtype == np.float64
    assert result.sum() == 15.0
    assert np.shares_memory(result.T, result.weights)
    np.testing.assert_array_equal(result.T, result.weights.T)
    result.fill(1.0)
    assert result.weights.sum() == 6.0


def test_own_attributes_are_not_delegated(evaluator: ModuleType) -> None:
    weights = np.zeros((1, 1)).view(Tagged)
    weights.nan_source = "of the array"  # type: ignore[attr-defined]
    weights.unit = "of the array"  # type: ignore[attr-defined]
    result = evaluator.EvaluationResult(weights, {})
    assert result.nan_source == {}
    assert result.unit == "of the array"
    del result.nan_source
    assert result.nan_source == "of the array"


def test_unknown_name_is_the_array_s_error(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    with pytest.raises(AttributeError) as caught:
        result.no_such_name  # noqa: B018
    assert str(caught.value) == "'numpy.ndarray' object has no attribute 'no_such_name'"
    assert not hasattr(result, "no_such_name")
    assert result.__getattr__("shape") == (3, 2)
    with pytest.raises(TypeError):
        result.__getattr__(5)


def test_delegation_reads_the_current_weights(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    result.weights = "text"
    assert result.upper() == "TEXT"


def test_delegation_passes_any_error_on(evaluator: ModuleType) -> None:
    error = OSError("gone")
    kind = type("Failing", (), {"shape": property(raising(error))})
    result = evaluator.EvaluationResult(kind(), {})
    with pytest.raises(OSError) as caught:
        result.shape  # noqa: B018
    assert caught.value is error


def test_without_weights_delegation_runs_into_the_recursion_limit(evaluator: ModuleType) -> None:
    result = bare_result(evaluator)
    assert vars(result) == {}
    assert len(result) == 2
    for use in (
        lambda: result.weights,
        lambda: result.anything,
        lambda: hasattr(result, "shape"),
        lambda: result[0],
        lambda: next(iter(result)),
        lambda: result.__array__(),
    ):
        with pytest.raises(RecursionError):
            use()
    result.weights = np.zeros(2)
    assert result.shape == (2,)


def test_conversion_shares_memory(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    array = np.asarray(result)
    assert type(array) is np.ndarray
    assert np.shares_memory(array, result.weights)
    np.testing.assert_array_equal(array, result.weights)


def test_conversion_to_another_dtype_copies(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    array = np.asarray(result, dtype=np.float32)
    assert array.dtype == np.float32
    assert not np.shares_memory(array, result.weights)
    array[:] = -1
    assert result.weights[0, 1] == 1.0
    assert result.weights.dtype == np.float64


def test_array_method(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    assert result.__array__() is result.weights
    assert result.__array__(None) is result.weights
    assert result.__array__(np.float64) is result.weights
    assert result.__array__(dtype="f4").dtype == np.float32
    with pytest.raises(TypeError):
        result.__array__(copy=True)
    with pytest.raises(TypeError):
        result.__array__("no such dtype")
    result.weights = result.weights.view(Tagged)
    assert type(result.__array__()) is np.ndarray


def test_dtype_is_told_by_identity_with_none(evaluator: ModuleType) -> None:
    class Falsy:
        dtype = np.dtype(np.int8)

        def __bool__(self) -> bool:
            raise AssertionError("asked for a truth value")

    assert make_result(evaluator).__array__(Falsy()).dtype == np.int8


def test_weights_that_are_no_array_are_converted(evaluator: ModuleType) -> None:
    result = evaluator.EvaluationResult([[1, 2]], {})
    assert np.asarray(result).tolist() == [[1, 2]]
    assert np.asarray(result, dtype=np.float32).dtype == np.float32


@pytest.mark.filterwarnings("ignore:__array__ implementation:DeprecationWarning")
def test_array_library_still_copies_without_a_copy_keyword(evaluator: ModuleType) -> None:
    # the array library looks for the keyword's name in the text of the TypeError
    assert np.array(evaluator.EvaluationResult([[1, 2]], {}), copy=True).tolist() == [[1, 2]]
    result = make_result(evaluator)
    assert not np.shares_memory(np.array(result), result.weights)


def test_array_functions_take_a_result(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    np.testing.assert_array_equal(np.add(result, 1.0), result.weights + 1.0)
    np.testing.assert_array_equal(np.isnan(result), np.isnan(result.weights))


def test_operators_are_not_served(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    for operation in (
        lambda: result + 1,
        lambda: -result,
        lambda: result < 1,
        lambda: result @ 1,
        lambda: float(result),
        lambda: result(),
    ):
        with pytest.raises(TypeError):
            operation()
    same, other = result, make_result(evaluator)
    assert result == same
    assert result != other
    assert len({result, same, other}) == 2
    assert "EvaluationResult object at 0x" in repr(result)
    assert str(result) == repr(result)


def test_only_the_named_special_methods_are_defined(evaluator: ModuleType) -> None:
    kind = evaluator.EvaluationResult
    own = {"__init__", "__iter__", "__len__", "__getitem__", "__array__", "__getattr__"}
    for name in own:
        assert name in vars(kind)
    for name in ("__repr__", "__str__", "__eq__", "__hash__", "__reduce__", "__reduce_ex__"):
        assert getattr(kind, name) is getattr(object, name)
    for name in ("__bool__", "__add__", "__contains__", "__call__", "__setitem__", "__copy__"):
        assert name not in vars(kind)
    assert not issubclass(kind, (tuple, np.ndarray))


def test_subclass_may_override(evaluator: ModuleType) -> None:
    class Derived(evaluator.EvaluationResult):  # type: ignore[name-defined]
        weights = property(lambda self: np.ones(4))

        def __init__(self) -> None:
            self.states = "mine"

    result = Derived()
    assert [item if isinstance(item, str) else item.sum() for item in result] == [4.0, "mine"]
    assert result[0].shape == result.shape == (4,)
    assert result.__array__().sum() == 4.0


def test_subclass_may_take_delegation_over(evaluator: ModuleType) -> None:
    class Derived(evaluator.EvaluationResult):  # type: ignore[name-defined]
        def __getattr__(self, name: str) -> Any:
            return "mine" if name == "shape" else super().__getattr__(name)

    result = Derived(np.zeros((1, 2)), {})
    assert result.shape == "mine"
    assert result.ndim == 2
    with pytest.raises(AttributeError, match=r"numpy\.ndarray"):
        result.no_such_name  # noqa: B018


# --- copies ----------------------------------------------------------------------------------


def test_copy_runs_into_the_recursion_limit(evaluator: ModuleType) -> None:
    # restoring asks the new object for __setstate__ before it has any weights
    with pytest.raises(RecursionError):
        copy.copy(make_result(evaluator))


def test_deep_copy_is_that_of_the_array(evaluator: ModuleType) -> None:
    # the array's __deepcopy__ is found by delegation
    result = make_result(evaluator)
    copied = copy.deepcopy(result)
    assert type(copied) is np.ndarray
    assert not np.shares_memory(copied, result.weights)
    np.testing.assert_array_equal(copied, result.weights)


# --- the generator -------------------------------------------------------------------------------


def test_iteration_is_a_generator(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    assert inspect.isgeneratorfunction(type(result).__iter__)
    pair = iter(result)
    assert inspect.isgenerator(pair)
    assert pair.send(None) is result.weights
    assert pair.send("unused") is result.states
    with pytest.raises(StopIteration):
        pair.send(None)


def test_a_generator_that_is_ended_early(evaluator: ModuleType) -> None:
    result = make_result(evaluator)
    closed = iter(result)
    next(closed)
    closed.close()
    assert list(closed) == []
    thrown = iter(result)
    next(thrown)
    error = ValueError("thrown in")
    with pytest.raises(ValueError) as caught:
        thrown.throw(error)
    assert caught.value is error
    assert list(thrown) == []


# --- recursion -----------------------------------------------------------------------------------

RECURSION = """
import copy, importlib, sys, threading

evaluator = importlib.import_module(sys.argv[1])
kind = evaluator.EvaluationResult


class Property(kind):
    @property
    def weights(self):
        raise AttributeError("weights")


class Delegating(kind):
    def __getattr__(self, name):
        return super().__getattr__(name)


acts = {
    "copied": lambda: copy.copy(kind([1.0], {})),
    "unknown attribute": lambda: kind.__new__(kind).unknown,
    "property": lambda: Property.__new__(Property).unknown,
    "own __getattr__": lambda: Delegating.__new__(Delegating).unknown,
}


def work():
    try:
        acts[sys.argv[2]]()
    except RecursionError:
        print("RecursionError")


# A thread has less room than the main one, and no more than this in some systems.
threading.stack_size(2 << 20)
if sys.version_info < (3, 11):
    sys.setrecursionlimit(4_000)
thread = threading.Thread(target=work)
thread.start()
thread.join()
"""


@pytest.mark.skipif(
    "libasan" in os.environ.get("LD_PRELOAD", ""), reason="its frames take more of the stack"
)
@pytest.mark.parametrize("act", ["copied", "unknown attribute", "property", "own __getattr__"])
def test_recursion_on_a_small_stack(
    evaluator: ModuleType, request: pytest.FixtureRequest, act: str
) -> None:
    if evaluator.__name__ == "reference_evaluator":
        pytest.skip("Python's own frames don't fit there")
    finished = run_child(request, RECURSION, act)
    assert (finished.returncode, finished.stderr) == (0, "")
    assert finished.stdout == "RecursionError\n"


def test_a_class_that_changes_while_it_is_called(evaluator: ModuleType) -> None:
    """The interpreter forgets what it knew of the class together with the change."""

    class Function:
        stateful = False

        def __call__(self, row: np.ndarray) -> float:
            Function.__call__ = lambda self, row: 2.0  # type: ignore[method-assign]
            sys._clear_type_cache()
            gc.collect()
            return 1.0

    context = evaluator.EvaluationContext((np.zeros((3, 2)),), {"a": 0})
    graph = rotation("f", feature("a"))
    weights, _ = evaluator.evaluate(graph, context, bound_function_instances={"root": Function()})
    assert weights[:, 0].tolist() == [1.0, 2.0, 2.0]
