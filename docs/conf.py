"""Configuration of Sphinx. The compiled module must be importable: the reference reads it."""

from __future__ import annotations

import re
from typing import Any

from sphinx.application import Sphinx

project = "quernbrook-expression-evaluator"
html_title = "Expression evaluator"

# myst_nb reads the other pages, too, with myst_parser.
extensions = ["myst_nb", "sphinx.ext.autodoc", "sphinx.ext.napoleon"]
html_theme = "furo"

# Notebooks are kept without outputs and run when the pages are built, wherever they write to.
nb_execution_mode = "force"
nb_execution_in_temp = True
nb_execution_raise_on_error = True

# So that pages can link to each other's headings, errors among them.
myst_heading_anchors = 3

autodoc_member_order = "bysource"
autodoc_default_options = {"members": True}
# The types in the docstrings are prose ("dict of str to int") and not names to link.
napoleon_use_param = False


def list_fields(
    app: Sphinx, what: str, name: str, obj: Any, options: Any, lines: list[str]
) -> None:
    """Let napoleon see the fields that a class's docstring lists as "name: text" lines."""
    first = next((i for i, line in enumerate(lines) if re.match(r"\w+: ", line)), None)
    if what == "class" and first is not None:
        lines[first:] = ["Attributes:", *(f"    {line}" for line in lines[first:])]


def setup(app: Sphinx) -> None:
    # Ahead of napoleon, whose priority is 500.
    app.connect("autodoc-process-docstring", list_fields, priority=400)
