"""Labels of a panel: dates that increase, symbols that stand once."""

from __future__ import annotations

import re
from datetime import date, tzinfo
from typing import TypeAlias

import numpy as np
import pandas as pd

Date: TypeAlias = str | date | np.datetime64
"""A date as a caller gives it; texts are ISO 8601."""

_EXAMPLE = "write dates as 2024-01-31"
_OFFSET = re.compile(r"[T ].*(Z|[+-]\d\d(?::?\d\d)?)$", re.IGNORECASE)


class PanelError(ValueError):
    """Data that make no panel; the message names the field, and the date or symbol at fault."""


def as_dates(what: str, place: str, labels: pd.Index) -> pd.DatetimeIndex:
    """Return labels as dates in nanoseconds, in their order, each as often as it stands there.

    Datetimes, `datetime.date` and texts in ISO 8601 are dates. `what` and `place` begin the
    messages: "field 'close'" and "the index".

    Raises PanelError for anything else, a missing date, texts or objects of several time zones,
    and dates that nanoseconds don't reach (before 1677, after 2262).
    """
    dates = _converted(what, place, labels)
    _require_none_missing(what, dates)
    if dates.unit == "ns":
        return dates
    try:
        return dates.as_unit("ns")
    except pd.errors.OutOfBoundsDatetime as error:
        raise PanelError(f"{what}: {error}") from error


def require_increasing(what: str, dates: pd.DatetimeIndex) -> None:
    _require_single(what, "date", dates)
    if not dates.is_monotonic_increasing:
        place = int(np.argmax(dates[1:] < dates[:-1])) + 1
        raise PanelError(
            f"{what}: the dates must increase; {dates[place]} follows {dates[place - 1]}"
        )


def require_symbols(what: str, symbols: pd.Index) -> None:
    if symbols.nlevels > 1:
        raise PanelError(f"{what}: symbols have one level; these columns have {symbols.nlevels}")
    if symbols.hasnans:
        raise PanelError(f"{what}: column {int(np.argmax(symbols.isna()))} has no symbol")
    _require_single(what, "symbol", symbols)


def require_same_dates(
    what: str, dates: pd.DatetimeIndex, other: str, expected: pd.DatetimeIndex
) -> None:
    if str(dates.tz) != str(expected.tz):
        raise PanelError(
            f"{what} has dates {zone(dates.tz)}, {other} {zone(expected.tz)}; "
            "bring both to one with tz_localize or tz_convert"
        )
    # One zone may be two objects, of zoneinfo and of another library.
    _require_same(
        "date", what, dates.tz_convert(expected.tz) if dates.tz else dates, other, expected
    )


def require_same_symbols(what: str, symbols: pd.Index, other: str, expected: pd.Index) -> None:
    _require_same("symbol", what, symbols, other, expected)


def as_date(value: Date, expected: tzinfo | None) -> pd.Timestamp:
    """Return one date, to be compared with dates in the time zone `expected`, or with none.

    Raises PanelError for what is no date and for one with a time zone where the others have none
    or the other way round.
    """
    if not isinstance(value, str | date | np.datetime64):
        raise PanelError(f"{value!r} is no date; {_EXAMPLE}")
    try:
        found = (
            pd.to_datetime(value, format="ISO8601")
            if isinstance(value, str)
            else pd.Timestamp(value)
        )
        # Years that nanoseconds don't reach raise here.
        found = found.as_unit("ns")
    except ValueError as error:
        raise PanelError(f"{value!r} is no date; {_EXAMPLE}") from error
    if not isinstance(found, pd.Timestamp):
        raise PanelError(f"{value!r} is no date; {_EXAMPLE}")
    if (found.tz is None) != (expected is None):
        raise PanelError(
            f"the date {found} stands {zone(found.tz)}, those of the panel {zone(expected)}"
        )
    return found


def zone(found: tzinfo | None) -> str:
    return "without a time zone" if found is None else f"in the time zone {found}"


def _converted(what: str, place: str, labels: pd.Index) -> pd.DatetimeIndex:
    if isinstance(labels, pd.DatetimeIndex):
        return labels
    if pd.api.types.is_datetime64_any_dtype(labels.dtype):
        return pd.DatetimeIndex(labels)
    # To pandas, labels of the type "str" are texts, also where there are none.
    kind = pd.api.types.infer_dtype(labels, skipna=True) if len(labels) else "empty"
    if kind not in ("string", "date", "datetime", "datetime64"):
        holds = kind if labels.dtype == object or kind == "empty" else labels.dtype
        raise PanelError(f"{what}: {place} must hold dates; it holds {holds}")
    _require_none_missing(what, labels)
    # A long table has each date many times.
    codes, unique = pd.factorize(labels)
    if len({_offset(label) for label in unique}) > 1:
        raise PanelError(
            f"{what}: {place} has dates in several time zones, or some without; write all in UTC"
        )
    dates = pd.DatetimeIndex(pd.to_datetime(unique, format="ISO8601", errors="coerce"))
    # From pandas 3 on, units of dates other than nanoseconds reach further.
    dates = pd.DatetimeIndex(dates.where((dates.year >= 1678) & (dates.year <= 2261)))
    if dates.hasnans:
        row = int(np.argmax(dates.isna()[codes]))
        found = f"{str(labels[row])!r} in row {row} is none from 1678 to 2261"
        raise PanelError(f"{what}: {place} must hold dates: {found}; {_EXAMPLE}")
    return dates.take(codes).rename(labels.name)


def _offset(label: object) -> str | None:
    """The offset from UTC at the end of a text, or a datetime's time zone."""
    if isinstance(label, str):
        found = _OFFSET.search(label)
        return found and found[1]
    zone = getattr(label, "tzinfo", None)
    return None if zone is None else str(zone)


def _require_none_missing(what: str, dates: pd.Index) -> None:
    if dates.hasnans:
        raise PanelError(f"{what}: row {int(np.argmax(dates.isna()))} has no date")


def _require_single(what: str, kind: str, labels: pd.Index) -> None:
    if not labels.is_unique:
        twice = labels[labels.duplicated()][0]
        raise PanelError(f"{what}: the {kind} {twice} stands there twice")


def _require_same(kind: str, what: str, labels: pd.Index, other: str, expected: pd.Index) -> None:
    for lacking, having, missing in (
        (what, other, expected.difference(labels, sort=False)),
        (other, what, labels.difference(expected, sort=False)),
    ):
        if len(missing):
            owner = having.removeprefix("field ")
            raise PanelError(f"{lacking} lacks the {kind} {missing[0]}, which {owner} has")
