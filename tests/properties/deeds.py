"""What the host does between the runs of a case."""

from __future__ import annotations

import copy
import pickle
from typing import Any

from properties.build import build_matrix, build_stages, build_value
from properties.cases import Deed, MatrixCase, ValueCase
from properties.describe import described
from properties.faults import describe_error
from properties.host import Host


def do(host: Host, deed: Deed) -> None:
    name, *arguments = deed
    try:
        DEEDS[name](host, *arguments)
    except Exception as error:  # noqa: BLE001 - whatever the nodes and the context answer
        host.log.append(("deed", name, describe_error(error)))


def copy_graph(host: Host) -> None:
    host.graph = copy.deepcopy(host.graph)


def pickle_graph(host: Host) -> None:
    host.graph = pickle.loads(pickle.dumps(host.graph))


def invalidate(host: Host) -> None:
    host.evaluator.invalidate_graph_evaluation_caches(host.graph)


def identify(host: Host) -> None:
    identities = host.evaluator.generate_node_identities(host.graph)
    host.log.append(("identities", described(identities)))


def node_at(host: Host, path: str) -> Any:
    node = host.graph
    for step in path.split(".")[1:]:
        node = node.children[int(step[1:])]
    return node


def alter_node(host: Host, path: str, name: str, value: Any) -> None:
    value = dict(value) if name == "config" else copy.deepcopy(value)
    setattr(node_at(host, path), name, value)


def forget_attribute(host: Host, path: str, name: str) -> None:
    delattr(node_at(host, path), name)


def replace_child(host: Host, path: str, value: Any) -> None:
    node = node_at(host, path)
    node.children = [value, *node.children[1:]]


def forget_child(host: Host, path: str) -> None:
    node = node_at(host, path)
    node.children = list(node.children)[1:]


def new_context(host: Host, *, backwards: bool = False) -> None:
    host.context = host.new_context(backwards=backwards)


def copy_context(host: Host) -> None:
    host.context = copy.deepcopy(host.context)


def alter_context(host: Host, name: str, value: Any) -> None:
    if isinstance(value, MatrixCase):
        value = build_matrix(value, host.case.shape[1])
    setattr(host.context, name, copy.deepcopy(value))


def change_stage_value(host: Host, name: str, value: ValueCase) -> None:
    host.stage_values[name] = build_value(value, host.case.shape[1])


def renew_pipeline(host: Host) -> None:
    host.context.transform_pipeline = build_stages(host.case.stages)


def store_output(host: Host, canonical_id: str, value: ValueCase) -> None:
    stored = host.context._precomputed_node_outputs
    stored[canonical_id] = build_value(value, host.case.shape[1])


def alter_record(host: Host, keys: tuple[Any, ...], action: str, value: Any = None) -> None:
    """Changes one item of the record, found by the keys of the tables around it."""
    *outer, key = keys
    container = host.graph._collect_nodes_cache
    for step in outer:
        container = container[step]
    if action == "delete":
        del container[key]
    elif action == "set":
        container[key] = copy.deepcopy(value)
    elif action == "to the end":
        container[key] = container.pop(key)
    elif action == "rename":
        container[value] = container.pop(key)
    elif action == "swap":
        container[key], container[value] = container[value], container[key]
    elif action == "append":
        container[key].append(value)
    elif action == "reverse":
        container[key].reverse()
    elif action == "clear":
        container[key].clear()
    elif action == "copy":
        container[key] = copy.deepcopy(container[key])
    else:
        raise AssertionError(action)


DEEDS: dict[str, Any] = {
    "copy graph": copy_graph,
    "pickle graph": pickle_graph,
    "invalidate": invalidate,
    "identify": identify,
    "alter node": alter_node,
    "forget attribute": forget_attribute,
    "forget child": forget_child,
    "replace child": replace_child,
    "new context": new_context,
    "turned context": lambda host: new_context(host, backwards=True),
    "copy context": copy_context,
    "alter context": alter_context,
    "change stage value": change_stage_value,
    "renew pipeline": renew_pipeline,
    "store output": store_output,
    "alter record": alter_record,
}
