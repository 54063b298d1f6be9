"""Reading prices: what is taken, and the sentence for what isn't."""

from __future__ import annotations

import gzip
from pathlib import Path

import numpy as np
import prices
import pytest

HEADER = "Date,AA,BB\n"
FIRST = "2020-01-02,1.5,2\n"


def write(tmp_path: Path, text: str) -> Path:
    path = tmp_path / "prices.csv"
    path.write_text(text, encoding="utf-8")
    return path


def test_rows_and_columns_are_taken_as_they_stand(tmp_path: Path) -> None:
    loaded = prices.load(write(tmp_path, HEADER + FIRST + "2020-01-03,1.25,4\n"))
    assert loaded.tickers == ("AA", "BB")
    assert loaded.dates.tolist() == np.array(["2020-01-02", "2020-01-03"], "datetime64[D]").tolist()
    assert loaded.values.tolist() == [[1.5, 2.0], [1.25, 4.0]]


def test_the_date_may_stand_in_any_column(tmp_path: Path) -> None:
    loaded = prices.load(write(tmp_path, "AA,Date,BB\n1.5,2020-01-02,2\n"))
    assert loaded.tickers == ("AA", "BB")
    assert loaded.values.tolist() == [[1.5, 2.0]]


def test_a_share_may_be_listed_later(tmp_path: Path) -> None:
    loaded = prices.load(write(tmp_path, HEADER + "2020-01-02,1.5,\n2020-01-03,1.5,7\n"))
    assert np.isnan(loaded.values[0, 1])
    assert loaded.values[1, 1] == 7.0


def test_a_gzipped_file_is_read(tmp_path: Path) -> None:
    path = tmp_path / "prices.csv.gz"
    path.write_bytes(gzip.compress((HEADER + FIRST).encode(), mtime=0))
    assert prices.load(path).values.tolist() == [[1.5, 2.0]]


@pytest.mark.parametrize(
    ("text", "fault"),
    [
        ("", ", line 1: there is no column 'Date' in ''."),
        ("Day,AA,BB\n", ", line 1: there is no column 'Date' in 'Day,AA,BB'."),
        ("Date,AA\n", ", line 1: 'Date,AA' names fewer than two shares to choose from."),
        ("Date,AA,AA\n", ", line 1: a column 'AA' stands there twice."),
        ("Date,Date,AA,BB\n", ", line 1: a column 'Date' stands there twice."),
        ("Date,,BB\n", ", line 1: a column '' has no name."),
        (HEADER, ", line 1: no day of prices follows the header."),
        (HEADER + "2020-01-02,1\n", ", line 2: 2 cells, but the header has 3."),
        (HEADER + "02.01.2020,1,2\n", ", line 2: '02.01.2020' is no date like 1990-01-02."),
        (HEADER + "2020-02-30,1,2\n", ", line 2: '2020-02-30' is no date like 1990-01-02."),
        (HEADER + FIRST + FIRST, ", line 3: the date 2020-01-02 doesn't come after 2020-01-02."),
        (
            HEADER + FIRST + "2020-01-01,1,2\n",
            ", line 3: the date 2020-01-01 doesn't come after 2020-01-02.",
        ),
        (HEADER + "2020-01-02,1,dear\n", ", line 2: the price 'dear' of BB is no number."),
        (HEADER + FIRST + "2020-01-03,,2\n", ", line 3: the price '' of AA is no number."),
        (HEADER + "2020-01-02,0,2\n", ", line 2: the price '0' of AA isn't positive and finite."),
        (HEADER + "2020-01-02,1,-2\n", ", line 2: the price '-2' of BB isn't positive and finite."),
        (
            HEADER + "2020-01-02,nan,2\n",
            ", line 2: the price 'nan' of AA isn't positive and finite.",
        ),
        (
            HEADER + "2020-01-02,inf,2\n",
            ", line 2: the price 'inf' of AA isn't positive and finite.",
        ),
    ],
)
def test_a_faulty_file_is_told_in_one_sentence(tmp_path: Path, text: str, fault: str) -> None:
    path = write(tmp_path, text)
    with pytest.raises(prices.PriceFileError) as raised:
        prices.load(path)
    assert str(raised.value) == f"{path}{fault}"


@pytest.mark.parametrize(
    ("name", "content"),
    [
        ("cut.csv.gz", gzip.compress((HEADER + FIRST).encode(), mtime=0)[:-12]),
        ("plain.csv.gz", (HEADER + FIRST).encode()),
        ("bytes.csv", b"Date,AA,BB\n\xff\xfe\n"),
    ],
)
def test_an_unreadable_file_is_named(tmp_path: Path, name: str, content: bytes) -> None:
    path = tmp_path / name
    path.write_bytes(content)
    with pytest.raises(prices.PriceFileError) as raised:
        prices.load(path)
    assert str(raised.value).startswith(f"{path} can't be read as prices: ")


def test_a_missing_file_and_a_folder_are_named(tmp_path: Path) -> None:
    for path, reason in (
        (tmp_path / "none.csv", "No such file or directory"),
        (tmp_path, "Is a directory"),
    ):
        with pytest.raises(prices.PriceFileError) as raised:
            prices.load(path)
        assert str(raised.value) == f"{path} can't be read as prices: {reason}."
