"""GRAPH: which file or formula it means, and what is told where it is none."""

from __future__ import annotations

import json
import os
import threading
from pathlib import Path

import pytest
from quernbrook.workbench import FormulaError, format_formula, graph_to_json, parse_formula
from quernbrook.workbench.command_line.failures import InputError
from quernbrook.workbench.command_line.graph_argument import read_graph

FIELDS = ("open", "close")
DOCUMENT = json.dumps(graph_to_json(parse_formula("rank(close)")))


def formula(argument: str) -> str:
    return format_formula(read_graph(argument, FIELDS))


def message(argument: str) -> str:
    with pytest.raises((InputError, FormulaError)) as caught:
        read_graph(argument, FIELDS)
    return str(caught.value)


@pytest.mark.parametrize("text", ["rank(close)", "close", "close / open", "-1 * close", "-close"])
def test_formulas(text: str) -> None:
    assert formula(text) == text


def test_files(tmp_path: Path) -> None:
    for name, text in (
        ("a.json", DOCUMENT),
        ("a.txt", "rank(close) # reversed\n"),
        ("a file", "\ufeffrank(\n  close\n)\n\n"),
        ("-a.alpha", "rank(close)"),
    ):
        Path(name).write_text(text, "utf-8")
        assert formula(name) == formula(str(tmp_path / name)) == "rank(close)"


def test_a_name_alone_is_a_formula_beside_a_file_of_that_name() -> None:
    Path("close").write_text("open")
    assert formula("close") == "close"
    assert formula("./close") == "open"


def test_a_folder_is_no_graph() -> None:
    Path("close/open").mkdir(parents=True)
    assert formula("close/open") == "close / open"


def test_a_pipe_is_a_file() -> None:
    os.mkfifo("pipe.alpha")
    writer = threading.Thread(target=Path("pipe.alpha").write_text, args=("rank(close)",))
    writer.start()
    assert formula("pipe.alpha") == "rank(close)"
    writer.join()


def test_texts_that_no_path_could_have() -> None:
    longest = "close" + " + close" * 2000
    assert formula(longest) == longest
    assert "has no meaning here" in message("close\0")


def test_files_that_are_not_there() -> None:
    Path("mine.json").write_text(DOCUMENT)
    assert message("mien.json") == "there is no file mien.json; the nearest is 'mine.json'"
    assert message("no/such.txt") == "there is no file no/such.txt"
    assert message("mine.alpha").startswith("mine.alpha is no file, and no formula either: line 1")


@pytest.mark.parametrize(
    ("name", "content", "told"),
    [
        ("a.txt", b"", "a.txt: line 1, column 1: expected an operand; the formula ends here"),
        ("a.txt", b"rank(close", "a.txt: line 1, column 11: expected"),
        ("a.txt", b"\xff\xfe", "a.txt is no text in UTF-8"),
        ("a.json", b"", "a.json is no JSON: Expecting value: line 1 column 1 (char 0)"),
        ("a.json", b"rank(close)", "a.json is no JSON: "),
        ("a.json", b"[]", "a.json: the document: expected an object; got []"),
        ("a.json", b"[" * 100_000, "a.json: the graph nests too deeply for JSON"),
        ("a.json", DOCUMENT.replace("relative_rank", "relative_rnk").encode(), "a.json: /graph/node: unknown function 'latitudinal_relative_rnk'; the nearest is 'latitudinal_relative_rank'"),
    ],
)  # fmt: skip
def test_faulty_files(name: str, content: bytes, told: str) -> None:
    Path(name).write_bytes(content)
    assert message(name).startswith(told)


def test_a_folder_with_the_name_of_a_file() -> None:
    Path("a.json").mkdir()
    assert message("a.json") == "a.json can't be read: Is a directory"


@pytest.mark.parametrize(
    ("text", "told"),
    [
        ('rotation("longitudinal_men", close)', "root: unknown function 'longitudinal_men'; the nearest is 'longitudinal_mean'"),
        ('rank(feature("clsoe"))', "root.c0: unknown feature 'clsoe'; the nearest is 'close'"),
        ("--dta", "there is no option --dta: see --help"),
    ],
)  # fmt: skip
def test_names_that_the_formulas_take_but_nobody_knows(text: str, told: str) -> None:
    assert message(text) == told


def test_syntax_errors_show_the_place() -> None:
    assert message("rank(close) +").endswith("\n  rank(close) +\n               ^")


def test_any_feature_where_no_data_are_given() -> None:
    assert format_formula(read_graph("rank(anything)")) == "rank(anything)"
