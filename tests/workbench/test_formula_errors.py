"""What a person is told about a text that is no formula."""

from __future__ import annotations

import pytest
from quernbrook.workbench import FormulaError, parse_formula

FEATURES = ("open", "close")


@pytest.mark.parametrize(
    ("text", "problem", "column"),
    [
        ("", "expected an operand; the formula ends here", 1),
        ("close +", "expected an operand; the formula ends here", 8),
        ("close + * open", "expected an operand; got '*'", 9),
        ("rank(close", "expected an operator, '(', ')', ',', ';' or '='; the formula ends here", 11),
        ("close open", "expected an operator, '(' or the end of the formula; got 'open'", 7),
        ("open < close < 1", "expected '&&', '+', '-', '==', '?', '||' or the end of the formula; got '<'", 14),
        ("open ? close", "expected ':'; the formula ends here", 13),
        ("open $ close", "'$' has no meaning here", 6),
        ('rotation("f', "the text has no closing quote in its line", 10),
        (r'rotation("\x")', "expected a text with the escapes of JSON", 10),
        ("corelation(close, open, 3)", "unknown function 'corelation'; the nearest is 'correlation'", 1),
        ("longitudinal_men(close, 3)", "unknown function 'longitudinal_men'; the nearest is 'longitudinal_mean'", 1),
        ("close(open)", "unknown function 'close'", 1),
        ("1 + clsoe", "unknown feature 'clsoe'; the nearest is 'close'", 5),
        ("retruns", "unknown feature 'retruns'; the nearest is 'returns'", 1),
        ("adv20", "'adv20' needs the feature 'volume'", 1),
        ("sum(close)", "expected sum(x, d); got 1 operand", 1),
        ("sum(close, open)", "expected sum(x, d) with a number in the last place", 12),
        ("sum(close, 0.5)", "expected a window of at least 1; got 0.5", 12),
        ("sum(close, 1e999)", "expected a window of at least 1; got inf", 12),
        ("rank(close, open)", "expected rank(x); got 2 operands", 1),
        ("scale(close, b=2)", "expected scale(x, a = 1)", 14),
        ("scale(close, open)", "expected scale(x, a = 1) with a number in the second place", 14),
        ("rank(close; x=1)", "configuration goes with the registered name, latitudinal_relative_rank", 1),
        ('rank("close")', "expected a row or a number; got a text", 6),
        ("close + true", "expected a row or a number; got true or false", 9),
        ("close + int(3)", "expected a row or a number; got an int literal", 9),
        ("longitudinal_mean(close, windw=3)", "longitudinal_mean has no parameter 'windw'; the nearest is 'window'", 26),
        ("longitudinal_mean(close, window=3.5)", "'window' must be int; got 3.5", 33),
        ("longitudinal_mean(close, window=open)", "'window' must be a number, a text, true or false", 33),
        ("longitudinal_mean(close, 3, window=3)", "'window' is given twice", 29),
        ("longitudinal_mean(window=3, window=3)", "'window' is given twice", 29),
        ("longitudinal_mean(window=3, close)", "operands stand before arguments with names", 29),
        ("weighted_by_vol(invert=true)", "weighted_by_vol needs the parameter 'window', too", 1),
        ("longitudinal_mean(close; a=1, a=2)", "'a' is given twice", 31),
        ("longitudinal_mean(close; a=open)", "expected a value; got 'open': a text needs quotes", 28),
        ("longitudinal_mean(close; a=-true)", "expected a number after '-'", 28),
        ("close + " + 400 * "9", "the number is too large for a float", 9),
        (f"scale(close, {400 * '9'})", "the number is too large for a float", 14),
        (f"float({400 * '9'})", "the number is too large for a float", 7),
        (f"latitudinal_winsorize(close, share={400 * '9'})", "the number is too large for a float", 36),
        (f"longitudinal_mean(close, {10_000 * '9'})", "a whole number can't have 10,000 digits", 26),
        ("int(2.5)", "int(...) can't hold 2.5", 5),
        ("bool(maybe)", "bool(...) can't hold 'maybe'", 6),
        ("float(1, 2)", "float(...) takes one operand", 1),
        ("feature(1)", "feature(...) takes a name", 9),
        ("rotation()", "expected rotation(name, ...)", 1),
        ("gt(sharpe, value=1)", "gt has no arguments with names", 12),
        ("gt(sharpe; value=1)", "gt has no configuration", 1),
    ],
)  # fmt: skip
def test_the_problem_and_its_place(text: str, problem: str, column: int) -> None:
    with pytest.raises(FormulaError) as raised:
        parse_formula(text, features=FEATURES)
    assert raised.value.problem == problem
    assert (raised.value.line, raised.value.column) == (1, column)


def test_the_message_shows_the_line_with_a_caret() -> None:
    with pytest.raises(FormulaError) as raised:
        parse_formula("rank(\n\tclose -\n\tclsoe)", features=FEATURES)
    assert str(raised.value) == (
        "line 3, column 2: unknown feature 'clsoe'; the nearest is 'close'\n  \tclsoe)\n  \t^"
    )
