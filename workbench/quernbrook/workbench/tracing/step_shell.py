"""Stepping through a run in a terminal."""

from __future__ import annotations

import cmd
import json
import shlex
from collections.abc import Callable
from typing import Any, TextIO

import numpy as np
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.reference_host import default_registry, draw_tree
from quernbrook.simulator_engine._types import SimulatorEngineError
from quernbrook.workbench.tracing.errors import TraceError
from quernbrook.workbench.tracing.stepping import Breakpoint, Stepper
from quernbrook.workbench.tracing.subject import column_number
from quernbrook.workbench.tracing.text_table import aligned

_COLUMNS_SHOWN = 6
_NUMBERS_SHOWN = 20
_LETTERS_SHOWN = 2000


class StepShell(cmd.Cmd):
    """Reads commands and prints where the run stands after each. 'help' lists them."""

    prompt = "(step) "

    def __init__(self, stepper: Stepper, stdin: TextIO, stdout: TextIO) -> None:
        super().__init__(stdin=stdin, stdout=stdout)
        # The line editor is for terminals.
        self.use_rawinput = stdin.isatty()
        self.stepper = stepper

    def preloop(self) -> None:
        self._print(self.stepper.stop)

    def emptyline(self) -> bool:
        """Repeat nothing."""
        return False

    def onecmd(self, line: str) -> bool:
        try:
            return bool(super().onecmd(line))
        except (TraceError, SimulatorEngineError, SchemaError, _UsageError) as error:
            self._print(error)
        except KeyboardInterrupt:
            self._print("interrupted")
            self._print(self.stepper.stop)
        return False

    def default(self, line: str) -> None:
        if line == "EOF":
            self.cmdqueue.append("quit")
            return
        raise _UsageError(f"unknown command '{line.split()[0]}': 'help' lists all")

    def do_step(self, line: str) -> None:
        """step: run the next node."""
        _words(line, self.do_step, 0, 0)
        self._print(self.stepper.step())

    def do_row(self, line: str) -> None:
        """row: run the rest of this row."""
        _words(line, self.do_row, 0, 0)
        self._print(self.stepper.next_row())

    def do_go(self, line: str) -> None:
        """go [DATE]: run to the next breakpoint, to a date's row, or to the end."""
        words = _words(line, self.do_go, 0, 1)
        self._print(self.stepper.go(*words))

    def do_again(self, line: str) -> None:
        """again: go back to the beginning of this row."""
        _words(line, self.do_again, 0, 0)
        self._print(self.stepper.again())

    def do_before(self, line: str) -> None:
        """before PATH [DATE]: stop before a node, in every row or in one."""
        self.stepper.break_before(*_words(line, self.do_before, 1, 2))

    def do_after(self, line: str) -> None:
        """after PATH [DATE]: stop after a node, in every row or in one."""
        self.stepper.break_after(*_words(line, self.do_after, 1, 2))

    def do_nan(self, line: str) -> None:
        """nan PATH [SYMBOL]: stop, once, after the next row of a node that holds a NaN."""
        self.stepper.break_nan(*_words(line, self.do_nan, 1, 2))

    def do_breaks(self, line: str) -> None:
        """breaks: list the breakpoints."""
        _words(line, self.do_breaks, 0, 0)
        for number, one in enumerate(self.stepper.breakpoints, 1):
            self._print(f"{number}  {_breakpoint_text(one, self.stepper)}")

    def do_clear(self, line: str) -> None:
        """clear [NUMBER]: take away one breakpoint of the list, or all."""
        words = _words(line, self.do_clear, 0, 1)
        if not words:
            self.stepper.breakpoints.clear()
            return
        number = int(words[0]) if words[0].isdecimal() else 0
        if not 1 <= number <= len(self.stepper.breakpoints):
            raise _UsageError(f"there is no breakpoint {words[0]}: 'breaks' lists them")
        del self.stepper.breakpoints[number - 1]

    def do_tree(self, line: str) -> None:
        """tree: draw the graph, with the path of each node."""
        _words(line, self.do_tree, 0, 0)
        self._print(draw_tree(self.stepper.graph))

    def do_registers(self, line: str) -> None:
        """registers [SYMBOL]: the value of each node, for one symbol or the first few."""
        words = _words(line, self.do_registers, 0, 1)
        labels = self.stepper.columns
        shown = [column_number(labels, words[0])] if words else range(len(labels))[:_COLUMNS_SHOWN]
        lines = [["", *(str(labels[column]) for column in shown)]]
        for path, row in self.stepper.registers.items():
            lines.append([path, *(f"{row[column]:.6g}" for column in shown)])
        self._print("\n".join(aligned(lines, left=(0,))))

    def do_arguments(self, line: str) -> None:
        """arguments [PATH]: what a function is called with, by default the one that is next."""
        for row in self.stepper.arguments(*_words(line, self.do_arguments, 0, 1)):
            self._print(np.array2string(row, threshold=_NUMBERS_SHOWN))

    def do_state(self, line: str) -> None:
        """state [PATH]: the state of a function, by default of the one that is next."""
        text = repr(self.stepper.state(*_words(line, self.do_state, 0, 1)))
        self._print(text if len(text) <= _LETTERS_SHOWN else f"{text[:_LETTERS_SHOWN]} ...")

    def do_replace(self, line: str) -> None:
        """replace PATH FUNCTION [NAME=VALUE ...]: put a new instance of a function of the library
        at a path, from this row on. It has seen no rows yet."""
        path, name, *settings = _words(line, self.do_replace, 2, None)
        instance = default_registry().create_instance(name, **dict(map(_setting, settings)))
        self._print(self.stepper.replace(path, instance))

    def do_where(self, line: str) -> None:
        """where: where the run stands."""
        _words(line, self.do_where, 0, 0)
        self._print(self.stepper.stop)

    def do_quit(self, line: str) -> bool:
        """quit: leave."""
        return True

    def _print(self, what: Any) -> None:
        self.stdout.write(f"{what}\n")


class _UsageError(Exception):
    pass


def _words(line: str, command: Callable[..., Any], least: int, most: int | None) -> list[str]:
    try:
        words = shlex.split(line)
    except ValueError as error:
        raise _UsageError(f"{error}: {line}") from None
    if len(words) < least or (most is not None and len(words) > most):
        raise _UsageError(f"usage: {command.__doc__}")
    return words


def _setting(text: str) -> tuple[str, Any]:
    name, equals, value = text.partition("=")
    if not equals:
        raise _UsageError(f"expected NAME=VALUE; got {text}")
    try:
        return name, json.loads(value)
    except ValueError:
        return name, value


def _breakpoint_text(one: Breakpoint, stepper: Stepper) -> str:
    if one.when == "nan":
        where = "" if one.column is None else f" for {stepper.columns[one.column]}"
        return f"after the first NaN of {one.path}{where}"
    where = "" if one.row is None else f" in row {stepper.rows[one.row]}"
    return f"{one.when} {one.path}{where}"
