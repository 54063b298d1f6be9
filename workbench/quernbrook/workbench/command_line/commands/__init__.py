"""A module for each command, with `command`, the function behind it, whose docstring is its help,
and `EXAMPLE`, a command line that ends the help.

The type annotations of `command` are its arguments and options. Options have two dashes and no
short form: what starts with one dash may be a formula.
"""
