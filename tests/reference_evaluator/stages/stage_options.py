"""Which option a transform stage gets."""

from typing import Any


def _resolve_stage_option(context: Any, stage: Any) -> Any:
    """Resolve the option for a transform stage from context.metaparameters."""
    mp = context.metaparameters
    name = stage.name
    if name in mp:
        return mp[name]
    pool_id = getattr(context, "pool_id", None)
    if pool_id is not None and pool_id in mp:
        pool_mp = mp[pool_id]
        if hasattr(pool_mp, "get") and name in pool_mp:
            return pool_mp[name]
    return stage.default
