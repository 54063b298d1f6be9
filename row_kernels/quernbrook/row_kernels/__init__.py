"""Functions of the evaluator's graphs in machine code, each a type of its own.

`FUNCTIONS` maps the registered name of a function to its type, "numerical_add" to `NumericalAdd`.
What a type computes, and what it makes of NaN, stands in its docstring. An instance is what a
registry or a caller binds::

    scale = FUNCTIONS["latitudinal_scale"](total=2.0)
    row = scale(np.array([1.0, -3.0]))

It does what the plain definition of the same name in quernbrook.reference_host does, and states
move between the two. It also offers the evaluator a row kernel, so that graphs of such functions
run without the interpreter.
"""

from quernbrook.row_kernels import _kernels
from quernbrook.row_kernels._kernels import *  # noqa: F403
from quernbrook.row_kernels.states import SavedState as SavedState

FUNCTIONS: dict[str, type] = {
    kind.name: kind
    for kind in vars(_kernels).values()
    if isinstance(kind, type) and hasattr(kind, "name")
}
for _kind in FUNCTIONS.values():
    # What pickles name them by.
    _kind.__module__ = __name__
