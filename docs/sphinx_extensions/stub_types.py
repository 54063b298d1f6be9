"""Signatures and attributes of the compiled module, with the types that stand in its stub."""

from __future__ import annotations

import ast
import re
from pathlib import Path
from typing import Any

from sphinx.application import Sphinx

NUMPYDOC_ATTRIBUTES = re.compile(r"\nAttributes\n-+\n((?:\S.*\n(?: +.*\n)+)+)")
NUMPYDOC_ENTRY = re.compile(r"(\w+) : .*\n((?: +.*\n)+)")

Signature = tuple[str, str]


class Aliases(ast.NodeTransformer):
    """Puts types in the place of the names that the stub has for them, as `_Matrix`."""

    def __init__(self, tree: ast.Module) -> None:
        self.types = {
            statement.targets[0].id: statement.value
            for statement in tree.body
            if isinstance(statement, ast.Assign) and isinstance(statement.targets[0], ast.Name)
        }

    def visit_Name(self, node: ast.Name) -> ast.expr:
        return node if isinstance(node.ctx, ast.Store) else self.types.get(node.id, node)


class Stub:
    """What a stub says of each name of its module."""

    def __init__(self, module: str, file: Path) -> None:
        self.signatures: dict[str, Signature] = {}
        #: The types of the attributes of each class.
        self.attributes: dict[str, dict[str, str]] = {}
        tree = ast.parse(file.read_text("utf-8"))
        for statement in Aliases(tree).visit(tree).body:
            if isinstance(statement, ast.FunctionDef):
                self.signatures[f"{module}.{statement.name}"] = signature_of(statement)
            elif isinstance(statement, ast.ClassDef):
                self._take(f"{module}.{statement.name}", statement)

    def _take(self, name: str, statement: ast.ClassDef) -> None:
        self.attributes[name] = {
            member.target.id: ast.unparse(member.annotation)
            for member in statement.body
            if isinstance(member, ast.AnnAssign) and isinstance(member.target, ast.Name)
        }
        for member in statement.body:
            if isinstance(member, ast.FunctionDef):
                arguments, returned = signature_of(member)
                if member.name == "__init__":
                    self.signatures[name] = (arguments, "")
                self.signatures[f"{name}.{member.name}"] = (arguments, returned)


def signature_of(function: ast.FunctionDef) -> Signature:
    arguments = function.args
    if arguments.args and arguments.args[0].arg in ("self", "cls"):
        arguments.args.pop(0)
    return f"({ast.unparse(arguments)})", ast.unparse(function.returns or ast.Constant(None))


def setup(app: Sphinx) -> dict[str, bool]:
    app.add_config_value("stub_module", "", "env")
    app.add_config_value("stub_file", None, "env", types=[type(Path())])

    def read(app: Sphinx) -> None:
        stub = Stub(app.config.stub_module, app.config.stub_file)

        def sign(
            app: Sphinx, what: str, name: str, obj: Any, options: Any, *known: Any
        ) -> Signature | None:
            return stub.signatures.get(name)

        def add_attributes(
            app: Sphinx, what: str, name: str, obj: Any, options: Any, lines: list[str]
        ) -> None:
            if name not in stub.attributes:
                return
            text = "\n".join(lines) + "\n"
            entries = NUMPYDOC_ATTRIBUTES.search(text)
            told = NUMPYDOC_ENTRY.findall(entries[1] if entries else "")
            texts = {attribute: told_lines.splitlines() for attribute, told_lines in told}
            lines[:] = NUMPYDOC_ATTRIBUTES.sub("", text).splitlines()
            for attribute, kind in stub.attributes[name].items():
                lines += ["", f".. attribute:: {attribute}", f"   :type: {kind}", ""]
                lines += [f"   {line.strip()}" for line in texts.get(attribute, [])]

        app.connect("autodoc-process-signature", sign)
        app.connect("autodoc-process-docstring", add_attributes, priority=400)

    app.connect("builder-inited", read)
    return {"parallel_read_safe": False}
