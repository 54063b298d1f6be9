"""`python -m quernbrook.workbench` is the command `quernbrook`."""

from quernbrook.workbench.command_line.application import main

if __name__ == "__main__":
    main()
