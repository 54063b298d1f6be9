"""Nodes of a Ray cluster. Every node has the features once, in its object store. Workers on the
driver's own node write their files themselves; no other node needs to reach the folder."""

from __future__ import annotations

import secrets
import socket
from collections.abc import Mapping
from concurrent.futures import Future
from dataclasses import dataclass, replace
from typing import Any

import ray
from quernbrook.workbench.sweeps import warnings_seen
from quernbrook.workbench.sweeps.errors import SweepError
from quernbrook.workbench.sweeps.work import Group, Matrix, Outcome, Setup, StorageError
from quernbrook.workbench.sweeps.worker import Worker


@dataclass(frozen=True)
class _Common:
    """What all tasks of a sweep have in common.

    sweep: tells it from others. node: the driver's.
    """

    sweep: str
    node: str
    names: tuple[str, ...]
    setup: Setup


class RayPool:
    """Groups are tasks of one core each, so that those of a node that is gone find others."""

    deaths: tuple[type[BaseException], ...] = (
        ray.exceptions.WorkerCrashedError,
        ray.exceptions.NodeDiedError,
        ray.exceptions.LocalRayletDiedError,
        ray.exceptions.OutOfMemoryError,
        ray.exceptions.ObjectLostError,
        ray.exceptions.TaskCancelledError,
    )
    is_concurrent = True

    def __init__(
        self,
        fields: Mapping[str, Matrix],
        universe: Matrix | None,
        setup: Setup,
        workers: int | None,
        address: str | None,
    ) -> None:
        self._workers = workers
        # A session that the caller has begun goes on.
        self._is_ours = not ray.is_initialized()
        if self._is_ours:
            _begin(workers, address)
        self._common = ray.put(_Common(secrets.token_hex(8), _node(), tuple(fields), setup))
        # References inside of an object are not resolved; those among the arguments are.
        self._arrays = [ray.put(values) for values in fields.values()]
        self._universe: Any = None if universe is None else ray.put(universe)
        self._references: dict[Future[list[Outcome]], Any] = {}

    def capacity(self) -> int:
        # Asked for anew each time, for nodes come and go.
        cores = int(ray.cluster_resources().get("CPU", 1))
        return cores if self._workers is None else min(cores, self._workers)

    def submit(self, group: Group) -> Future[list[Outcome]]:
        reference = _evaluate.remote(group, self._common, self._universe, *self._arrays)
        future: Future[list[Outcome]] = reference.future()
        self._references[future] = reference
        future.add_done_callback(lambda ended: self._references.pop(ended, None))
        return future

    def is_evaluating(self, future: Future[list[Outcome]]) -> bool:
        # There are no more tasks than cores.
        return True

    def stop(self, future: Future[list[Outcome]]) -> None:
        reference = self._references.get(future)
        if reference is not None:
            ray.cancel(reference, force=True)

    def close(self) -> None:
        for future in list(self._references):
            self.stop(future)
        if self._is_ours:
            ray.shutdown()


def _begin(workers: int | None, address: str | None) -> None:
    """Raises SweepError if no cluster answers."""
    try:
        if address is None:
            # Otherwise it would join a cluster that happens to run here.
            ray.init("local", num_cpus=workers, include_dashboard=False, log_to_driver=False)
        else:
            _require_listener(address)
            ray.init(address, log_to_driver=False)
    except (OSError, RuntimeError, ValueError, ray.exceptions.RayError) as error:
        text = str(error).splitlines()[0] if str(error) else type(error).__name__
        where = address or "this machine"
        raise SweepError(f"no Ray cluster answers at {where}: {text}") from error


def _require_listener(address: str) -> None:
    """Ray itself waits for minutes. Raises OSError."""
    host, _, port = address.rpartition(":")
    if host and port.isdigit() and "//" not in host:
        socket.create_connection((host, int(port)), timeout=10.0).close()


def _node() -> str:
    node: str = ray.get_runtime_context().get_node_id()
    return node


# The worker of this process, and the sweep that it is for.
_worker: tuple[str, Worker] | None = None


@ray.remote(num_cpus=1, max_retries=0)
def _evaluate(
    group: Group, common: _Common, universe: Matrix | None, *arrays: Matrix
) -> list[Outcome]:
    global _worker
    fields = dict(zip(common.names, arrays, strict=True))
    if _worker is None or _worker[0] != common.sweep:
        if _worker is None:
            warnings_seen.show_to_collectors()
        _worker = common.sweep, Worker(fields, universe, _setup_here(common))
    try:
        return _worker[1].evaluate(group)
    except StorageError:
        # The driver may be able to write, or tells what is wrong there.
        _worker = common.sweep, Worker(fields, universe, _handing_back(common.setup))
        return _worker[1].evaluate(group)


def _setup_here(common: _Common) -> Setup:
    """A worker that is given up may write on, and must not meet the next one's files: each on the
    driver's node has a folder of its own."""
    staging = common.setup.staging
    if staging is None or common.node != _node():
        return _handing_back(common.setup)
    folder = staging / secrets.token_hex(8)
    try:
        folder.mkdir()
    except OSError:
        # Nodes may run as another user.
        return _handing_back(common.setup)
    return replace(common.setup, staging=folder)


def _handing_back(setup: Setup) -> Setup:
    """Weights go to the driver, which makes the files."""
    return replace(setup, staging=None, shells={})
