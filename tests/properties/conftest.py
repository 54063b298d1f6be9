"""How many examples the property tests try; `HYPOTHESIS_PROFILE` chooses."""

from __future__ import annotations

import os

from hypothesis import HealthCheck, settings

# The evaluator fixture is one module for all examples.
_COMMON = {
    "deadline": None,
    "print_blob": True,
    "suppress_health_check": [HealthCheck.function_scoped_fixture, HealthCheck.too_slow],
}
settings.register_profile("quick", max_examples=200, **_COMMON)
settings.register_profile("long", max_examples=20_000, **_COMMON)
settings.load_profile(os.environ.get("HYPOTHESIS_PROFILE", "quick"))
