"""Every public name of the four distributions, its attributes and arguments, is in the reference.

Public are the names in the `__all__` of packages, those of the modules that the reference has a
section for, and those that pages import.
"""

from __future__ import annotations

import ast
import inspect
import pkgutil
import re
from collections.abc import Iterator
from functools import cache
from importlib import import_module
from pathlib import Path
from types import ModuleType
from typing import Any

import numpy as np
import pytest
import typer
from bs4 import BeautifulSoup
from quernbrook import reference_host, row_kernels, workbench
from quernbrook.simulator_engine import expression_evaluator
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext
from quernbrook.workbench.command_line.application import application
from sphinx.util.inventory import InventoryFile

ROOT = Path(__file__).parents[3]
STUB = ROOT / "simulator_engine" / "expression_evaluator" / "__init__.pyi"
SOURCES = [
    ROOT / name for name in ("simulator_engine", "reference_host", "row_kernels", "workbench")
]
#: Packages whose names nobody imports: the program, and what a sweep runs on.
PROGRAMS = {
    "quernbrook.workbench.command_line",
    "quernbrook.workbench.command_line.commands",
    "quernbrook.workbench.sweeps.engines",
}
#: Of which all modules are public, since it has no `__all__` so that each is imported by itself.
BY_MODULE = "quernbrook.workbench.seeing"
#: Modules that help those of the package.
HELPERS = {f"{BY_MODULE}.{name}" for name in ("colours", "figure", "shown")}

Inventory = dict[str, str]


@pytest.fixture(scope="module")
def inventory(site: Path) -> Inventory:
    """Where each name of Python is told of."""
    with (site / "objects.inv").open("rb") as file:
        kinds = InventoryFile.load(file, "", lambda base, uri: uri)
    return {
        name: entry[2]
        for kind, entries in kinds.items()
        if kind.startswith("py:")
        for name, entry in entries.items()
    }


@pytest.fixture(scope="module")
def sections(site: Path) -> Inventory:
    """Where the modules are that have a section of their own."""
    with (site / "objects.inv").open("rb") as file:
        modules = InventoryFile.load(file, "", lambda base, uri: uri)["py:module"]
    return {name: entry[2] for name, entry in modules.items()}


def packages() -> list[ModuleType]:
    found = [reference_host, row_kernels, workbench]
    for package in tuple(found):
        for module in pkgutil.walk_packages(package.__path__, f"{package.__name__}."):
            if module.ispkg:
                found.append(import_module(module.name))
    return found


def public_names(module: ModuleType) -> set[str]:
    """Those of `__all__`, or those that are defined in it."""
    if "__all__" in vars(module):
        return {*module.__all__}
    values = vars(module).items()
    names = {name for name, value in values if getattr(value, "__module__", "") == module.__name__}
    if (module.__file__ or "").endswith(".py"):
        for statement in ast.parse(inspect.getsource(module)).body:
            targets = getattr(statement, "targets", [getattr(statement, "target", None)])
            names |= {target.id for target in targets if isinstance(target, ast.Name)}
    return {name for name in names if not name.startswith("_")}


def is_told(inventory: Inventory, module: ModuleType, name: str) -> bool:
    """Under this name or, of the same object, another one."""
    value = getattr(module, name)
    return f"{module.__name__}.{name}" in inventory or (
        getattr(value, "__name__", None) == name
        and any(other.endswith(f".{name}") and found(other) is value for other in inventory)
    )


@cache
def found(full_name: str) -> Any:
    """The object behind a full name; None for those that only signatures name."""
    value: Any = None
    whole = ""
    for part in full_name.split("."):
        whole = f"{whole}.{part}".lstrip(".")
        # A function may have the name of its module, and stands in the module's place.
        if value is not None and hasattr(value, part):
            value = getattr(value, part)
            continue
        try:
            value = import_module(whole)
        except ImportError:
            return None
    return value


def own_classes(inventory: Inventory) -> dict[str, type]:
    return {
        name: found(name)
        for name in inventory
        if isinstance(found(name), type) and found(name).__module__.startswith("quernbrook.")
    }


def test_every_package_has_its_public_names_in_the_reference(inventory: Inventory) -> None:
    told = [package for package in packages() if package.__name__ not in {*PROGRAMS, BY_MODULE}]
    assert all("__all__" in vars(package) for package in told if package is not row_kernels)
    assert [
        f"{package.__name__}.{name}"
        for package in told
        for name in public_names(package)
        if not is_told(inventory, package, name)
    ] == []
    assert set(row_kernels.FUNCTIONS) == {
        found(name).name
        for name in inventory
        if getattr(found(name), "name", None) in row_kernels.FUNCTIONS
    }


def test_packages_by_module_have_a_section_for_each(sections: Inventory) -> None:
    package = import_module(BY_MODULE)
    modules = {module.name for module in pkgutil.iter_modules(package.__path__, f"{BY_MODULE}.")}
    assert modules - sections.keys() == HELPERS


def test_sections_of_modules_are_complete(inventory: Inventory, sections: Inventory) -> None:
    assert expression_evaluator.__name__ in sections
    lost = []
    for section in sections:
        module = import_module(section)
        lost += [
            f"{section}.{name}"
            for name in public_names(module)
            if not is_told(inventory, module, name)
        ]
    assert lost == []


