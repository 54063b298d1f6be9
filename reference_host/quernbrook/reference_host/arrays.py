"""The arrays that functions work on."""

import numpy as np
from numpy.typing import NDArray

# float64, one value for each column (N_alloc) or each signal (A).
Row = NDArray[np.float64]

# float64, a row of values for each time step of a window or each signal of a reduction.
Block = NDArray[np.float64]
