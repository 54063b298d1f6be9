"""A sweep in a process of its own, to be killed: python -m support.sweep_driver OUT COUNT"""

from __future__ import annotations

import sys

from quernbrook.workbench.sweeps import SweepError, sweep
from support.sweeps import REGISTRY, SLOW_FORMULA, make_panel, make_runs

if __name__ == "__main__":
    try:
        report = sweep(
            make_runs(int(sys.argv[2]), SLOW_FORMULA),
            make_panel(),
            out=sys.argv[1],
            workers=2,
            registry=REGISTRY,
        )
    except SweepError as error:
        sys.exit(str(error))
    print(report)
