"""How many examples the property tests try; `HYPOTHESIS_PROFILE` chooses."""

from __future__ import annotations

import os

import pytest
from hypothesis import HealthCheck, settings

_COMMON = settings(
    deadline=None,
    print_blob=True,
    # The evaluator fixture is one module for all examples.
    suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow],
)
# For each of the 13 tests: 520 and 26,000 examples in all.
settings.register_profile("quick", _COMMON, max_examples=40)
settings.register_profile("long", _COMMON, max_examples=2_000)
_PROFILE = os.environ.get("HYPOTHESIS_PROFILE", "quick")
settings.load_profile(_PROFILE)


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    if _PROFILE == "long":
        for item in items:
            item.add_marker(pytest.mark.processor_time(0))
            item.add_marker(pytest.mark.timeout(0))
