"""Print the real path of the interpreter that runs this, or say why it can't build the project.

Any Python may be asked, an old one too: keep the syntax to what they all read.
"""

import os
import platform
import sys

if platform.python_implementation() != "CPython" or not (3, 10) <= sys.version_info[:2] <= (3, 13):
    sys.exit("it is " + platform.python_implementation() + " " + platform.python_version())
try:
    import ensurepip  # noqa: F401  (Debian ships the interpreter without it)
    import sysconfig
    import venv  # noqa: F401
except ImportError as error:
    sys.exit(str(error))
if sysconfig.get_config_var("Py_GIL_DISABLED"):
    sys.exit("it is a free-threaded build")
header = os.path.join(sysconfig.get_path("include"), "Python.h")
if not os.path.isfile(header):
    sys.exit("its development headers are missing: no " + header)

# In a virtual environment, the interpreter it was made from.
print(os.path.realpath(getattr(sys, "_base_executable", sys.executable)))
