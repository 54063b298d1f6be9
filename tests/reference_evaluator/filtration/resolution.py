"""A filtration's passing signals, asked of the filtration library once a run."""

from typing import Any

import reference_evaluator as module

from ..expression_evaluator.run_state import Run


def resolve_filt(run: Run, path: str) -> Any:
    if path in run.filtration_cache:
        return run.filtration_cache[path]
    filt_node = run.filtration_nodes.get(path)
    if filt_node is None:
        return None
    context = run.context
    try:
        filter_tree = module._dict_to_filter_node(filt_node)
        instance = module.FiltrationInstance(filter_tree, context.registry)
        passing_ids = instance(context.useful_signals)
        result = module.FiltrationResult(
            passing_ids=passing_ids,
            signal_count=len(passing_ids),
            total_pool_size=len(context.useful_signals),
            filter_diagnostics=[],
        )
    except (module.EmptyFiltrationError, module.EmptyPoolError) as e:
        desc = module._describe_dict_filter(filt_node)
        empty_error = module.EvaluationError(f"Filtration returned 0 signals for filters: {desc}")
        empty_error.filter_diagnostics = e.filter_diagnostics or {"passing_count": 0}
        raise empty_error from e
    except module.EvaluationError:
        raise
    except Exception as e:
        desc = module._describe_dict_filter(filt_node)
        resolution_error = module.FiltrationResolutionError(
            f"Filtration resolution failed for filters: {desc}: {type(e).__name__}: {e}"
        )
        resolution_error.filter_diagnostics = {"passing_count": 0, "cause": type(e).__name__}
        raise resolution_error from e
    run.filtration_cache[path] = result
    return result