def test_what_the_stub_promises_is_in_the_reference(inventory: Inventory) -> None:
    module = expression_evaluator.__name__
    for statement in ast.parse(STUB.read_text("utf-8")).body:
        if isinstance(statement, ast.AnnAssign) and isinstance(statement.target, ast.Name):
            assert f"{module}.{statement.target.id}" in inventory
        name = getattr(statement, "name", "_")
        if not name.startswith("_"):
            assert f"{module}.{name}" in inventory
        if isinstance(statement, ast.ClassDef) and not name.startswith("_"):
            for member in statement.body:
                if isinstance(member, ast.AnnAssign) and isinstance(member.target, ast.Name):
                    assert f"{module}.{name}.{member.target.id}" in inventory


def test_every_attribute_of_a_context_is_in_the_reference(inventory: Inventory) -> None:
    context = EvaluationContext((np.zeros((1, 1)),), {"price": 0})
    told = f"{expression_evaluator.__name__}.EvaluationContext"
    assert [name for name in vars(context) if f"{told}.{name}" not in inventory] == []


def test_every_member_of_a_class_is_in_the_reference(inventory: Inventory) -> None:
    names: dict[type, list[str]] = {}
    for told, kind in own_classes(inventory).items():
        names.setdefault(kind, []).append(told)
    assert len(names) > 100
    assert [
        f"{told[0]}.{member}"
        for kind, told in names.items()
        for member in {*vars(kind), *vars(kind).get("__annotations__", ())}
        if not member.startswith("_") and not any(f"{one}.{member}" in inventory for one in told)
    ] == []


def imported_on_pages() -> Iterator[tuple[str, str]]:
    for page in [ROOT / "README.md", *ROOT.glob("*/README.md"), *ROOT.glob("docs/**/*.md")]:
        for block in re.findall(r"^```python\n(.*?)^```$", page.read_text("utf-8"), re.M | re.S):
            for statement in ast.walk(ast.parse(block)):
                if isinstance(statement, ast.ImportFrom) and statement.module:
                    for name in statement.names:
                        yield statement.module, name.name


def test_what_pages_import_is_in_the_reference(inventory: Inventory, sections: Inventory) -> None:
    imported = {(module, name) for module, name in imported_on_pages() if "quernbrook" in module}
    assert len(imported) > 30
    lost = []
    for module, name in sorted(imported):
        whole = f"{module}.{name}"
        if isinstance(found(whole), ModuleType):
            is_there = whole in sections
        else:
            is_there = is_told(inventory, import_module(module), name)
        if not is_there:
            lost.append(whole)
    assert lost == []


def test_arguments_stand_in_the_signatures(inventory: Inventory, site: Path) -> None:
    pages: dict[str, BeautifulSoup] = {}
    checked = 0
    for name, place in inventory.items():
        value = found(name)
        if not inspect.isroutine(value) and not isinstance(value, type):
            continue
        try:
            arguments = [
                one for one in inspect.signature(value).parameters if one not in ("self", "cls")
            ]
        except (TypeError, ValueError):  # only the docstring of such a type has its arguments
            continue
        page, _, fragment = place.partition("#")
        if page not in pages:
            pages[page] = BeautifulSoup((site / page).read_text("utf-8"), "html.parser")
        entry = pages[page].find(id=fragment)
        if entry is None or entry.name != "dt" or issubclass_of_enum(value):
            continue
        shown = re.findall(r"\w+", entry.get_text())
        assert [one for one in arguments if one not in shown] == [], name
        checked += len(arguments)
    assert checked > 300


def issubclass_of_enum(value: Any) -> bool:
    return isinstance(value, type) and any(base.__name__ == "Enum" for base in value.__mro__)


def text_of(page: Path) -> str:
    return BeautifulSoup(page.read_text("utf-8"), "html.parser").get_text()


def test_errors_in_the_reference_stand_on_the_page_of_errors(
    inventory: Inventory, site: Path
) -> None:
    errors = {
        kind.__name__ for kind in own_classes(inventory).values() if issubclass(kind, Exception)
    }
    assert {"SchemaError", "FormulaError", "SweepError"} < errors
    text = text_of(site / "errors.html")
    assert [name for name in sorted(errors) if name not in text] == []


def test_log_events_stand_on_the_page_of_errors(site: Path) -> None:
    files = [
        path for folder in SOURCES for path in folder.rglob("*") if path.suffix in {".cpp", ".py"}
    ]
    texts = {path: path.read_text("utf-8") for path in files}
    events = {
        event
        for text in texts.values()
        for event in re.findall(r'"(expression_evaluator\.[a-z_]+)"', text)
    }
    text = text_of(site / "errors.html")
    assert events and all(event in text for event in events)
    # Events of others would have to be looked for, too.
    loggers = [
        path for path, text in texts.items() if re.search(r"import (logging|structlog)", text)
    ]
    assert loggers == []


def test_options_of_the_command_line_are_in_the_reference(site: Path) -> None:
    text = text_of(site / "reference" / "command_line.html")
    program: Any = typer.main.get_command(application)
    assert len(program.commands) > 5
    for name, command in program.commands.items():
        assert f"quernbrook {name} --help" in text
        for parameter in command.params:
            is_option = parameter.param_type_name == "option"
            shown = parameter.opts if is_option else [parameter.metavar or parameter.name.upper()]
            assert [one for one in shown if one not in text] == [], name
