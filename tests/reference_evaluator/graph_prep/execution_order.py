"""Children before parents, in child order."""

from ..expression_evaluator.run_state import Run


def topo_sort(run: Run, path: str) -> None:
    info = run.node_info[path]
    for cp in info["children_paths"]:
        topo_sort(run, cp)
    run.topo_order.append(path)
