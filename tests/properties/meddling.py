"""What functions of random runs do to the run around them."""

from __future__ import annotations

from typing import Any

import numpy as np
from properties.actions import Action, Memory, Rows, total
from properties.build import PNL_COLUMNS
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.simulator_engine._types import UsefulSignal


def then_sum(deed: Any) -> Action:
    """Does something to the host every other time."""

    def act(rows: Rows, memory: Memory) -> Any:
        if memory.calls % 2 == 0:
            deed(memory.host, memory)
        return total(rows, memory)

    return act


def universe(host: Any, memory: Memory) -> None:
    context = host.context
    if memory.calls % 4 == 0 and context.universe is not None:
        context.universe = None
    else:
        context.universe = np.eye(*context.features[0].shape)


def odd_universe(host: Any, memory: Memory) -> None:
    rows, columns = host.context.features[0].shape
    host.context.universe = [
        np.ones((rows, columns), dtype=np.int64),
        np.ones((rows, 1)),
        [[1.0] * columns] * rows,
        np.ones((1, columns)),
        np.full((rows, columns), "1"),
    ][memory.calls // 2 % 5]


def write_universe(host: Any, _: Memory) -> None:
    if host.context.universe is not None and host.context.universe.flags.writeable:
        host.context.universe[:] = 1 - np.isfinite(host.context.universe.astype(np.float64))


def write_features(host: Any, memory: Memory) -> None:
    for feature in host.context.features:
        if feature.flags.writeable:
            feature[:] = memory.calls + 3


def exchange_features(host: Any, memory: Memory) -> None:
    """Only a list of features can be changed while the run goes on."""
    features = host.context.features
    if isinstance(features, list) and features:
        if memory.calls % 4:
            features.pop()
        else:
            features.reverse()
            features[0] = features[0].astype(np.float32)


def drop_features(host: Any, _: Memory) -> None:
    host.context.features = ()
    host.context.feature_index.clear()


def write_signals(host: Any, memory: Memory) -> None:
    for signal in host.context.useful_signals.values():
        signal.weights = np.full(host.context.features[0].shape, memory.calls + 2.0)


def odd_signals(host: Any, memory: Memory) -> None:
    rows, columns = host.context.features[0].shape
    for signal in host.context.useful_signals.values():
        signal.weights = [
            np.arange(rows * columns).reshape(rows, columns),
            np.ones((rows, 1)),
            np.ones((rows, columns + 1)),
            np.ones((memory.calls, columns)),
        ][memory.calls // 2 % 4]
        signal.pnl = [None, np.ones((rows, 2), dtype=np.int8), np.ones(rows)][memory.calls // 2 % 3]


def another_signal(host: Any, _: Memory) -> None:
    rows = host.context.features[0].shape
    host.context.useful_signals["added"] = UsefulSignal(
        np.full(rows, 2.0), np.ones((rows[0], len(PNL_COLUMNS))), {"sharpe": 9.0}
    )


def forget_signals(host: Any, _: Memory) -> None:
    host.context.useful_signals = dict(list(host.context.useful_signals.items())[1:])


def block_behind(memory: Memory) -> np.ndarray | None:
    """The registers of all nodes or the extraction buffer, where a view of them is at hand."""
    for row in memory.rows:
        if row.base is not None and row.base.ndim == 2:
            return row.base
    return None


def read_registers(host: Any, memory: Memory) -> None:
    """From here on, inputs are parts of the block that the run writes."""
    context, block = host.context, block_behind(memory)
    if block is None:
        return
    if isinstance(context.features, list):
        context.features[0] = block
    for signal in context.useful_signals.values():
        signal.weights = block
        signal.pnl = block[:, ::-1]
    if memory.calls % 4:
        context.universe = block[::-1]


def store_registers(host: Any, memory: Memory) -> None:
    stored, block = host.context._precomputed_node_outputs, block_behind(memory)
    if stored is not None and block is not None:
        stored["id"] = block[-1] if memory.calls % 4 else block[:1, ::-1]


def labels(host: Any, memory: Memory) -> None:
    host.context.column_labels = list(PNL_COLUMNS[:: -1 if memory.calls % 4 else 1])


def pnl_vectors(host: Any, memory: Memory) -> None:
    vectors = {"x": {"gross_returns": 4.0, "net": memory.calls}}
    host.context.signal_pnl_vectors = None if memory.calls % 4 else vectors


def store_output(host: Any, memory: Memory) -> None:
    stored = host.context._precomputed_node_outputs
    if stored is not None:
        columns = host.context.features[0].shape[1]
        stored["id"] = [memory.calls + 0.25] * columns


def drop_outputs(host: Any, _: Memory) -> None:
    if host.context._precomputed_node_outputs is not None:
        host.context._precomputed_node_outputs.clear()


def unbind(host: Any, _: Memory) -> None:
    if host.bound is not None:
        host.bound.clear()


def bind(host: Any, memory: Memory) -> None:
    if host.bound is not None:
        host.bound["elsewhere"] = memory


def toggle_state(host: Any, _: Memory) -> None:
    host.are_stateful = not host.are_stateful


def toggle_arity(host: Any, _: Memory) -> None:
    for instance in host.instances:
        if hasattr(instance, "arity"):
            del instance.arity
        else:
            instance.arity = 1


def move_day(host: Any, _: Memory) -> None:
    host.context.current_day_index = 99


def blank_registers(host: Any, memory: Memory) -> None:
    if memory.calls % 4 == 0:
        host.context.registers[...] = 6.5
    else:
        host.context.registers = None


def close(host: Any, _: Memory) -> None:
    host.context.registry = None
    host.context._collect_states = False
    host.context.extraction_buffer = None


def evaluate_within(host: Any, _: Memory) -> None:
    leaf = FunctionGraphNode("rotation", "absent", [])
    try:
        host.evaluator.evaluate(leaf, host.context, bound_function_instances={"root": np.sum})
    except Exception as error:  # noqa: BLE001 - what it is, is compared
        host.log.append(("within", type(error).__name__, str(error)))


def alter_graph(host: Any, _: Memory) -> None:
    host.graph.children = []
    host.graph.config = None
    host.graph.node = "altered"


def drop_record(host: Any, _: Memory) -> None:
    host.graph._collect_nodes_cache = None


DEEDS: dict[str, Any] = {
    "universe": universe,
    "odd universe": odd_universe,
    "write universe": write_universe,
    "write features": write_features,
    "exchange features": exchange_features,
    "drop features": drop_features,
    "write signals": write_signals,
    "odd signals": odd_signals,
    "another signal": another_signal,
    "forget signals": forget_signals,
    "labels": labels,
    "pnl vectors": pnl_vectors,
    "read registers": read_registers,
    "store registers": store_registers,
    "store output": store_output,
    "drop outputs": drop_outputs,
    "unbind": unbind,
    "bind": bind,
    "toggle state": toggle_state,
    "toggle arity": toggle_arity,
    "move day": move_day,
    "blank registers": blank_registers,
    "close": close,
    "evaluate within": evaluate_within,
    "alter graph": alter_graph,
    "drop record": drop_record,
}

#: Functions that do so while they are called.
MEDDLING: dict[str, Action] = {name: then_sum(deed) for name, deed in DEEDS.items()}
