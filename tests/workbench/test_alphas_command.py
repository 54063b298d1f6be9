"""The command over all formulas, and what it measures."""

from __future__ import annotations

import math
import re
from pathlib import Path

import numpy as np
import pandas as pd
import pytest
from quernbrook.workbench.alphas import measures
from quernbrook.workbench.alphas.__main__ import main
from quernbrook.workbench.panels import synthetic_panel, write_panel
from quernbrook.workbench.seeing.measures import correlations

NAN = math.nan


@pytest.fixture(scope="module")
def data(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("data")
    write_panel(synthetic_panel(6, 30), folder)
    return folder


def test_all_values_and_a_picture_are_written(
    data: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    out = tmp_path / "deep" / "folder"
    assert main(["--data", str(data), "--out", str(out)]) == 0
    names = {f"alpha{number:03}.parquet" for number in range(1, 102)}
    assert {file.name for file in out.iterdir()} == names | {"alphas.png"}
    values = pd.read_parquet(out / "alpha101.parquet")
    panel = synthetic_panel(6, 30)
    fields = {name: panel.frame(matrix) for name, matrix in panel.fields.items()}
    reach = fields["high"] - fields["low"] + 0.001
    pd.testing.assert_frame_equal(
        values, (fields["close"] - fields["open"]) / reach, check_freq=False
    )
    assert (out / "alphas.png").read_bytes().startswith(b"\x89PNG")
    shown = capsys.readouterr().out
    assert "101 formulas over 30 days of 6 shares" in shown
    cells = [re.split(r"\s*│\s*", line.strip("│ \n")) for line in shown.splitlines() if "│" in line]
    assert [row[0] for row in cells] == [*map(str, range(1, 102)), "all"]
    assert float(cells[100][2]) == pytest.approx(values.notna().to_numpy().mean(), abs=6e-4)


def test_faulty_data_end_in_one_sentence(
    tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    assert main(["--data", str(tmp_path / "absent")]) == 2
    assert capsys.readouterr().err == f"alphas: there is no folder {tmp_path / 'absent'}\n"


def test_a_folder_that_cannot_be_written_ends_in_one_sentence(
    data: Path, tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    (tmp_path / "file").touch()
    assert main(["--data", str(data), "--out", str(tmp_path / "file")]) == 2
    assert capsys.readouterr().err == f"alphas: {tmp_path / 'file'} can't be written: File exists\n"


def test_correlations_with_the_others() -> None:
    held = [np.array([[0.5, -0.5]]), np.array([[-0.5, 0.5]]), np.zeros((1, 2))]
    matrix = correlations(held)
    np.testing.assert_allclose(matrix[:2, :2], [[1.0, -1.0], [-1.0, 1.0]])
    assert np.isnan(matrix[2]).all()
    means = measures.mean_absolute_correlations(matrix)
    np.testing.assert_allclose(means, [1.0, 1.0, NAN])


@pytest.mark.parametrize(("days", "kept"), [(1, 1), (250, 250), (251, 126), (2000, 250)])
def test_correlations_are_taken_over_a_sample_of_days(days: int, kept: int) -> None:
    assert len(range(days)[measures.correlated_days(days)]) == kept
