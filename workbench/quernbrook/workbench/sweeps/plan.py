"""Sweeps from a YAML file."""

from __future__ import annotations

import re
from collections.abc import Iterable
from datetime import date, datetime
from pathlib import Path
from typing import Annotated, Any

import yaml
from pydantic import BaseModel, ConfigDict, Field, ValidationError, model_validator
from quernbrook.workbench.formulas.notation import definition
from quernbrook.workbench.sweeps.call import REGISTRY, Engine
from quernbrook.workbench.sweeps.errors import SweepError
from quernbrook.workbench.sweeps.runs import (
    Parameter,
    Run,
    runs_from_grid,
    runs_from_table,
    text_of,
)
from quernbrook.workbench.sweeps.work import Results

_WORD = re.compile(r"\w+")

When = datetime | date | str
# As they stand in the file: 5 is no text, and "5" no number.
Value = Annotated[Parameter, Field(union_mode="smart")]


class _Strict(BaseModel):
    model_config = ConfigDict(extra="forbid", strict=False)


class PlannedRuns(_Strict):
    """Runs from one text: one for each combination of `grid`, or for each row of `table`.

    graph: a file with a formula or a JSON graph, either with $parameters.
    table: rows, or a CSV or Parquet file with the parameters as columns.
    """

    name: str
    formula: str | None = None
    graph: Path | None = None
    grid: dict[str, list[Value]] | None = None
    table: Path | list[dict[str, Value]] | None = None
    first_date: When | None = None
    last_date: When | None = None
    symbols: list[str | int] | None = None
    universe: str | None = None
    options: dict[str, Any] = Field(default_factory=dict)

    @model_validator(mode="after")
    def _one_of_each(self) -> PlannedRuns:
        if (self.formula is None) == (self.graph is None):
            raise ValueError("give either formula or graph")
        if self.grid is not None and self.table is not None:
            raise ValueError("give grid or table, not both")
        return self


class Plan(_Strict):
    """A sweep. Paths are relative to the folder of the file.

    data: a folder with a wide file for each field; a made-up market without it.
    """

    runs: list[PlannedRuns] = Field(min_length=1)
    data: Path | None = None
    out: Path | None = None
    engine: Engine = "joblib"
    registry: str = REGISTRY
    results: Results = "weights"
    workers: int | None = None
    time_limit: float | None = None
    tries: int = 3
    ray_address: str | None = None


def read_plan(path: Path) -> Plan:
    """Return what a YAML file holds, with paths as seen from here.

    Raises SweepError for a file that can't be read or isn't a plan; the message names the place.
    """
    try:
        document = yaml.safe_load(path.read_text("utf-8-sig"))
        plan = Plan.model_validate(document)
    except OSError as error:
        raise SweepError(f"{path} can't be read: {error.strerror}") from None
    except UnicodeDecodeError:
        raise SweepError(f"{path} is no text in UTF-8") from None
    except ValidationError as error:
        first = error.errors()[0]
        place = ".".join(map(str, first["loc"])) or "the plan"
        text = first["msg"].removeprefix("Value error, ")
        raise SweepError(f"{path}, {place}: {text[:1].lower()}{text[1:]}") from None
    except (yaml.YAMLError, ValueError, RecursionError) as error:
        raise SweepError(f"{path} is no YAML: {' '.join(str(error).split())}") from None
    folder = path.parent
    for name in ("data", "out"):
        given = getattr(plan, name)
        if given is not None:
            setattr(plan, name, folder / given)
    return plan


def runs_of(plan: Plan, folder: Path) -> list[Run]:
    """Return the runs of a plan whose files stand in `folder`.

    Raises SweepError for files that can't be read and texts that can't be filled.
    """
    return [run for planned in plan.runs for run in _runs_of(planned, folder)]


def fields_of(runs: Iterable[Run], known: Iterable[str]) -> list[str]:
    """Return the known fields whose names stand in the texts of runs, without reading those as
    formulas, which takes a worker's time, and those that definitions such as returns need.

    Raises SweepError for texts that can't be filled.
    """
    words: set[str] = set()
    for run in runs:
        words.update(_WORD.findall(text_of(run)[0]), [run.universe or ""])
    for word in list(words):
        words.update(_WORD.findall(definition(word) or ""))
    lower = {word.lower() for word in words}
    return [field for field in known if field.lower() in lower]


def _runs_of(planned: PlannedRuns, folder: Path) -> list[Run]:
    others = planned.model_dump(
        include={"first_date", "last_date", "symbols", "universe", "options"}
    )
    if planned.graph is not None:
        text = _read(folder / planned.graph).strip()
    else:
        assert planned.formula is not None
        text = planned.formula
    if planned.table is not None:
        table = planned.table if isinstance(planned.table, list) else _table(folder / planned.table)
        return runs_from_table(planned.name, text, table, **others)
    return runs_from_grid(planned.name, text, planned.grid or {}, **others)


def _read(path: Path) -> str:
    try:
        return path.read_text("utf-8-sig")
    except OSError as error:
        raise SweepError(f"{path} can't be read: {error.strerror}") from None
    except UnicodeDecodeError:
        raise SweepError(f"{path} is no text in UTF-8") from None


def _table(path: Path) -> Any:
    import pandas as pd

    try:
        return pd.read_parquet(path) if path.suffix == ".parquet" else pd.read_csv(path)
    except (OSError, ValueError) as error:
        raise SweepError(f"{path} can't be read: {error}") from None
