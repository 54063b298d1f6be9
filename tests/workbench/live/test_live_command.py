"""`quernbrook live`: what it takes, refuses and leaves."""

from __future__ import annotations

import json
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

import numpy as np
import pandas as pd
import pyarrow as pa
import pyarrow.parquet as pq
import pytest
from pyarrow import csv
from quernbrook.workbench import parse_formula
from quernbrook.workbench.command_line.application import application
from quernbrook.workbench.command_line.commands import live as command_module
from quernbrook.workbench.live import LiveError, LiveRun, OutputFolder, read_weights
from quernbrook.workbench.live import output as output_module
from quernbrook.workbench.panels import Panel, synthetic_panel, write_panel
from typer.testing import CliRunner

from .days import day_table, require_same_bits, whole_run, write_day, write_days

FORMULA = "ts_rank(close, 4) * volume"
GRAPH = parse_formula(FORMULA)
PROGRAM = [sys.executable, "-m", "quernbrook.workbench", "live", FORMULA, "--out", "out"]


@pytest.fixture
def panel() -> Panel:
    return synthetic_panel(5, 12, seed=4)


@pytest.fixture(autouse=True)
def days(panel: Panel, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    monkeypatch.chdir(tmp_path)
    write_days(panel, Path("in"))
    return Path("in")


def live(*arguments: str, graph: str = FORMULA) -> tuple[int, str, str]:
    """The exit code, what was printed, and the errors, of a run over what is there."""
    command = ["live", graph, "--in", "in", "--out", "out", "--once", *arguments]
    result = CliRunner().invoke(application, command)
    if result.exception is not None and not isinstance(result.exception, SystemExit):
        raise result.exception
    return result.exit_code, result.stdout, result.stderr


def require_fault(found: tuple[int, str, str], told: str) -> None:
    code, _, errors = found
    assert errors == f"quernbrook: {told}\n"
    assert code == 2


def line(panel: Panel, row: int) -> bytes:
    table = day_table(panel, row)
    fields = {name: [None if np.isnan(x) else x for x in table[name]] for name in table}
    day = {"date": str(panel.dates[row].date()), "symbol": list(table.index), **fields}
    return json.dumps(day).encode() + b"\n"


def send(lines: bytes) -> tuple[int, str, str]:
    """The same over lines on the standard input."""
    Path("lines").write_bytes(lines)
    with Path("lines").open("rb") as file, pytest.MonkeyPatch.context() as patch:
        patch.setattr(f"{command_module.__name__}._STANDARD_INPUT", file.fileno())
        return live("--in", "-")


def test_days_of_a_folder(panel: Panel) -> None:
    code, printed, errors = live()
    files = [f"out/weights-{date.date()}.parquet" for date in panel.dates]
    assert (code, printed.splitlines(), errors) == (0, files, "")
    assert sorted(os.listdir("out")) == ["states.checkpoint", *map(os.path.basename, files)]
    require_same_bits(read_weights("out"), whole_run(GRAPH, panel))
    assert live() == (0, "", "")


@pytest.mark.parametrize("suffix", ["csv", "csv.gz"])
def test_csv_files(suffix: str, panel: Panel) -> None:
    for path in Path("in").iterdir():
        path.unlink()
    write_days(panel, Path("in"), suffix)
    assert live()[0] == 0
    require_same_bits(read_weights("out"), whole_run(GRAPH, panel))


def test_files_that_come_later(panel: Panel) -> None:
    Path("later").mkdir()
    late = sorted(Path("in").iterdir())[7:]
    for path in late:
        path.rename(Path("later") / path.name)
    assert len(live()[1].splitlines()) == 7
    with subprocess.Popen(
        [*PROGRAM, "--in", "in", "--poll", "0.02"], stdout=subprocess.PIPE, text=True
    ) as process:
        assert process.stdout is not None
        for path in late:
            (Path("in") / ".unfinished").write_text("half")
            (Path("in") / f"{path.name}.tmp").write_text("half")
            (Path("later") / path.name).rename(path)
            assert process.stdout.readline() == f"out/weights-{path.name}\n"
        process.send_signal(signal.SIGTERM)
        assert process.wait(30) == 0
    require_same_bits(read_weights("out"), whole_run(GRAPH, panel))


@pytest.mark.parametrize(("source", "number"), [("in", signal.SIGINT), ("-", signal.SIGTERM)])
def test_an_end_that_is_asked_for(source: str, number: signal.Signals, panel: Panel) -> None:
    with subprocess.Popen(
        [*PROGRAM, "--in", source, "--poll", "1000"],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    ) as process:
        assert process.stdin is not None and process.stdout is not None
        if source == "-":
            process.stdin.write(b"".join(line(panel, row) for row in range(len(panel.dates))))
            process.stdin.flush()
        process.stdout.readline()
        process.send_signal(number)
        # The standard input stays open: it is the signal that ends the program.
        process.stdout.read()
        assert process.stderr is not None and process.stderr.read() == b""
        assert process.wait(30) == 0
    assert live()[0] == 0
    require_same_bits(read_weights("out"), whole_run(GRAPH, panel))


def test_lines_of_json(panel: Panel) -> None:
    lines = [line(panel, row) for row in range(len(panel.dates))]
    code, printed, errors = send(b"".join(lines[:5]) + b"\n")
    assert (code, len(printed.splitlines()), errors) == (0, 5, "")
    # All once more, the last without its end.
    code, printed, errors = send(b"".join(lines)[:-1])
    assert (code, len(printed.splitlines()), errors) == (0, len(lines) - 5, "")
    require_same_bits(read_weights("out"), whole_run(GRAPH, panel))


def test_a_line_is_evaluated_when_it_comes(panel: Panel) -> None:
    with subprocess.Popen(
        [*PROGRAM, "--in", "-"], stdin=subprocess.PIPE, stdout=subprocess.PIPE
    ) as process:
        assert process.stdin is not None and process.stdout is not None
        for row in range(3):
            whole = line(panel, row)
            for piece in (whole[:20], whole[20:]):
                process.stdin.write(piece)
                process.stdin.flush()
                time.sleep(0.01)
            path = f"out/weights-{panel.dates[row].date()}.parquet"
            assert process.stdout.readline() == f"{path}\n".encode()
        process.stdin.close()
        assert process.wait(30) == 0


@pytest.mark.parametrize(
    ("text", "told"),
    [
        ('{"date": "2015-01-05", "symbol": ["S0"', "line 2 is no JSON, or cut: Expecting ',' delimiter: line 1 column 39 (char 38); send it whole, and again"),
        ("[1]", "line 2 must be an object with a date, symbols and fields"),
        ('{"date": "2015-01-02"}', "line 2: 2015-01-02 follows 2015-01-02; dates must increase"),
        ('{"date": "2015-01-01"}', "line 2: 2015-01-01 follows 2015-01-02; dates must increase"),
        ('{"date": "2015-02-30"}', "line 2: '2015-02-30' is no day; write days as 2024-01-31"),
        ('{"date": 20150105}', "line 2: 20150105 is no day; write days as 2024-01-31"),
        ('{"date": "2015-01-05"}', "line 2 has no column 'symbol'"),
        ('{"date": "2015-01-05", "symbol": ["S0"], "close": [1, 2]}', "line 2: 'close' has 2 values for 1 symbols"),
        ('{"date": "2015-01-05", "symbol": ["S0"], "close": 1}', "line 2: 'close' must be a list, with a value for each symbol"),
        ('{"date": "2015-01-05", "symbol": ["S0"], "close": ["x"], "volume": [1]}', "line 2: field 'close': 'x' is no number; a missing value is null"),
        ('{"date": "2015-01-05", "symbol": ["S0", 5], "close": [1, 2], "volume": [1, 2]}', "line 2: 5 is no symbol; symbols are texts"),
        (r'{"date": "2015-01-05", "symbol": ["\ud800"], "close": [1], "volume": [1]}', r"line 2: '\ud800' is no symbol; symbols are texts"),
        ('{"date": "2015-01-05", "symbol": ["S0"], "close": [1' + 309 * "0" + '], "volume": [1]}', "line 2: field 'close': 1" + 309 * "0" + " is no number; a missing value is null"),
        ('{"date": "2015-01-05", "symbol": ["S0"], "close": [1], "volume": [1], "close": [2]}', "line 2: 'close' stands there twice"),
        ("[" * 100_000, "line 2 is no JSON, or cut: maximum recursion depth exceeded while decoding a JSON array from a unicode string; send it whole, and again"),
        ('{"date": "2015-01-05", "symbol": ["S0"], "close": [1], "volume": [1]}', "2015-01-05: the symbol S1 is missing; give it a row with empty values"),
    ],
)  # fmt: skip
def test_lines_that_are_refused(text: str, told: str, panel: Panel) -> None:
    code, printed, errors = send(line(panel, 0) + text.encode() + b"\n")
    assert errors == f"quernbrook: {told}\n"
    assert (code, len(printed.splitlines())) == (2, 1)
    # Nothing is lost: the right line takes its place.
    send(b"".join(line(panel, row) for row in range(2)))
    require_same_bits(read_weights("out"), whole_run(GRAPH, panel.until(panel.dates[1])))


def test_history(panel: Panel) -> None:
    # It may reach into the days, which are then behind the run.
    write_panel(panel.until(panel.dates[5]), Path("past"))
    code, printed, _ = live("--history", "past")
    assert (code, len(printed.splitlines())) == (0, 6)
    expected = whole_run(GRAPH, panel).iloc[6:]
    require_same_bits(read_weights("out"), expected)
    assert live("--history", "past") == (0, "", "")


def test_universe(panel: Panel) -> None:
    assert live("--universe", "subindustry")[0] == 0
    inside = panel.with_universe(panel.frame(panel.fields["subindustry"] != 0.0))
    require_same_bits(read_weights("out"), whole_run(GRAPH, inside))
    require_fault(
        live(),
        "out was begun with another universe, subindustry: go on with that one, or begin with None "
        "in another output folder",
    )


def test_files_that_are_refused(panel: Panel) -> None:
    last = sorted(Path("in").iterdir())[-1]
    good = last.read_bytes()
    table = day_table(panel, len(panel.dates) - 1)
    date = panel.dates[-1].date()
    doubled = pd.concat([table, table.iloc[:1]])
    for given, told in (
        (table.drop("S3"), f"{date}: the symbol S3 is missing; give it a row with empty values"),
        (
            table.rename({"S3": "S9"}).combine_first(table),
            f"{date}: the symbol S9 is unknown to the run, whose first row lacks it; leave it out, "
            "or begin again in another output folder, with a history that has it",
        ),
        (doubled, f"{last}: the panel: the symbol S1 stands there twice"),
        (table.rename(columns={"close": "clsoe"}), f"{last} has no column 'close'; the nearest is 'clsoe'"),
        (table.assign(close="x"), f"{last}: field 'close' holds no numbers but string"),
        (table.rename_axis(index="code"), f"{last} has no column 'symbol'"),
        (table.set_axis([5, 1, 3, 2, 4]).rename_axis(index="symbol"), f"{last}: symbols must be texts, not int64"),
    ):  # fmt: skip
        write_day(given, last)
        require_fault(live(), told)
        assert not Path(f"out/weights-{date}.parquet").exists()
    for content in (good[:-7], good[:1000], b"", b"PAR1"):
        last.write_bytes(content)
        code, _, errors = live()
        assert code == 2 and errors.count("\n") == 1
        assert errors.startswith(f"quernbrook: {last} can't be read: ")
        assert "write it under a name that begins with a dot" in errors
    last.write_bytes(good)
    assert live()[0] == 0
    require_same_bits(read_weights("out"), whole_run(GRAPH, panel))


def test_compressed_files_that_are_altered(panel: Panel) -> None:
    last = sorted(Path("in").iterdir())[-1]
    last.unlink()
    path = last.with_suffix(".csv.gz")
    write_day(day_table(panel, len(panel.dates) - 1), path)
    whole = path.read_bytes()
    for content in (whole[:-30], whole[:30] + b"x" * 9 + whole[39:], b"date", b""):
        path.write_bytes(content)
        code, _, errors = live()
        assert code == 2 and errors.count("\n") == 1 and str(path) in errors


def test_a_column_that_stands_there_twice(panel: Panel) -> None:
    last = sorted(Path("in").iterdir())[-1]
    last.unlink()
    for suffix in (".csv", ".parquet"):
        path = last.with_suffix(suffix)
        columns = [pa.array(panel.symbols)] + 2 * [pa.array(panel.fields["close"][-1])]
        table = pa.table([*columns, columns[1]], names=["symbol", "close", "close", "volume"])
        writer = pq.write_table if suffix == ".parquet" else csv.write_csv
        writer(table, path)
        require_fault(live(), f"{path} has 2 columns 'close'")
        path.unlink()


def test_a_csv_file_that_is_cut(panel: Panel) -> None:
    last = sorted(Path("in").iterdir())[-1]
    last.unlink()
    path = last.with_suffix(".csv")
    write_day(day_table(panel, len(panel.dates) - 1), path)
    whole = path.read_bytes()
    # Also within the last number, and after a whole line.
    for length in (len(whole) - 1, len(whole) - 3, whole.rindex(b"\nS4") + 1, 20, 0):
        path.write_bytes(whole[:length])
        code, _, errors = live()
        assert code == 2 and errors.count("\n") == 1
    path.write_bytes(whole)
    assert live()[0] == 0
    require_same_bits(read_weights("out"), whole_run(GRAPH, panel))


def test_files_of_the_wrong_days() -> None:
    Path("in/prices.parquet").write_text("")
    require_fault(live(), "in/prices.parquet: 'prices' is no day; write days as 2024-01-31")
    Path("in/prices.parquet").rename("in/README.md")
    require_fault(
        live(),
        "in/README.md: expected a name such as 2024-01-31.parquet or 2024-01-31.csv; names that "
        "begin with a dot or end in .tmp are passed over",
    )
    Path("in/README.md").rename("in/2015-01-05.csv")
    require_fault(
        live(), "in/2015-01-05.parquet: 2015-01-05.csv is of the same date; take one of them away"
    )
    Path("in/2015-01-05.csv").unlink()
    assert live()[0] == 0
    Path("in/2015-01-05.parquet").rename("in/2015-01-04.parquet")
    require_fault(
        live(),
        "in/2015-01-04.parquet comes too late: the run has come to 2015-01-19; take it away to go "
        "on without it, or begin again in another output folder to have it in",
    )
    Path("in/2015-01-04.parquet").unlink()
    assert live() == (0, "", "")


def test_arguments_that_are_refused(panel: Panel) -> None:
    require_fault(
        live(graph="rank(clsoe)"),
        "line 1, column 6: unknown feature 'clsoe'; the nearest is 'close'\n  rank(clsoe)\n       ^",
    )
    require_fault(live("--universe", "univers"), "unknown field 'univers'")
    require_fault(
        live("--history", "no"), "there is no folder no: --history wants a folder as --data does"
    )
    require_fault(live("--in", "no"), "there is no folder no: --in wants a folder of files, or -")
    require_fault(
        live("--out", "no/out"), "no/out can't be the output folder: No such file or directory"
    )
    assert live()[0] == 0
    require_fault(
        live(graph="ts_rank(close, 5)"),
        "out was begun with another graph, ts_rank(close, 4) * volume: go on with that one, or begin "
        "with ts_rank(close, 5) in another output folder",
    )


def test_a_formula_is_read_before_the_first_day_comes() -> None:
    for path in Path("in").iterdir():
        path.unlink()
    code, _, errors = live(graph="rank(close")
    assert code == 2 and errors.startswith("quernbrook: line 1, column 11")


def test_evaluations_that_fail_leave_the_checkpoint(panel: Panel) -> None:
    assert live(graph="numerical_add(close)")[0] == 1
    assert "states.checkpoint" not in os.listdir("out")


def test_two_runs_in_one_folder() -> None:
    with OutputFolder("out"):
        require_fault(live(), "out is in use by another live run: end that, or name another folder")
    assert live()[0] == 0


def test_a_damaged_checkpoint() -> None:
    assert live()[0] == 0
    path = Path("out/states.checkpoint")
    path.write_bytes(path.read_bytes()[:-5])
    code, _, errors = live()
    assert code == 2 and errors.count("\n") == 1
    assert errors.startswith("quernbrook: checkpoint 'out/states.checkpoint': cut: ")


def fill_the_disk(*_: object) -> None:
    raise OSError(28, "No space left on device")


def test_a_full_disk(panel: Panel, monkeypatch: pytest.MonkeyPatch) -> None:
    told = (
        "out can't be written: No space left on device; put that right and start again, the run "
        "goes on from its checkpoint"
    )
    row = panel.until(panel.dates[0])
    for name in ("save_checkpoint", "pq.write_table"):
        with monkeypatch.context() as patch:
            patch.setattr(f"{output_module.__name__}.{name}", fill_the_disk)
            require_fault(live(), told)
            with OutputFolder("out") as output:
                run = LiveRun(GRAPH, output)
                with pytest.raises(LiveError, match="No space left"):
                    run.tick(row)
                # The functions are ahead of the checkpoint.
                with pytest.raises(LiveError, match="the run broke off within a tick"):
                    run.tick(row)
    assert live()[0] == 0
    require_same_bits(read_weights("out"), whole_run(GRAPH, panel))


def test_what_is_synced_before_what(panel: Panel, monkeypatch: pytest.MonkeyPatch) -> None:
    """A power cut may take back whatever hasn't been synced, renames included."""
    steps = []
    sync = os.fsync

    def watched(descriptor: int) -> None:
        path = Path(os.readlink(f"/proc/self/fd/{descriptor}"))
        kind = "folder" if path.is_dir() else path.name.split(".")[1]
        steps.append((kind, sorted(p.name for p in Path("out").iterdir() if p.name[0] != ".")))
        sync(descriptor)

    with OutputFolder("out") as output:
        run = LiveRun(GRAPH, output)
        monkeypatch.setattr(os, "fsync", watched)
        run.tick(panel.until(panel.dates[0]))
    weights, checkpoint = "weights-2015-01-02.parquet", "states.checkpoint"
    assert steps == [
        ("weights", []),
        ("folder", [weights]),
        ("states", [weights]),
        ("folder", [checkpoint, weights]),
    ]


def test_a_day_whose_weights_are_ahead_of_the_checkpoint_comes_again(
    panel: Panel, monkeypatch: pytest.MonkeyPatch
) -> None:
    lines = [line(panel, row) for row in range(len(panel.dates))]
    for row in (0, 5):
        send(b"".join(lines[:row]))
        # The disk is full when the weights have been written.
        with monkeypatch.context() as patch:
            patch.setattr(f"{output_module.__name__}.save_checkpoint", fill_the_disk)
            assert send(lines[row])[0] == 2
        ahead, later = (panel.dates[place].date() for place in (row, row + 1))
        require_fault(
            send(b"".join(lines[row + 1 :])),
            f"{later}: the run broke off between the weights of {ahead} and their checkpoint: take "
            f"in {ahead} again first, or delete out/weights-{ahead}.parquet to go on without it",
        )
    assert send(b"".join(lines[5:]))[0] == 0
    require_same_bits(read_weights("out"), whole_run(GRAPH, panel))


def test_a_new_folder_is_synced(monkeypatch: pytest.MonkeyPatch) -> None:
    synced = []
    monkeypatch.setattr(os, "fsync", lambda one: synced.append(os.readlink(f"/proc/self/fd/{one}")))
    for _ in range(2):
        with OutputFolder("out"):
            assert synced == [os.getcwd()]


def test_rows_that_a_run_refuses(panel: Panel) -> None:
    first = panel.until(panel.dates[0])
    with OutputFolder("out") as output:
        run = LiveRun(GRAPH, output)
        for row, told in (
            (panel, "a tick takes one date; got 12"),
            (
                Panel(first.dates + pd.Timedelta(hours=16), first.symbols, first.fields),
                "a live run goes by days, without times and time zones; got 2015-01-02 16:00:00",
            ),
            (Panel(first.dates, pd.Index([]), {}), "2015-01-02: the row has no symbols"),
            (
                Panel(first.dates, pd.RangeIndex(5), first.fields),
                "a live run takes symbols that are texts; got 0",
            ),
        ):
            with pytest.raises(LiveError) as error:
                run.tick(row)
            assert str(error.value) == told
        with pytest.raises(LiveError, match="takes symbols that are texts; got 0"):
            run.warm_up(Panel(panel.dates, pd.RangeIndex(5), panel.fields))
        run.tick(first)
        with pytest.raises(LiveError, match="2015-01-02: the run has come to 2015-01-02"):
            run.tick(first)
        with pytest.raises(LiveError, match="out has a run that has begun"):
            run.warm_up(panel)


def test_rows_without_the_universe(panel: Panel) -> None:
    first = panel.until(panel.dates[0])
    with OutputFolder("out") as output:
        run = LiveRun(GRAPH, output, universe="volume")
        with pytest.raises(LiveError, match="the rows lack the universe, the field 'volume'"):
            run.tick(Panel(first.dates, first.symbols, {"close": first.fields["close"]}))
        run.tick(first)


def test_a_folder_without_weights() -> None:
    with pytest.raises(LiveError, match="in has no weights of a live run"):
        read_weights("in")
