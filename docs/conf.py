"""Configuration of Sphinx. The compiled modules must be importable: the reference reads them."""

from __future__ import annotations

import sys
from pathlib import Path
from typing import Any

from sphinx.application import Sphinx

DOCS = Path(__file__).parent
sys.path.insert(0, str(DOCS / "sphinx_extensions"))

project = "quernbrook-expression-evaluator"
html_title = "Expression evaluator"

extensions = [
    # Reads the other pages, too, with myst_parser.
    "myst_nb",
    "sphinx.ext.autodoc",
    "sphinx.ext.napoleon",
    # Shows the help of the command line.
    "sphinxcontrib.programoutput",
    "docstring_fields",
    "stub_types",
]
exclude_patterns = ["sphinx_extensions"]
html_theme = "furo"
html_static_path = ["static"]
html_favicon = "static/favicon.svg"
html_css_files = ["site.css"]

# Notebooks are kept without outputs and run when the pages are built, wherever they write to.
nb_execution_mode = "force"
nb_execution_in_temp = True
nb_execution_raise_on_error = True

# So that pages can link to each other's headings, errors among them.
myst_heading_anchors = 3

# Docstrings have names in single backquotes.
default_role = "literal"

autodoc_member_order = "bysource"
autodoc_default_options = {"members": True, "undoc-members": True}
# Arguments are often told of with the constructor.
autoclass_content = "both"
autodoc_typehints_format = "short"
# Longer ones get a line for each argument.
python_maximum_signature_line_length = 90
# The types in the docstrings are prose ("dict of str to int") and not names to link.
napoleon_use_param = False
napoleon_use_rtype = False

stub_file = DOCS.parent / "simulator_engine/expression_evaluator/__init__.pyi"
stub_module = "quernbrook.simulator_engine.expression_evaluator"

nitpicky = True
# The site is built without network, so that the inventories of other projects are out of reach.
nitpick_ignore_regex = [
    (
        "py:.*",
        r"(abc|bokeh|collections|contextlib|datetime|enum|json|matplotlib|np|npt|numpy|os|pandas|"
        r"pathlib|pd|pyarrow|rich|structlog|typing|typing_extensions)\..+",
    )
]
nitpick_ignore = [
    ("py:class", name)
    for name in (
        # Of other projects, too, imported for type checkers alone and so never found by full name.
        *("AbstractContextManager", "Group", "NDArray", "Self", "Unpack"),
        # What only type checkers see: any object with the attributes of a context.
        "_Context",
        # Of the workbench's own, for nobody else to make.
        "quernbrook.workbench.explanation.inputs.Inputs",
    )
]


def resolve_alias(app: Sphinx, env: Any, node: Any, content: Any) -> Any:
    """Annotations name aliases of types, too, where Sphinx looks for classes alone."""
    if (node.get("refdomain"), node.get("reftype")) != ("py", "class"):
        return None
    place, target = node["refdoc"], node["reftarget"]
    return env.get_domain("py").resolve_xref(env, place, app.builder, "type", target, node, content)


def setup(app: Sphinx) -> None:
    app.connect("missing-reference", resolve_alias)
