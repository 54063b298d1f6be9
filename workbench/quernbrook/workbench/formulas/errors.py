"""What is wrong with a formula, and where."""

from __future__ import annotations


class FormulaError(ValueError):
    """A text that is no formula.

    problem: what is wrong, in one sentence.
    line, column: where, from 1.
    The message also shows the line, with a caret below the place.
    """

    def __init__(self, problem: str, text: str, offset: int) -> None:
        before = text[:offset]
        self.problem = problem
        self.line = before.count("\n") + 1
        self.column = offset - (before.rfind("\n") + 1) + 1
        shown = text.split("\n")[self.line - 1]
        # Tabs keep the caret below its place.
        margin = "".join("\t" if sign == "\t" else " " for sign in shown[: self.column - 1])
        place = f"line {self.line}, column {self.column}"
        super().__init__(f"{place}: {problem}\n  {shown}\n  {margin}^")
