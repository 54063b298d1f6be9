"""GRAPH: a formula, or the path of a file with one or with a JSON graph."""

from __future__ import annotations

import json
import os
import re
from collections.abc import Callable, Iterable
from pathlib import Path
from typing import TYPE_CHECKING, Annotated, Any

import typer
from quernbrook.workbench.command_line.failures import InputError
from quernbrook.workbench.names import suggestion

if TYPE_CHECKING:
    from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
    from quernbrook.reference_host import FunctionRegistry

GraphArgument = Annotated[
    str,
    typer.Argument(
        metavar="GRAPH",
        show_default=False,
        help="A formula, such as 'rank(delta(close, 5))', or the path of a file: of a JSON graph "
        "if it ends in .json, of a formula otherwise. A name alone, such as 'close', is a formula. "
        "Anything else is a path if there is such a file, or if it ends in .json or .txt.",
    ),
]

_PATH_SUFFIXES = (".json", ".txt")
_NAME = re.compile(r"\w+")
_PATH_LIKE = re.compile(r"[^\s()]*[./][^\s()]*")
_OPTION_LIKE = re.compile(r"--[a-z][a-z-]*(=.*)?")


def read_graph(text: str, features: Iterable[str] | None = None) -> Node:
    """Return the graph that a GRAPH argument names.

    features: the names that features may have; None allows any name.

    Raises InputError, or an error of the formula or document, for what is no graph and for names
    of functions and features that nobody knows.
    """
    return graph_reader(text)(features)


def graph_reader(text: str) -> Callable[[Iterable[str] | None], Node]:
    """Return what `read_graph` does for any features; a file is read here, once."""
    read = _reader(text)

    def graph(features: Iterable[str] | None) -> Node:
        known = None if features is None else tuple(features)
        found = read(known)
        _require_known_names(found, known)
        return found

    return graph


def read_graph_as_written(text: str, features: Iterable[str]) -> Node:
    """Like `read_graph`, but unknown names stay in the graph, and the caller tells of them. Only a
    formula that calls an unknown function by its bare name can't be read."""
    from quernbrook.workbench.graphs import LEAVES, children_first

    known = tuple(features)
    folded = {name.lower() for name in known}
    read = _reader(text, any_function=True)
    leaves = (visit.node for visit in children_first(read(None)) if visit.node.type in LEAVES)
    unknown = dict.fromkeys(leaf.node for leaf in leaves if leaf.node.lower() not in folded)
    return read((*known, *unknown))


def _reader(text: str, *, any_function: bool = False) -> Callable[[tuple[str, ...] | None], Node]:
    """What makes the graph, given the names of features; a file is read here, once."""
    if not _is_path(text):
        return lambda features: _from_argument(text, features)
    path = Path(text)
    contents = _contents(path)
    return lambda features: _from_contents(path, contents, features, any_function)


def _is_path(text: str) -> bool:
    if _NAME.fullmatch(text):
        return False
    # A pipe is a file, too. Unlike Path.exists, this takes texts that no path could have.
    return text.endswith(_PATH_SUFFIXES) or (os.path.exists(text) and not os.path.isdir(text))


def _from_argument(text: str, features: tuple[str, ...] | None) -> Node:
    from quernbrook.workbench.formulas import FormulaError, parse_formula

    if _OPTION_LIKE.fullmatch(text):
        raise InputError(f"there is no option {text}: see --help")
    try:
        return parse_formula(text, features=features)
    except FormulaError as error:
        if not _PATH_LIKE.fullmatch(text):
            raise
        raise InputError(f"{text} is no file, and no formula either: {error}") from None


def _from_contents(
    path: Path, text: str, features: tuple[str, ...] | None, any_function: bool
) -> Node:
    from quernbrook.workbench.formulas import FormulaError, parse_formula
    from quernbrook.workbench.graph_json import GraphJsonError, graph_from_json

    try:
        if path.suffix == ".json":
            document = _document(path, text)
            registry = _naming_all(document) if any_function else None
            return graph_from_json(document, features=features, registry=registry)
        return parse_formula(text.rstrip(), features=features)
    except (FormulaError, GraphJsonError) as error:
        raise InputError(f"{path}: {error}") from None
    except RecursionError:
        raise InputError(f"{path}: the graph nests too deeply for JSON") from None


def _naming_all(document: Any) -> FunctionRegistry:
    """The library, with an empty entry for each function that a document names beside it."""
    from quernbrook.reference_host import FunctionEntry, default_registry
    from quernbrook.workbench.graphs import FUNCTIONS

    registry = default_registry()
    pending = [document]
    while pending:
        value = pending.pop()
        if isinstance(value, list):
            pending += value
        elif isinstance(value, dict):
            pending += value.values()
            name = value.get("node")
            is_function = isinstance(name, str) and value.get("type") in tuple(FUNCTIONS)
            if is_function and name and not registry.has(name):
                registry.register(FunctionEntry(name, "unknown", build=object))
    return registry


def _contents(path: Path) -> str:
    try:
        return path.read_text("utf-8-sig")
    except FileNotFoundError:
        near = suggestion(path.name, os.listdir(path.parent) if path.parent.is_dir() else ())
        raise InputError(f"there is no file {path}{near}") from None
    except OSError as error:
        raise InputError(f"{path} can't be read: {error.strerror}") from None
    except UnicodeDecodeError:
        raise InputError(f"{path} is no text in UTF-8") from None


def _document(path: Path, text: str) -> Any:
    try:
        return json.loads(text)
    except ValueError as error:
        raise InputError(f"{path} is no JSON: {error}") from None


def _require_known_names(graph: Node, features: tuple[str, ...] | None) -> None:
    """Forms such as feature("x") and rotation("f", x) are read with any name."""
    from quernbrook.workbench.formulas.reader import library
    from quernbrook.workbench.graphs import FUNCTIONS, LEAVES, children_first, path_of

    functions = library()
    for visit in children_first(graph):
        node, path = visit.node, path_of(visit.place)
        if node.type in FUNCTIONS and not functions.has(node.node):
            near = suggestion(node.node, functions.names())
            raise InputError(f"{path}: unknown function '{node.node}'{near}")
        if node.type in LEAVES and features is not None and node.node not in features:
            near = suggestion(node.node, features)
            raise InputError(f"{path}: unknown feature '{node.node}'{near}")
