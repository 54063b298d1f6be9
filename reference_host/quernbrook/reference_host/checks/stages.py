"""Whether the stages of a pipeline can be laid around the signal, and the options be chosen."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterator, Mapping
from typing import Any

from quernbrook.reference_host.checks.faults import Fault, nearest
from quernbrook.reference_host.checks.kinds import LITERALS
from quernbrook.reference_host.checks.places import Place, read_graph
from quernbrook.simulator_engine._types import TransformStage


def templates(stages: list[TransformStage]) -> Iterator[tuple[Place | None, list[Fault]]]:
    """Yield every option's template as `read_graph` returns it."""
    for stage in stages:
        for option, template in stage.options.items():
            if template is not None:
                yield read_graph(template, f"{stage.name}[{option}].root")


def check_signal(root: Place, stages: list[TransformStage]) -> Iterator[Fault]:
    if stages and root.kind in LITERALS:
        yield Fault(
            root.path,
            f"a literal can't be a pipeline's signal: the functions of its stages would take this "
            f"{root.kind} for a parameter",
        )


def check_template(root: Place) -> Iterator[Fault]:
    if all(place.kind != "signal" for place in root.all()):
        yield Fault(root.path, "the template has no 'signal' node: the stage would drop the signal")


def check_stages(stages: list[TransformStage], context: Any) -> Iterator[Fault]:
    if not stages:
        return  # Then the metaparameters name the stages of another run.
    for name, count in Counter(stage.name for stage in stages).items():
        if count > 1:
            yield Fault("transform_pipeline", f"{count} stages have the name '{name}'")
    by_name = {stage.name: stage for stage in stages}
    for stage in stages:
        yield from _check_option(f"default of stage '{stage.name}'", stage, stage.default)
    for key, chosen in context.metaparameters.items():
        path = f"metaparameters['{key}']"
        if key in by_name:
            yield from _check_option(path, by_name[key], chosen)
        elif isinstance(chosen, Mapping):
            for name, option in chosen.items():
                inner = f"{path}['{name}']"
                if name in by_name:
                    yield from _check_option(inner, by_name[name], option)
                else:
                    yield Fault(inner, f"there is no stage '{name}'", nearest(name, by_name))
        elif key == context.pool_id:
            yield Fault(path, f"the options of a pool must be a mapping; got {chosen!r}")
        else:
            yield Fault(path, f"there is no stage '{key}'", nearest(key, by_name))


def _check_option(path: str, stage: TransformStage, option: Any) -> Iterator[Fault]:
    if option is None or (isinstance(option, str) and option in stage.options):
        return
    known = ", ".join(sorted(stage.options)) or "none"
    text = f"stage '{stage.name}' has no option {option!r}; options: {known}"
    yield Fault(path, text, nearest(option, stage.options))
