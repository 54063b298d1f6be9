"""A folder of data and the program, as for all commands."""

from ..command_line.conftest import Program, _in_a_folder_of_its_own, data, program

__all__ = ["Program", "_in_a_folder_of_its_own", "data", "program"]
